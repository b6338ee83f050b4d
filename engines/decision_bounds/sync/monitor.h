// A re-entrant lock with a condition variable: what guards a bound, and where its waiters sleep.
//
// THE RULE: nothing that can run the host's code, allocate or block runs under `guard_`, which
// guards the waiters. Every thread may so take it whatever else it holds, and a thread that holds
// it is never suspended. Lock order: the monitor's lock, the host's global lock, guard_; nothing
// blocks on the first while it holds the second.
//
// Wait morphing: neither a notification nor the end of a timeout ends a sleep by itself. It moves
// waiters to the queue of those called for the lock, and whoever frees the lock wakes the first.
// Its turn lasts until it has the host's global lock; the next is woken when the lock is freed
// after that. So one thread at a time comes for the two locks, not a crowd that holds up whoever
// works. The lock itself is not fair: who comes by takes it before a waiter that was woken for it.
//
// A failure leaves the lock as it was: only a sleep's first allocation fails, before any change.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "decision_bounds/sync/host.h"
#include "decision_bounds/sync/thread.h"
#include "decision_bounds/sync/waiter.h"

namespace decision_bounds {

template <ThreadHost Host>
class Monitor {
  using Clock = typename Host::Clock;
  using Time = typename Clock::time_point;
  using Mutex = typename Host::Mutex;
  using Lock = MutexLock<Mutex>;
  using Waiter = decision_bounds::Waiter<Host>;
  using Count = typename Host::template Atomic<unsigned>;

 public:
  using Wish = typename Host::Wish;

  /// One waiting operation, through all its rounds; used by the operation's thread only. Where
  /// others were not told of room because this one was, and it does not take it, they are told,
  /// whatever ends the operation. Outlived by the monitor.
  class Place {
   public:
    /// One with a wish is woken by `notify_ready` only for an outlook that is worth it.
    explicit Place(Monitor& monitor, std::optional<Wish> wish = std::nullopt)
        : monitor_(monitor), wish_(wish) {}
    ~Place() {
      if (promised_) monitor_.notify(kAll);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    /// The operation has taken what it waited for.
    void accept() noexcept { promised_ = false; }

    /// It found no room after all: the lock is held, and `make_forecast` as for `notify_ready`.
    template <class MakeForecast>
    void decline(MakeForecast&& make_forecast) {
      if (std::exchange(promised_, false)) monitor_.notify_ready(make_forecast);
    }

   private:
    friend class Monitor;

    Waiter& waiter() {
      if (!waiter_) waiter_ = std::make_unique<Waiter>();
      return *waiter_;
    }

    Monitor& monitor_;
    const std::optional<Wish> wish_;
    std::unique_ptr<Waiter> waiter_;  // from the first sleep on
    bool promised_ = false;           // told of room, and has not taken it
  };

  Monitor() = default;
  ~Monitor() { recover_from_fork(); }  // or it waits for threads that a fork left behind
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  bool owned() const noexcept { return is_this_thread(owner_.load(std::memory_order_relaxed)); }

  /// Who holds the lock and how often, as far as that can be read without it.
  struct Hold {
    ThreadId owner;
    unsigned depth;
  };
  Hold hold() const noexcept {
    const ThreadId owner = owner_.load(std::memory_order_relaxed);
    const bool readable = Host::kSerialized || is_this_thread(owner);
    return {owner, owner == kNobody ? 0 : readable ? reentries_ + 1 : 1};
  }

  /// Takes the lock, once more if this thread has it, unless another thread has.
  bool try_lock() noexcept {
    const ThreadId me = this_thread();
    const ThreadId owner = claim(me);
    if (owner == kNobody) [[likely]]
      return true;
    if (owner == me) ++reentries_;
    return owner == me;
  }

  /// Takes the lock, blocking as long as it must. False only where `interruptible` and the host was
  /// interrupted: then the lock is not taken.
  bool lock(bool interruptible = true) {
    return try_lock() || block(Time::max(), interruptible) == Wake::notified;
  }

  /// As `lock`, but gives up after `timeout`.
  Wake lock_for(Duration timeout) {
    if (try_lock()) return Wake::notified;
    return block(deadline(timeout), true);
  }

  /// False, and nothing done, where this thread does not hold the lock.
  bool unlock() noexcept {
    if (!owned()) [[unlikely]]
      return false;
    if (reentries_ != 0) {
      --reentries_;
    } else {
      free();
    }
    return true;
  }

  /// Lets go of the lock, which is held, at whatever depth; `lock_again` takes it back at the same.
  unsigned unlock_all() noexcept {
    const unsigned depth = std::exchange(reentries_, 0) + 1;
    free();
    return depth;
  }

  bool lock_again(unsigned depth, bool interruptible) {
    if (!lock(interruptible)) return false;
    reentries_ += depth - 1;
    return true;
  }

