// A re-entrant lock with a condition variable: what guards a bound, and where its waiters sleep.
//
// Host gives what blocking a thread of its kind takes:
//   kSerialized          all calls into a monitor are made under one global lock, of which
//                        `Unlocked` lets go; the lock word then needs no read-modify-write
//   Unlocked             a scope that lets go of the global lock while its thread blocks
//   watches_interrupts() whether this thread has to look for interrupts while it blocks
//   interrupted()        looks; true leaves the interrupt pending in the host
//
// A notification wakes nobody by itself. It calls waiters: they go over to those that wait for the
// lock, and whoever frees it wakes the first. A called waiter that has had its turn lets the next
// one in by freeing the lock, however it does that: back to sleep, out with what it waited for, or
// with an error. So one thread at a time comes for the lock and for the host's global lock, not a
// crowd that mostly goes to sleep again.
//
// Lock order: the monitor's lock, then the host's global lock; nothing here blocks on the first
// while holding the second. `parking_` guards the waiters' queues and is held for a few
// instructions only, never across a call into the host.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "decision_bounds/sync/thread.h"
#include "decision_bounds/sync/waiter.h"

namespace decision_bounds {

using Duration = std::chrono::nanoseconds;

template <class Host>
class Monitor {
 public:
  Monitor() = default;
  ~Monitor() { recover_from_fork(); }  // or it waits for threads that a fork left behind
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  bool owned() const noexcept { return owner_.load(std::memory_order_relaxed) == this_thread(); }

  /// Takes the lock, once more if this thread has it, unless another thread has.
  bool try_lock() noexcept {
    const ThreadId me = this_thread();
    if (owner_.load(std::memory_order_relaxed) == me) {
      ++depth_;
      return true;
    }
    if (!claim(me)) return false;
    depth_ = 1;
    return true;
  }

  /// Takes the lock, blocking as long as it must. False only where `interruptible` and the host was
  /// interrupted: then the lock is not taken.
  bool lock(bool interruptible = true) { return try_lock() || lock_slowly(interruptible); }

  /// As `lock`, but gives up after `timeout`.
  Wake lock_for(Duration timeout) {
    if (try_lock()) return Wake::notified;
    return block(deadline(timeout), true);
  }

  void unlock() noexcept {
    if (--depth_ == 0) free();
  }

  /// Lets go of the lock at whatever depth; `lock_again` takes it back at the same.
  unsigned unlock_all() noexcept {
    const unsigned depth = std::exchange(depth_, 0);
    free();
    return depth;
  }

  bool lock_again(unsigned depth, bool interruptible) {
    if (!lock(interruptible)) return false;
    depth_ = depth;
    return true;
  }

  /// Sleeps until notified or until `timeout` is over. The calling thread holds the lock; when this
  /// returns it does not, and owes a `lock_again` of the depth in `depth`.
  Wake sleep(Waiter& waiter, std::optional<Duration> timeout, unsigned& depth) {
    link(waiter);
    depth = std::exchange(depth_, 0);
    disown();  // `park` wakes who waits for the lock, once the host's global lock is free as well
    const Wake wake = park(waiter, timeout);
    unlink(waiter);
    return wake;
  }

  /// Calls every waiter whose answer has changed. The calling thread holds the lock.
  void notify_all() noexcept {
    if (waiting_.load(std::memory_order_relaxed) != 0) [[unlikely]]
      call_ready();
  }

  /// Calls the `count` waiters that have slept longest, whatever they wait for.
  void notify(std::size_t count) noexcept {
    if (!has_waiters()) return;
    const std::lock_guard parking(parking_);
    for (; !asleep_.empty() && count > 0; --count) call(*asleep_.first());
  }

