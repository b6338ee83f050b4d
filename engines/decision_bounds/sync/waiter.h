// The threads that wait on one monitor, as those that notify see them.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <utility>

#include "decision_bounds/sync/host.h"
#include "decision_bounds/sync/thread.h"

namespace decision_bounds {

/// How a sleep, or the wait for a lock, has ended.
enum class Wake { notified, timed_out, interrupted };

/// How a sleeper comes back from an interrupt: with the lock whatever it takes, or, where it holds
/// the lock only once, at once and without.
enum class WayBack { with_lock, at_once };

template <class Host>
class WaiterQueue;

/// In one queue of its monitor's from the moment it goes to sleep until it is back. On the heap: a
/// thread's stack may be moved while it sleeps, by what switches stacks in a signal handler.
template <class Host>
struct Waiter {
  // Constant while it waits.
  std::optional<typename Host::Wish> wish;
  ForkCount forks = 0;   // that its monitor knew of when it went to sleep
  bool watches = false;  // its thread looks for interrupts

  // Guarded by its monitor's guard.
  bool notified = false;
  bool comes = false;  // its turn has begun, and it has not arrived
  std::optional<typename Host::Clock::time_point> leads;  // since when, the first of its turn
  bool promised = false;  // room, which nobody else is told of until it is back
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

/// All waiters of one monitor and whose turn it is. Every call is made with the monitor's guard
/// held.
template <class Host>
class Waiters {
  using Clock = typename Host::Clock;
  using Waiter = decision_bounds::Waiter<Host>;
  using Queue = WaiterQueue<Host>;

 public:
  unsigned asleep() const noexcept { return count_; }
  bool sleeps(const Waiter& waiter) const noexcept { return waiter.queue != &returning_; }

  void add(Waiter& waiter) noexcept {
    waiter.notified = waiter.promised = waiter.comes = false;
    waiter.leads.reset();
    asleep_.add(waiter);
    ++count_;
  }

  /// Moves on the `count` waiters that have slept longest.
  void notify(std::size_t count) noexcept {
    for (; !asleep_.empty() && count > 0; --count) move_on(*asleep_.first());
  }

  /// Moves on those that have no wish, or one with an outlook.
  template <Forecast<typename Host::Wish> Outlooks>
  void notify_ready(Outlooks& forecast) noexcept {
    for (const Queue* queue : {&called_, &returning_}) {
      for (const Waiter* waiter = queue->first(); waiter != nullptr; waiter = waiter->next) {
        if (waiter->promised) forecast.promise(*waiter->wish);
      }
    }
    for (Waiter* waiter = asleep_.first(); waiter != nullptr;) {
      Waiter* const next = waiter->next;
      const Outlook outlook = waiter->wish ? forecast.outlook(*waiter->wish) : Outlook::unknown;
      waiter->promised = outlook == Outlook::room;
      if (outlook != Outlook::no_room) move_on(*waiter);
      waiter = next;
    }
  }

  /// The waiter, notified or over time, is to come for the lock when its turn is.
  void call(Waiter& waiter) noexcept {
    if (waiter.queue != &asleep_) return;
    leave_queue(waiter);
    called_.add(waiter);
  }

  /// Whether nobody is coming, and somebody is to come.
  bool turn_is_due() const noexcept { return coming_ == 0 && !called_.empty(); }

  /// It is due: wakes the first that was called, or some.
  void begin_turn() noexcept {
    called_.first()->leads = Clock::now();
    while (coming_ < together_ && !called_.empty()) {
      Waiter& next = *called_.first();
      next.comes = true;
      ++coming_;
      wake(next);
    }
  }

  /// The waiter has slept enough, woken or not.
  void arrive(Waiter& waiter) noexcept {
    if (sleeps(waiter)) return_from(waiter);
    if (!std::exchange(waiter.comes, false)) return;
    if (waiter.leads) {
      together_ = Clock::now() - *waiter.leads > kLate ? std::min(2 * together_, kMost) : 1;
    }
    --coming_;
  }

  /// The waiter, which has arrived, is back with the lock, or leaves without.
  void remove(Waiter& waiter) noexcept { returning_.remove(waiter); }

 private:
  // Who takes longer to come met others who want the host's global lock. Twice as many then queue
  // for it together, or each of them would be held up as long; but never thousands, since a crowd
  // that waits for it holds up everybody.
  static constexpr Duration kLate = std::chrono::milliseconds(1);
  static constexpr unsigned kMost = 256;

  // A thread that looks for interrupts is woken on the spot and has no turn: what it runs for them
  // may take any time, and nobody shall wait for that.
  void move_on(Waiter& waiter) noexcept {
    waiter.notified = true;
    waiter.watches ? wake(waiter) : call(waiter);
  }

  void wake(Waiter& waiter) noexcept {
    return_from(waiter);
    waiter.woken.notify_one();
  }

  void return_from(Waiter& waiter) noexcept {
    leave_queue(waiter);
    returning_.add(waiter);
  }

  void leave_queue(Waiter& waiter) noexcept {
    if (waiter.queue == &asleep_) --count_;
    waiter.queue->remove(waiter);
  }

  Queue asleep_;
  Queue called_;           // to come for the lock, and still to be woken
  Queue returning_;        // woken or over time, and not back yet
  unsigned coming_ = 0;    // of those whose turn it is, and who have not arrived
  unsigned count_ = 0;     // of those in asleep_
  unsigned together_ = 1;  // so many come in the next turn
};

}  // namespace decision_bounds
