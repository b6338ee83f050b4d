// The wait step of an admission, and what raises the error of one that ended without a share.
#pragma once

#include "decision_bounds/binding/lock.h"
#include "decision_bounds/wait.h"

namespace decision_bounds::binding {

/// Leaves an error of the module's pending: an instance of the class as it is in the module now.
/// Throws where there is none to be had.
void raise_error(const State& state, PyObject* class_name, PyObject* text);

/// Leaves the error of an admission that ended this way pending, unless it is already.
[[gnu::cold, gnu::noinline]] void raise_for(const State& state, Outcome outcome);

/// A callable that gives a number.
struct NumberSource {
  PyObject* callable;
  Value operator()() const { return Value::of(call(callable)); }
};

/// What the module's own `_wait` does. `deadline` and `clock` may be None. An outcome's error is
/// pending already.
template <class Place, class Stopping>
std::optional<Outcome> wait_step(const State& state, Place& place, Stopping&& stopping,
                                 PyObject* deadline, PyObject* clock) {
  std::optional<Value> until;
  std::optional<NumberSource> now;
  if (deadline != Py_None) until = Value::borrowed(deadline);
  if (clock != Py_None) now = NumberSource{clock};
  // The poll interval is read once the stop predicate has been asked, which may change it.
  const auto poll = [&] { return Value::of(state.global(state.names.poll_seconds)); };
  const std::optional<Outcome> ended = decision_bounds::wait(place, stopping, until, now, poll);
  if (ended) raise_for(state, *ended);
  return ended;
}

/// The module's `_wait` as it is now; none where that is the one it was made with.
Ref replaced_wait(const State& state);

}  // namespace decision_bounds::binding
