// A hold of a bound's `_changed`. There are two kinds of condition: the module's own, whose lock
// and waiters are the core's monitor, and any other object, which is used through its methods.
#pragma once

#include <new>
#include <optional>
#include <type_traits>
#include <variant>

#include "decision_bounds/binding/condition.h"
#include "decision_bounds/binding/interpreter/error.h"

namespace decision_bounds::binding {

/// A hold of a condition of somebody else's, entered and left as a `with` statement does it: both
/// methods are looked up on its type before the first is called.
class ForeignCondition {
 public:
  [[gnu::cold]] ForeignCondition(const State& state, PyObject* condition);

  [[gnu::cold]] void enter() const;
  /// Hands over an error that is pending, and leaves it pending.
  [[gnu::cold]] void exit() const;
  [[gnu::cold]] void wait(Value timeout) const;
  [[gnu::cold]] void notify_all() const;

 private:
  const State& state_;
  PyObject* const condition_;
  const Ref enter_;
  const Ref exit_;
};

/// A hold of the module's own condition, in place; or of another's, by way of the above.
class Changed {
 public:
  /// A thread's place among those that wait for room, in all the rounds of its operation.
  class Place : public CallScope::Checkpoint {
   public:
    Place(Changed& changed, std::optional<Wish> wish) : changed_(&changed), wish_(wish) {}
    void wait(Value timeout);
    void took_room() {
      if (place_) [[unlikely]]
        place_->kept();
    }
    /// What it was promised has gone: others may find room.
    template <class MakeForecast>
    void pass_on(MakeForecast&& make_forecast) {
      if (place_) place_->pass_on(make_forecast);
    }

   private:
    Changed* changed_;
    std::optional<Wish> wish_;
    std::optional<Monitor::Place> place_;  // from the first wait on
  };

  /// `condition` outlives the hold.
  Changed(const State& state, const Ref& condition, bool interruptible)
      : monitor_(native_monitor(state, condition.get())), interruptible_(interruptible) {
    if (monitor_ == nullptr) [[unlikely]]
      foreign_.emplace(state, condition.get());
  }
  Changed(const Changed&) = delete;
  Changed& operator=(const Changed&) = delete;

  void enter() {
    if (monitor_ == nullptr) [[unlikely]]
      return foreign_->enter();
    if (!monitor_->lock(interruptible_)) throw PythonError();
  }
  /// Whoever was called in between may have released the lock: then that is the error.
  void exit() {
    if (monitor_ == nullptr || !monitor_->unlock()) [[unlikely]]
      exit_slowly();
  }
  /// Leaves the pending error pending, or puts that of a lock that is not held in its place.
  void exit_with_error();

  Place place(std::optional<Wish> wish = std::nullopt) { return Place(*this, wish); }

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
  [[noreturn]] static void refuse(const char* what);
  [[gnu::cold, gnu::noinline]] void exit_slowly() const;

  Monitor* const monitor_;
  std::optional<ForeignCondition> foreign_;  // where there is no monitor
  const bool interruptible_;
  bool held_ = true;  // from `enter` on, until an interrupted wait goes without the lock
};

/// Runs `body(changed)` with the condition held, and leaves it on every way out.
template <class Body>
auto with_lock(const State& state, const Ref& condition, bool interruptible, Body&& body) {
  Changed changed(state, condition, interruptible);
  using Result = decltype(body(changed));
  changed.enter();
  std::optional<std::conditional_t<std::is_void_v<Result>, std::monostate, Result>> result;
  try {
    if constexpr (std::is_void_v<Result>) {
      body(changed);
    } else {
      result.emplace(body(changed));
    }
  } catch (const PythonError&) {
    changed.exit_with_error();
    throw;
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
    changed.exit_with_error();
    throw PythonError();
  }
  changed.exit();
  if constexpr (!std::is_void_v<Result>) return *std::move(result);
}

}  // namespace decision_bounds::binding
