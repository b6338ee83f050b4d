// One waiting thread, as the thread that notifies sees it.
#pragma once

#include <condition_variable>
#include <cstdint>

namespace decision_bounds {

class WaiterQueue;

/// Lives on the stack of the waiting thread, in one of its monitor's queues while it sleeps.
///
/// A waiter whose tests need no callable of its own has them made by the notifying thread, under
/// the lock, and is woken only when the answer has changed: override `ready` (and `back`, where a
/// `ready` that said yes set room aside for the waiter). Every other waiter is always woken.
class Waiter {
 public:
  Waiter() = default;
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  /// Whether to wake the waiter. Called with the monitor's lock held, by any thread.
  virtual bool ready() noexcept { return true; }
  /// The waiter is back from its sleep, however it ended. Called once, by the waiting thread.
  virtual void back() noexcept {}

 protected:
  ~Waiter() = default;

 private:
  template <class Host>
  friend class Monitor;
  friend class WaiterQueue;

  Waiter* previous_ = nullptr;
  Waiter* next_ = nullptr;
  WaiterQueue* queue_ = nullptr;  // the one that it stands in, none once it is woken
  std::uint64_t forks_ = 0;       // the monitor's fork count when it went to sleep
  bool watches_ = false;          // its thread looks for interrupts
  bool notified_ = false;
  std::condition_variable woken_;
};

/// Waiters in the order in which they came. Waiters on the stacks of others are linked, not owned.
class WaiterQueue {
 public:
  bool empty() const noexcept { return first_ == nullptr; }
  Waiter* first() const noexcept { return first_; }

  void add(Waiter& waiter) noexcept {
    waiter.previous_ = last_;
    waiter.next_ = nullptr;
    (last_ != nullptr ? last_->next_ : first_) = &waiter;
    last_ = &waiter;
    waiter.queue_ = this;
  }

  void remove(Waiter& waiter) noexcept {
    (waiter.previous_ != nullptr ? waiter.previous_->next_ : first_) = waiter.next_;
    (waiter.next_ != nullptr ? waiter.next_->previous_ : last_) = waiter.previous_;
    waiter.queue_ = nullptr;
  }

 private:
  Waiter* first_ = nullptr;
  Waiter* last_ = nullptr;
};

/// How a sleep ended.
enum class Wake { notified, timed_out, interrupted };

}  // namespace decision_bounds
