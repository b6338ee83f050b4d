// Holds a bound's `_changed` for one operation. There are two kinds of condition: the module's own,
// whose lock and waiters are the core's monitor, and any other object, which is used through its
// methods.
#pragma once

#include <optional>
#include <type_traits>

#include "decision_bounds/binding/condition.h"
#include "decision_bounds/binding/interpreter/error.h"

namespace decision_bounds::binding {

/// A condition of somebody else's, entered and left as a `with` statement does it: both methods are
/// looked up on its type before the first is called. Those of threading.Condition call the same of
/// its `_lock`, and nothing else: that is done here, in a fifth of the time.
class ForeignCondition {
 public:
  ForeignCondition(const State& state, PyObject* condition);

  void enter() const;
  /// Hands over an error that is pending, and leaves it pending.
  void exit() const;
  void wait(Value timeout) const;
  void notify_all() const;

 private:
  const State& state_;
  PyObject* const condition_;
  Ref enter_;  // both bound; none where the lock's are called instead
  Ref exit_;
};

/// The condition, held; and the operation's place among those that wait for room, through all its
/// rounds.
class Lock : public CallScope::Checkpoint {
 public:
  /// `condition` outlives the lock.
  Lock(const State& state, const Ref& condition, bool interruptible)
      : monitor_(native_monitor(state, condition.get())), interruptible_(interruptible) {
    if (monitor_ == nullptr) [[unlikely]]
      foreign_.emplace(state, condition.get());
  }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void enter() {
    if (monitor_ == nullptr) [[unlikely]]
      return foreign_->enter();
    if (!monitor_->lock(interruptible_)) throw PythonError();
  }
  /// Whoever was called in between may have released the lock: then that is the error. One that is
  /// pending stays pending, or is the other's context.
  void exit() {
    place_.reset();
    if (monitor_ == nullptr || !monitor_->unlock()) [[unlikely]]
      exit_slowly();
  }

  /// What the operation waits for, where others can tell whether it finds that.
  void wish(std::optional<Wish> wish) { wish_ = wish; }
  void wait(Value timeout);
  /// The operation has taken the room it was promised, if it was.
  void accept() {
    if (place_) [[unlikely]]
      place_->accept();
  }
  /// It found none after all: others may.
  template <class MakeForecast>
  void decline(MakeForecast&& make_forecast) {
    if (place_) place_->decline(make_forecast);
  }

  /// Whether there may be somebody to notify.
  bool awaited() const { return monitor_ == nullptr || monitor_->awaited(); }
  // Where the lock has gone meanwhile, `exit` tells.
  void notify_all() {
    if (monitor_ == nullptr) [[unlikely]]
      return foreign_->notify_all();
    monitor_->notify_all();
  }
  /// Wakes those alone whom a forecast finds room for, and whoever has a test of its own to make.
  template <class MakeForecast>
  void notify_ready(MakeForecast&& make_forecast) {
    if (monitor_ == nullptr) [[unlikely]]
      return foreign_->notify_all();
    monitor_->notify_ready(make_forecast);
  }

 private:
  [[gnu::cold, gnu::noinline]] void exit_slowly() const;

  Monitor* const monitor_;
  std::optional<ForeignCondition> foreign_;  // where there is no monitor
  std::optional<Monitor::Place> place_;      // from the first wait on
  std::optional<Wish> wish_;
  const bool interruptible_;
  bool held_ = true;  // from `enter` on, until an interrupted wait goes without the lock
};

/// Runs `body(lock)` with the condition held, and leaves it on every way out.
template <class Body>
auto with_lock(const State& state, const Ref& condition, bool interruptible, Body&& body) {
  Lock lock(state, condition, interruptible);
  std::optional<decltype(body(lock))> result;
  lock.enter();
  const bool complete = completes([&] { result.emplace(body(lock)); });
  lock.exit();
  if (!complete) throw PythonError();
  return *std::move(result);
}

}  // namespace decision_bounds::binding