  std::size_t waiters() noexcept {
    if (!has_waiters()) return 0;
    const std::lock_guard parking(parking_);
    return waiting_.load(std::memory_order_relaxed);
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  // The end of a timeout; what lies beyond the clock's range never ends.
  static Time deadline(std::optional<Duration> timeout) {
    const Time now = Clock::now();
    return timeout && *timeout < Time::max() - now ? now + *timeout : Time::max();
  }

  // A thread that has to see interrupts looks for them this often; half of it is the usual delay.
  static constexpr Duration kSlice = std::chrono::milliseconds(50);

  // A turn that takes longer met others who want the host's global lock. All who are still to come
  // then queue for it too, or each of them would be held up as long.
  static constexpr Duration kTurn = std::chrono::milliseconds(1);

  bool claim(ThreadId me) noexcept {
    ThreadId nobody = 0;
    if constexpr (Host::kSerialized) {
      if (owner_.load(std::memory_order_relaxed) != nobody) return false;
      owner_.store(me, std::memory_order_relaxed);
      return true;
    } else {
      return owner_.compare_exchange_strong(nobody, me, std::memory_order_seq_cst);
    }
  }

  // Either this sees the thread that is about to block, or that thread sees the lock free: without
  // a global lock both sides are sequentially consistent for it.
  static constexpr auto kOrder =
      Host::kSerialized ? std::memory_order_relaxed : std::memory_order_seq_cst;

  void disown() noexcept { owner_.store(ThreadId{0}, kOrder); }

  void free() noexcept {
    disown();
    if (blocked_.load(kOrder) != 0) [[unlikely]]
      wake_blocked();
  }

  [[gnu::cold, gnu::noinline]] void wake_blocked() noexcept {
    recover_from_fork();
    const std::lock_guard parking(parking_);
    wake_next();
  }

  // The lock was freed: a blocked thread may try for it, and the next called waiter. parking_ is
  // held.
  void wake_next() noexcept {
    freed_.notify_one();
    if (!due()) return;
    const DueChange change(*this);
    const Time now = Clock::now();
    const bool late = now - turn_began_ > kTurn;
    turn_began_ = now;
    do {
      wake(*called_.first());
    } while (late && !called_.empty());
  }

  [[gnu::cold, gnu::noinline]] bool lock_slowly(bool interruptible) {
    return block(Time::max(), interruptible) != Wake::interrupted;
  }

  // Waits for the lock to be freed and tries again, so that the lock is never owned by a thread
  // that has yet to get the host's global lock back.
  [[gnu::cold, gnu::noinline]] Wake block(Time end, bool interruptible) {
    recover_from_fork();
    const bool watches = interruptible && Host::watches_interrupts();
    for (;;) {
      if (block_once(end)) return Wake::notified;
      if (watches && Host::interrupted()) return Wake::interrupted;
      if (Clock::now() >= end) return Wake::timed_out;
    }
  }

  // Of several threads woken at once the losers wait again; a slice also bounds the wait of one
  // whose wake-up went to a thread that then gave up.
  bool block_once(Time end) {
    const Blocked blocked(blocked_);
    if (try_lock()) return true;
    const Time until = std::min(Clock::now() + kSlice, end);
    {
      const typename Host::Unlocked unlocked;
      std::unique_lock parking(parking_);
      freed_.wait_until(parking, until,
                        [&] { return owner_.load(std::memory_order_relaxed) == ThreadId{0}; });
    }
    return try_lock();
  }

  class Blocked {
   public:
    explicit Blocked(std::atomic<unsigned>& count) : count_(count) { count_.fetch_add(1); }
    ~Blocked() { count_.fetch_sub(1); }
    Blocked(const Blocked&) = delete;
    Blocked& operator=(const Blocked&) = delete;

   private:
    std::atomic<unsigned>& count_;
  };

  Wake park(Waiter& waiter, std::optional<Duration> timeout) {
    const bool watches = waiter.watches_;
    const Time end = deadline(timeout);
    for (;;) {
      bool over = false;
      {
        const typename Host::Unlocked unlocked;
        std::unique_lock parking(parking_);
        if (blocked_.load(kOrder) != 0) wake_next();
        const Time until = watches ? std::min(Clock::now() + kSlice, end) : end;
        waiter.woken_.wait_until(parking, until, [&] { return waiter.queue_ == nullptr; });
        over = waiter.notified_;
      }
      if (over) return Wake::notified;
      if (watches && Host::interrupted()) return Wake::interrupted;
      if (Clock::now() >= end) return Wake::timed_out;
    }
  }

  [[gnu::noinline]] void call_ready() noexcept {
    if (!has_waiters()) return;
    const std::lock_guard parking(parking_);
    for (Waiter* waiter = asleep_.first(); waiter != nullptr;) {
      Waiter* const next = waiter->next_;
      if (waiter->ready()) call(*waiter);
      waiter = next;
    }
  }

  // Waiters of threads that a fork left behind are forgotten: their stacks are nobody's now.
  bool has_waiters() noexcept {
    if (waiting_.load(std::memory_order_relaxed) == 0) return false;
    recover_from_fork();
    return waiting_.load(std::memory_order_relaxed) != 0;
  }

  void link(Waiter& waiter) noexcept {
    recover_from_fork();
    waiter.watches_ = Host::watches_interrupts();
    const std::lock_guard parking(parking_);
    waiter.forks_ = forks_;
    asleep_.add(waiter);
    waiting_.fetch_add(1, std::memory_order_relaxed);
  }

  void unlink(Waiter& waiter) noexcept {
    recover_from_fork();
    const std::lock_guard parking(parking_);
    if (waiter.forks_ != forks_) return;
    const DueChange change(*this);
    if (waiter.queue_ != nullptr) leave(waiter);
    if (turn_ == &waiter) turn_ = nullptr;
    waiter.back();
  }

  // A thread that looks for interrupts is woken on the spot: what it runs for them may take any
  // time, and nobody's turn shall wait for that.
  void call(Waiter& waiter) noexcept {
    leave(waiter);
    waiter.notified_ = true;
    if (waiter.watches_) return waiter.woken_.notify_one();
    if (called_.empty()) turn_began_ = Clock::now();
    const DueChange change(*this);
    called_.add(waiter);
  }

  void wake(Waiter& waiter) noexcept {
    leave(waiter);
    turn_ = &waiter;
    waiter.woken_.notify_one();
  }

  void leave(Waiter& waiter) noexcept {
    if (waiter.queue_ == &asleep_) waiting_.fetch_sub(1, std::memory_order_relaxed);
    waiter.queue_->remove(waiter);
  }

  // Whether the next of called_ is to be woken when the lock is freed.
  bool due() const noexcept { return turn_ == nullptr && !called_.empty(); }

  // A change of turns. Whoever frees the lock looks at one count only, so a turn that is due counts
  // as a thread that is blocked. parking_ is held.
  class DueChange {
   public:
    explicit DueChange(Monitor& monitor) noexcept : monitor_(monitor), before_(monitor.due()) {}
    ~DueChange() {
      const bool after = monitor_.due();
      if (after && !before_) monitor_.blocked_.fetch_add(1);
      if (before_ && !after) monitor_.blocked_.fetch_sub(1);
    }
    DueChange(const DueChange&) = delete;
    DueChange& operator=(const DueChange&) = delete;

   private:
    Monitor& monitor_;
    const bool before_;
  };

  // In a forked child only the thread that forked lives on: locks and links of the others are
  // undone the first time somebody would depend on them.
  void recover_from_fork() noexcept {
    const Fork& fork = last_fork();
    if (fork.count == forks_.load(std::memory_order_acquire)) [[likely]]
      return;
    const std::lock_guard recovering(detail::recovering);
    if (fork.count == forks_.load(std::memory_order_relaxed)) return;
    if (!fork.alive(owner_.load(std::memory_order_relaxed))) {
      owner_.store(ThreadId{0}, std::memory_order_relaxed);
      depth_ = 0;
    }
    blocked_.store(0, std::memory_order_relaxed);
    waiting_.store(0, std::memory_order_relaxed);
    asleep_ = called_ = {};
    turn_ = nullptr;
    new (&parking_) std::mutex;
    new (&freed_) std::condition_variable;
    forks_.store(fork.count, std::memory_order_release);
  }

  std::atomic<ThreadId> owner_{0};
  unsigned depth_ = 0;  // written by the owner only

  std::atomic<unsigned> blocked_{0};  // threads that wait for the lock, and one if a turn is due
  std::atomic<unsigned> waiting_{0};  // waiters in asleep_; changed with parking_ held
  std::atomic<ForkCount> forks_{last_fork().count};  // that this knows of

  std::mutex parking_;
  std::condition_variable freed_;  // the lock was freed while a thread was blocked on it
  WaiterQueue asleep_;             // guarded by parking_, as is all below
  WaiterQueue called_;             // notified, and still to be woken
  Waiter* turn_ = nullptr;         // woken from called_ last, if not back from its sleep yet
  Time turn_began_{};
};

}  // namespace decision_bounds
