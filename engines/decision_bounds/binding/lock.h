// A hold of a bound's `_changed`. There are two kinds of condition, each with enter, exit, place
// (to wait in) and notify_all: the module's own, whose lock and waiters are the core's monitor, and
// any other object, used through its methods.
#pragma once

#include <new>
#include <optional>
#include <type_traits>
#include <variant>

#include "decision_bounds/binding/condition.h"
#include "decision_bounds/binding/interpreter/translate.h"

namespace decision_bounds::binding {

/// One hold of the module's own condition.
class NativeCondition {
 public:
  /// A thread's place among those that wait for room, in all the rounds of its operation.
  class Place : public CallScope::Checkpoint {
   public:
    Place(NativeCondition& condition, std::optional<Wish> wish)
        : condition_(&condition), place_(condition.monitor_, wish) {}
    void wait(Value timeout);
    void took_room() { place_.kept(); }
    /// What it was promised has gone: others may find room.
    template <class MakeForecast>
    void pass_on(MakeForecast&& make_forecast) {
      place_.pass_on(make_forecast);
    }

   private:
    NativeCondition* condition_;
    Monitor::Place place_;
  };

  NativeCondition(Monitor& monitor, bool interruptible)
      : monitor_(monitor), interruptible_(interruptible) {}
  NativeCondition(const NativeCondition&) = delete;
  NativeCondition& operator=(const NativeCondition&) = delete;

  void enter() {
    if (!monitor_.lock(interruptible_)) throw PythonError();
  }
  /// Whoever was called in between may have released the lock: then that is the error.
  void exit() {
    if (!monitor_.unlock()) [[unlikely]]
      refuse("release");
  }
  /// Leaves the pending error pending, or puts that of a lock that is not held in its place.
  void exit_with_error();

  Place place(std::optional<Wish> wish = std::nullopt) { return Place(*this, wish); }
  // Where the lock has gone meanwhile, `exit` tells.
  void notify_all() { monitor_.notify_all(); }
  /// Wakes those alone whom a forecast finds room for, and whoever has a test of its own to make.
  template <class MakeForecast>
  void notify_ready(MakeForecast&& make_forecast) {
    monitor_.notify_ready(make_forecast);
  }

 private:
  [[noreturn, gnu::cold, gnu::noinline]] static void refuse(const char* what);

  Monitor& monitor_;
  const bool interruptible_;
  bool held_ = true;  // from `enter` on, until an interrupted wait goes without the lock
};

/// One hold of a condition of somebody else's, entered and left as a `with` statement does it: both
/// methods are looked up on its type before the first is called.
class ForeignCondition {
 public:
  class Place : public CallScope::Checkpoint {
   public:
    explicit Place(const ForeignCondition& condition) : condition_(&condition) {}
    void wait(Value timeout) { condition_->wait(timeout); }
    void took_room() {}
    template <class MakeForecast>
    void pass_on(MakeForecast&&) {}

   private:
    const ForeignCondition* condition_;
  };

  ForeignCondition(const State& state, PyObject* condition);
  ForeignCondition(const ForeignCondition&) = delete;
  ForeignCondition& operator=(const ForeignCondition&) = delete;

  void enter() const { call(enter_.get()); }
  /// Hands over an error that is pending, and leaves it pending.
  void exit() const;
  void exit_with_error() const { exit(); }

  Place place() const { return Place(*this); }
  void wait(Value timeout) const { call_method(condition_, state_.names.wait, {timeout}); }
  void notify_all() const { call_method(condition_, state_.names.notify_all); }

 private:
  const State& state_;
  PyObject* const condition_;
  Ref enter_;
  Ref exit_;
};

template <class Condition, class Body>
auto with_condition(Condition&& condition, Body&& body) {
  using Result = decltype(body(condition));
  condition.enter();
  std::optional<std::conditional_t<std::is_void_v<Result>, std::monostate, Result>> result;
  try {
    if constexpr (std::is_void_v<Result>) {
      body(condition);
    } else {
      result.emplace(body(condition));
    }
  } catch (const PythonError&) {
    condition.exit_with_error();
    throw;
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
    condition.exit_with_error();
    throw PythonError();
  }
  condition.exit();
  if constexpr (!std::is_void_v<Result>) return *std::move(result);
}

template <class Body>
[[gnu::cold, gnu::noinline]] auto with_foreign_condition(const State& state, PyObject* changed,
                                                         Body&& body) {
  return with_condition(ForeignCondition(state, changed), body);
}

/// Runs `body(condition)` with `changed` held, and leaves it on every way out.
template <class Body>
auto with_lock(const State& state, const Ref& changed, bool interruptible, Body&& body) {
  if (Monitor* const monitor = native_monitor(state, changed.get())) [[likely]] {
    return with_condition(NativeCondition(*monitor, interruptible), body);
  }
  return with_foreign_condition(state, changed.get(), body);
}

}  // namespace decision_bounds::binding
