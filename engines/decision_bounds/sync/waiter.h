// One waiting thread, as the threads that notify see it.
#pragma once

#include <optional>

#include "decision_bounds/sync/thread.h"

namespace decision_bounds {

template <class Host>
class WaiterQueue;

/// In one of its monitor's queues from the moment it goes to sleep until it is back; all fields are
/// guarded by that monitor's guard. On the heap: a thread's stack may be moved while it sleeps, by
/// what switches stacks in a signal handler.
template <class Host>
struct Waiter {
  std::optional<typename Host::Wish> wish;
  ForkCount forks = 0;    // the monitor's fork count when it went to sleep
  bool watches = false;   // its thread looks for interrupts
  bool notified = false;  // in this sleep
  bool promised = false;  // ... to room, which nobody else is told of until it is back
  WaiterQueue<Host>* queue = nullptr;
  Waiter* previous = nullptr;
  Waiter* next = nullptr;
  typename Host::ConditionVariable woken;
};

/// Waiters in the order in which they came: linked, not owned. The first one's `previous` is the
/// last one.
template <class Host>
class WaiterQueue {
 public:
  bool empty() const noexcept { return first_ == nullptr; }
  Waiter<Host>* first() const noexcept { return first_; }

  void add(Waiter<Host>& waiter) noexcept {
    waiter.queue = this;
    waiter.next = nullptr;
    if (first_ == nullptr) {
      first_ = &waiter;
    } else {
      waiter.previous = first_->previous;
      waiter.previous->next = &waiter;
    }
    first_->previous = &waiter;
  }

  void remove(Waiter<Host>& waiter) noexcept {
    waiter.queue = nullptr;
    (&waiter == first_ ? first_ : waiter.previous->next) = waiter.next;
    Waiter<Host>* const after = waiter.next != nullptr ? waiter.next : first_;
    if (after != nullptr) after->previous = waiter.previous;
  }

 private:
  Waiter<Host>* first_ = nullptr;
};

}  // namespace decision_bounds
