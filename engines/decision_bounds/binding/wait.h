// The wait step, on the module's own conditions and on anybody else's.
#pragma once

#include "decision_bounds/binding/condition.h"
#include "decision_bounds/wait.h"

namespace decision_bounds::binding {

/// A condition that is used through its methods.
struct ForeignCondition {
  const State& state;
  PyObject* condition;

  void wait(const Value& timeout) const {
    call_method(condition, state.names.wait, {timeout.boxed().get()});
  }
  void notify_all() const { call_method(condition, state.names.notify_all); }
};

/// The module's own condition, held by `lock`, with the waiter that its notifiers see.
struct OwnCondition {
  Locked& lock;
  Waiter& waiter;

  void wait(const Value& timeout) const { lock.sleep(waiter, to_timeout(timeout)); }
};

/// A callable that gives a number.
struct NumberSource {
  PyObject* callable;
  Value operator()() const { return Value::of(call(callable).get()); }
};

/// One wait step of an operation of ours. `deadline` and `clock` may be None.
template <class Changed, class Stopping>
void wait_step(const State& state, const Changed& changed, Stopping&& stopping, PyObject* deadline,
               PyObject* clock) {
  std::optional<Value> until;
  std::optional<NumberSource> now;
  if (deadline != Py_None) until = Value::of(deadline);
  if (clock != Py_None) now = NumberSource{clock};
  // The poll interval is read once the stop predicate has been asked, which may change it.
  decision_bounds::wait(changed, stopping, until, now,
                        [&] { return Value::of(state.global(state.names.poll_seconds).get()); });
}

/// Whether the module's `_wait` is the one it was made with.
inline bool own_wait(const State& state, const Ref& wait) { return wait.get() == state.wait.get(); }

}  // namespace decision_bounds::binding