  /// Lets go of the lock, which is held, at whatever depth, sleeps until notified or until
  /// `timeout` is over, and takes the lock back; in a fork's child a sleep that a handler forked in
  /// counts as notified. Where the way back is `at_once`, an interrupt also ends the wait for the
  /// lock, and `owned` tells whether it is held.
  Wake sleep(Place& place, std::optional<Duration> timeout, WayBack way_back) {
    Waiter& waiter = place.waiter();
    if (std::exchange(place.promised_, false)) notify(kAll);
    link(waiter, place.wish_);
    const unsigned depth = std::exchange(reentries_, 0) + 1;
    owner_.store(kNobody, kOrder);  // `doze` wakes the next, once the global lock is free as well
    Wake wake = park(waiter, deadline(timeout));
    const bool may_leave = way_back == WayBack::at_once && depth == 1;
    const bool leaves = wake == Wake::interrupted && may_leave;
    if (leaves || !lock_again(depth, may_leave)) wake = Wake::interrupted;
    place.promised_ = unlink(waiter);
    return wake;
  }

  // Whoever notifies holds the lock, or some waiter may miss what it is notified of.

  /// Moves every waiter on.
  void notify_all() noexcept {
    if (sleeping_.load(std::memory_order_relaxed) != 0) [[unlikely]]
      notify(kAll);
  }

  /// Moves the `count` waiters on that have slept longest.
  void notify(std::size_t count) noexcept {
    if (!has_waiters()) return;
    const Lock lock(guard_);
    waiters_.notify(count);
    wake_next_if_free();
  }

  /// Moves those waiters on that have no wish, or one with an outlook; all of them where there is
  /// no forecast. `make_forecast` gives an optional Forecast; it is called only where somebody
  /// waits, and under no guard.
  template <class MakeForecast>
  [[gnu::noinline]] void notify_ready(MakeForecast&& make_forecast) {
    if (!has_waiters()) return;
    auto forecast = make_forecast();
    if (!forecast) return notify_all();
    const Lock lock(guard_);
    waiters_.notify_ready(*forecast);
    wake_next_if_free();
  }
  /// Whether there may be somebody to notify; asked with the lock held.
  bool awaited() const noexcept { return sleeping_.load(std::memory_order_relaxed) != 0; }

  std::size_t waiters() noexcept {
    if (!has_waiters()) return 0;
    const Lock lock(guard_);
    return waiters_.asleep();
  }

 private:
  static constexpr std::size_t kAll = static_cast<std::size_t>(-1);

  // The end of a timeout; what lies beyond the clock's range never ends.
  static Time deadline(std::optional<Duration> timeout) {
    if (!timeout) return Time::max();
    const Time now = Clock::now();
    return *timeout < Time::max() - now ? now + *timeout : Time::max();
  }

  // A thread that has to see interrupts looks for them this often; half of it is the usual delay.
  static constexpr Duration kSlice = std::chrono::milliseconds(50);
  static Time until(Time end, bool watches) {
    return watches ? std::min<Time>(Clock::now() + kSlice, end) : end;
  }
  // Makes `me` the owner where nobody is; returns who was it before. Without a global lock, either
  // whoever frees the lock sees the thread that is about to block, or that one sees the lock free.
  ThreadId claim(ThreadId me) noexcept {
    ThreadId owner = kNobody;
    if constexpr (Host::kSerialized) {
      owner = owner_.load(kOrder);
      if (owner == kNobody) [[likely]]
        owner_.store(me, kOrder);
    } else {
      owner_.compare_exchange_strong(owner, me, kOrder);
    }
    return owner;
  }
  static constexpr auto kOrder =
      Host::kSerialized ? std::memory_order_relaxed : std::memory_order_seq_cst;

  void free() noexcept {
    owner_.store(kNobody, kOrder);
    if (blocked_.load(kOrder) != 0) [[unlikely]]
      hand_on();
  }

  [[gnu::cold, gnu::noinline]] void hand_on() noexcept {
    recover_from_fork();
    const Lock lock(guard_);
    wake_next_if_free();
  }

  // Whoever finds the lock free, or leaves it so though it was woken for it, sees to the next.
  void wake_next_if_free() noexcept REQUIRES(guard_) {
    publish();
    if (owner_.load(kOrder) != kNobody || blocked_.load(kOrder) == 0) return;
    freed_.notify_one();
    if (waiters_.turn_is_due()) waiters_.begin_turn();
    publish();
  }

  // Waits for the lock to be freed and tries again, so that the lock is never owned by a thread
  // that has yet to get the host's global lock back.
  [[gnu::cold, gnu::noinline]] Wake block(Time end, bool interruptible) {
    const bool watches = interruptible && Host::watches_interrupts();
    for (;;) {
      recover_from_fork();  // of what ran for an interrupt, too
      if (block_once(until(end, watches))) return Wake::notified;
      if (watches) hand_on();  // what it runs for interrupts may take any time
      const bool interrupted = interruptible && Host::interrupted();
      if (!interrupted && Clock::now() < end) continue;
      if (!interrupted && try_lock()) return Wake::notified;
      hand_on();  // it may have been woken for the lock
      return interrupted ? Wake::interrupted : Wake::timed_out;
    }
  }

