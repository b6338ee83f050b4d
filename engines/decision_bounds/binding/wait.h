// The wait step of an admission, and the errors of one that ended without a share.
#pragma once

#include <optional>

#include "decision_bounds/binding/lock.h"
#include "decision_bounds/wait.h"

namespace decision_bounds::binding {

/// What the module's own `_wait` is told, with what it looks up for itself.
template <class Stopping>
class Waiting {
 public:
  /// The deadline and its clock may be None.
  Waiting(const State& state, Stopping stopping, PyObject* deadline, PyObject* clock)
      : state_(state), stopping_(stopping), deadline_(deadline), clock_(clock) {}

  bool stopping() { return stopping_(); }
  /// Read once the stop predicate has been asked, which may change it.
  Value poll() const { return Value::of(state_.global(state_.names.poll_seconds)); }
  std::optional<Value> deadline() const {
    if (deadline_ == Py_None || clock_ == Py_None) return std::nullopt;
    return Value::borrowed(deadline_);
  }
  Value now() const { return Value::of(call(clock_)); }
  Outcome refuse(Outcome outcome) const {
    const Names& names = state_.names;
    if (outcome == Outcome::stopped) {
      state_.set_error(names.stopped_class, names.stopped_text);
    } else {
      state_.set_error(names.timeout_class, names.timeout_text);
    }
    return outcome;
  }

 private:
  const State& state_;
  Stopping stopping_;
  PyObject* const deadline_;
  PyObject* const clock_;
};

/// The module's `_wait` as it is now; none where that is the one it was made with.
inline Ref replaced_wait(const State& state) {
  Ref wait = state.global(state.names.wait_private);
  return wait.get() == state.wait.get() ? Ref() : std::move(wait);
}

}  // namespace decision_bounds::binding
