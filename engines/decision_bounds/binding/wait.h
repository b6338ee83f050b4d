// The wait step, on the module's own conditions and on anybody else's.
#pragma once

#include "decision_bounds/binding/condition.h"
#include "decision_bounds/wait.h"

namespace decision_bounds::binding {

/// A condition that is used through its methods.
struct ForeignCondition {
  const State& state;
  PyObject* condition;

  void wait(Value timeout) const { call_method(condition, state.names.wait, {timeout}); }
};

/// The module's own condition, held by `lock`, with the place of the operation among its waiters.
struct OwnCondition {
  Locked& lock;
  Monitor::Place& place;

  void wait(Value timeout) const { lock.sleep(place, to_timeout(timeout)); }
};

/// A callable that gives a number.
struct NumberSource {
  PyObject* callable;
  Value operator()() const { return Value::of(call(callable)); }
};

/// One wait step of an operation of ours. `deadline` and `clock` may be None.
template <class Changed, class Stopping>
void wait_step(const State& state, const Changed& changed, Stopping&& stopping, PyObject* deadline,
               PyObject* clock) {
  std::optional<Value> until;
  std::optional<NumberSource> now;
  if (deadline != Py_None) until = Value::borrowed(deadline);
  if (clock != Py_None) now = NumberSource{clock};
  // The poll interval is read once the stop predicate has been asked, which may change it.
  decision_bounds::wait(changed, stopping, until, now,
                        [&] { return Value::of(state.global(state.names.poll_seconds)); });
}

/// A hold of a bound's `_changed`, through which the core waits and notifies: of the module's own
/// condition, or of one that is used through its methods.
template <class Bound>
class OwnLock {
 public:
  OwnLock(Bound& bound, PyObject* changed, Locked& locked)
      : bound_(bound), changed_(changed), locked_(locked) {}
  template <class Call>
  void wait_for_room(const Call& call) {
    if (!place_) place_.emplace(locked_.monitor(), bound_.wish(call));
    place_->pass_on([this] { return bound_.forecast(); });
    bound_.wait_for_room(changed_, OwnCondition{locked_, *place_}, call);
    rounds_.end();
  }
  void notify_all() {
    locked_.monitor().notify_ready([this] { return bound_.forecast(); });
  }
  /// The operation ends as it should: it has what it waited for.
  void kept() {
    if (place_) place_->kept();
  }

 private:
  Bound& bound_;
  PyObject* changed_;
  Locked& locked_;
  std::optional<Monitor::Place> place_;
  Operation::Rounds rounds_;
};

template <class Bound>
class ForeignLock {
 public:
  ForeignLock(Bound& bound, PyObject* changed) : bound_(bound), changed_(changed) {}
  template <class Call>
  void wait_for_room(const Call& call) {
    bound_.wait_through_module(changed_, call);
    rounds_.end();
  }
  void notify_all() { call_method(changed_, bound_.state().names.notify_all); }
  void kept() {}

 private:
  Bound& bound_;
  PyObject* changed_;
  Operation::Rounds rounds_;
};

/// Runs `body(lock)` with the bound's condition held.
template <class Bound, class Body>
auto with_lock(Bound& bound, const Ref& changed, bool interruptible, Body&& body) {
  if (Monitor* const monitor = native_monitor(bound.state(), changed.get())) [[likely]] {
    Locked locked(*monitor, interruptible);
    OwnLock<Bound> lock(bound, changed.get(), locked);
    return body(lock);
  }
  return with_foreign_condition(bound.state(), changed.get(), [&] {
    ForeignLock<Bound> lock(bound, changed.get());
    return body(lock);
  });
}

/// Whether the module's `_wait` is the one it was made with.
inline bool own_wait(const State& state, const Ref& wait) { return wait.get() == state.wait.get(); }

}  // namespace decision_bounds::binding