  // Takes the lock or waits until it is free. Of several threads woken at once the losers wait
  // again.
  bool block_once(Time end) {
    blocked_.fetch_add(1);
    const bool taken = try_lock();
    if (!taken) {
      const typename Host::Unlocked unlocked;
      const Lock lock(guard_);
      while (owner_.load(kOrder) != kNobody) {
        if (!freed_.wait_until(guard_, end)) break;
      }
    }
    blocked_.fetch_sub(1);
    return taken;
  }

  // Sleeps, and ends its turn before anything of the host's runs. Interrupts are looked for after
  // each sleep, and by who has to also during one.
  Wake park(Waiter& waiter, Time end) {
    for (;;) {
      const bool over = doze(waiter, until(end, waiter.watches)) || Clock::now() >= end;
      bool notified = over && arrive(waiter);
      const bool interrupted = Host::interrupted();
      if (!over && !interrupted && waiter.forks == last_fork().count) continue;
      if (!over) notified = arrive(waiter);
      return interrupted ? Wake::interrupted : notified ? Wake::notified : Wake::timed_out;
    }
  }

  // True once it is woken, which it is also for being over time, unless it looks for interrupts.
  bool doze(Waiter& waiter, Time end) {
    const typename Host::Unlocked unlocked;
    const Lock lock(guard_);
    wake_next_if_free();
    while (waiters_.sleeps(waiter)) {
      if (waiter.woken.wait_until(guard_, end)) continue;
      if (waiter.watches) break;
      waiters_.call(waiter);
      wake_next_if_free();
      end = Time::max();
    }
    return !waiters_.sleeps(waiter);
  }

  // Waiters of threads that a fork left behind are forgotten: nobody is there to sleep.
  bool has_waiters() noexcept {
    if (!awaited()) return false;
    recover_from_fork();
    return awaited();
  }

  void link(Waiter& waiter, const std::optional<Wish>& wish) {
    recover_from_fork();
    waiter.wish = wish;
    waiter.watches = Host::watches_interrupts();
    const Lock lock(guard_);
    if (waiter.forks != forks_) new (&waiter.woken) typename Host::ConditionVariable;
    waiter.forks = forks_;
    waiters_.add(waiter);
    publish();
  }

  // The waiter has slept enough. Whether it was notified: of what a fork's child missed before it
  // looks here, it learns by looking for itself.
  bool arrive(Waiter& waiter) noexcept {
    recover_from_fork();
    const Lock lock(guard_);
    if (waiter.forks != forks_) return true;
    waiters_.arrive(waiter);
    publish();
    return waiter.notified;
  }

  // The waiter is back, with the lock or for good. Whether it was promised room.
  bool unlink(Waiter& waiter) noexcept {
    recover_from_fork();
    const Lock lock(guard_);
    if (waiter.forks != forks_) return false;
    waiters_.remove(waiter);
    wake_next_if_free();
    return waiter.promised;
  }

  // What is read without the guard, after each change of the waiters. Whoever frees the lock looks
  // at one count only, so a turn that is due counts as a thread that is blocked.
  void publish() noexcept REQUIRES(guard_) {
    sleeping_.store(waiters_.asleep(), std::memory_order_relaxed);
    const bool due = waiters_.turn_is_due();
    if (due && !due_) blocked_.fetch_add(1);
    if (!due && due_) blocked_.fetch_sub(1);
    due_ = due;
  }

  void recover_from_fork() noexcept {
    if (last_fork().count != forks_.load(std::memory_order_acquire)) [[unlikely]]
      forget_other_threads();
  }

  // In a forked child only the thread that forked lives on: locks and links of the others are
  // undone the first time somebody would depend on them. No analysis: guard_ may be held by nobody.
  [[gnu::cold, gnu::noinline]] void forget_other_threads() noexcept NO_THREAD_SAFETY_ANALYSIS {
    const std::lock_guard recovering(detail::recovering);
    const Fork& fork = last_fork();
    if (fork.count == forks_.load(std::memory_order_relaxed)) return;
    if (!fork.alive(owner_.load(std::memory_order_relaxed))) {
      owner_.store(kNobody, std::memory_order_relaxed);
      reentries_ = 0;
    }
    blocked_.store(0, std::memory_order_relaxed);
    sleeping_.store(0, std::memory_order_relaxed);
    waiters_ = {};
    due_ = false;
    new (&guard_) Mutex;
    new (&freed_) typename Host::ConditionVariable;
    forks_.store(fork.count, std::memory_order_release);
  }

  // The lock: changed by who takes and frees it.
  typename Host::template Atomic<ThreadId> owner_{kNobody};
  unsigned reentries_ = 0;  // the owner's, beyond its first hold

  // Read without the guard.
  Count blocked_{0};   // threads that wait for the lock, and one if a turn is due
  Count sleeping_{0};  // waiters asleep
  typename Host::template Atomic<ForkCount> forks_{last_fork().count};  // that this knows of

  Mutex guard_;
  typename Host::ConditionVariable freed_ GUARDED_BY(guard_);  // the lock, while one is blocked
  [[no_unique_address]] Waiters<Host> waiters_ GUARDED_BY(guard_);  // the next lies in its padding
  bool due_ GUARDED_BY(guard_) = false;  // whether blocked_ counts a turn
};

}  // namespace decision_bounds
