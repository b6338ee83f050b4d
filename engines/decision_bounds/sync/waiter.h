// One waiting thread, as the thread that notifies sees it.
#pragma once

#include <condition_variable>

#include "decision_bounds/sync/thread.h"

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
  ForkCount forks_ = 0;           // the monitor's fork count when it went to sleep
  bool watches_ = false;          // its thread looks for interrupts
  bool notified_ = false;
  std::condition_variable woken_;
};

/// Waiters in the order in which they came, on the stacks of others: linked, not owned. The first
/// one's `previous_` is the last one.
class WaiterQueue {
 public:
  bool empty() const noexcept { return first_ == nullptr; }
  Waiter* first() const noexcept { return first_; }

  void add(Waiter& waiter) noexcept {
    waiter.queue_ = this;
    waiter.next_ = nullptr;
    if (first_ == nullptr) {
      first_ = &waiter;
    } else {
      waiter.previous_ = first_->previous_;
      waiter.previous_->next_ = &waiter;
    }
    first_->previous_ = &waiter;
  }

  void remove(Waiter& waiter) noexcept {
    waiter.queue_ = nullptr;
    (&waiter == first_ ? first_ : waiter.previous_->next_) = waiter.next_;
    Waiter* const after = waiter.next_ != nullptr ? waiter.next_ : first_;
    if (after != nullptr) after->previous_ = waiter.previous_;
  }

 private:
  Waiter* first_ = nullptr;
};

/// How a sleep ended.
enum class Wake { notified, timed_out, interrupted };

}  // namespace decision_bounds
