// A host of plain std types, on which the core is tested without an interpreter: doubles,
// std::function for every callable, std::thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "decision_bounds/daily_spend.h"
#include "decision_bounds/held.h"
#include "decision_bounds/run_budget.h"
#include "decision_bounds/share.h"
#include "decision_bounds/sync/monitor.h"
#include "decision_bounds/wait.h"

namespace decision_bounds::std_host {

using namespace std::chrono_literals;

struct Interrupt {};

/// What this thread asks when it has blocked, and where it watches while it blocks as well.
inline thread_local std::function<bool()> interrupts;
inline thread_local bool watches = true;

struct NoLock {
  void lock() {}
  void unlock() {}
};

/// Threads without a global lock, or under one as an interpreter's are.
template <bool serialized>
struct Threads : SystemThreads {
  static constexpr bool kSerialized = serialized;
  inline static std::conditional_t<serialized, std::mutex, NoLock> global;

  struct Entered {
    Entered() { global.lock(); }
    ~Entered() { global.unlock(); }
  };
  struct Unlocked {
    Unlocked() { global.unlock(); }
    ~Unlocked() { global.lock(); }
  };
  static bool watches_interrupts() { return interrupts && watches; }
  static bool interrupted() { return interrupts && interrupts(); }
  using Wish = double;
};
static_assert(ThreadHost<Threads<false>> && ThreadHost<Threads<true>>);

/// One hold of a monitor's lock.
template <class Host>
class Locked {
 public:
  explicit Locked(Monitor<Host>& monitor) : monitor_(monitor) {
    if (!monitor.lock()) throw Interrupt();
  }
  ~Locked() { monitor_.unlock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

  void sleep(typename Monitor<Host>::Place& place, std::optional<Duration> timeout = {}) {
    if (monitor_.sleep(place, timeout, WayBack::at_once) == Wake::interrupted) throw Interrupt();
  }
  void notify_all() { monitor_.notify_all(); }
  Monitor<Host>& monitor() { return monitor_; }

 private:
  Monitor<Host>& monitor_;
};

/// Waits until `reached()`. Where that never comes the program ends: its threads cannot be joined.
template <class Host, class Reached>
void await(Reached reached) {
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!reached()) {
    const typename Host::Unlocked unlocked;
    std::this_thread::sleep_for(100us);
    if (std::chrono::steady_clock::now() < end) continue;
    std::cerr << "a thread hangs" << std::endl;
    std::abort();
  }
}

/// A thread that is waited for at the end of its scope.
template <class Host>
class Task {
 public:
  explicit Task(std::function<void()> body)
      : thread_([this, body = std::move(body)] {
          {
            const typename Host::Entered entered;
            body();
          }
          done_ = true;
        }) {}
  ~Task() {
    await<Host>([this] { return done(); });
    thread_.join();
  }
  bool done() const { return done_; }

 private:
  std::atomic<bool> done_ = false;
  std::thread thread_;
};

/// A paid reply, or none.
struct Reply {
  double tokens = 0;
  std::function<double()> cost = {};
  double input_tokens() const { return tokens; }
  bool cached() const { return false; }
  explicit operator bool() const { return static_cast<bool>(cost); }
};

inline Reply paid(double tokens, double usd) {
  return {tokens, [=] { return usd; }};
}

struct Share {
  std::optional<std::function<void(const Reply&)>> owed;
  auto exchange() { return std::exchange(owed, std::nullopt); }
};

struct NewShare {
  Share none() const { return {}; }
  template <class Owner>
  Share owe(Owner& owner, double amount) const {
    return {[&owner, amount](const Reply& reply) { owner.settled(amount, reply); }};
  }
};

/// A handle of one tally.
struct Tally {
  Held<double>& held;
  bool admits(double share, double used, double limit) const {
    return decision_bounds::admits(held, share, used, limit);
  }
  void take(double share) const { decision_bounds::take(held, share); }
  void give_back(double share) const { decision_bounds::give_back(held, share); }
};

/// What a budget and an account have in common. A wait lasts a minute, so that only a notification
/// ends it in time. `Ask` is what a call brings along.
template <class Host, class Ask>
struct Bound {
  Monitor<Host> changed;
  Held<double> tally;
  Tally held() { return {tally}; }
  NewShare make_share() const { return {}; }
  bool holds_nothing() const {
    return tally.holders() == 0 && tally.amount() == 0 && tally.unbounded() == 0;
  }

  struct Lock : Locked<Host> {
    using Locked<Host>::Locked;
    struct Changed {
      Lock& lock;
      void wait(double seconds) const {
        typename Monitor<Host>::Place place(lock.monitor());
        lock.sleep(place, std::chrono::seconds(static_cast<int>(seconds)));
      }
    };
    void kept() {}
    void wait_for_room(const Ask&) {
      const std::optional<double> deadline;
      const std::optional<double (*)()> clock;
      wait(Changed{*this}, [] { return false; }, deadline, clock, [] { return 60.0; });
    }
  };
  template <class Body>
  auto locked(Body&& body) {
    Lock lock(changed);
    return body(lock);
  }
};

#define FIELD(name)                       \
  double name##_ = 0;                     \
  double name() const { return name##_; } \
  void set_##name(double value) { name##_ = value; }

template <class Host>
struct Budget : Bound<Host, double> {
  FIELD(max_calls)
  FIELD(max_tokens)
  FIELD(calls)
  FIELD(input_tokens)
  FIELD(cost)
  FIELD(cache_hits)
  FIELD(in_flight)
  Budget(double calls, double tokens) : max_calls_(calls), max_tokens_(tokens) {}

  bool stopping() const { return false; }
  bool exhausted_locked() { return decision_bounds::exhausted_locked(*this); }
  void reserve(double tokens) { decision_bounds::reserve(*this, tokens); }
  void release(double tokens) { decision_bounds::release(*this, tokens); }
  bool charge(const Reply& reply, double tokens) {
    return decision_bounds::charge(*this, reply, tokens);
  }
  void settled(double tokens, const Reply& reply) { give_back_share(*this, reply, tokens); }
  std::string summary_text() const { return "no call or no token is left"; }
};

struct Call {
  std::function<double()> bound;
};

/// An account of a day that does not end.
template <class Host>
struct Account : Bound<Host, Call> {
  using Number = double;
  FIELD(cap)
  FIELD(cost)
  explicit Account(double limit) : cap_(limit) {}

  double today_locked() const { return cost_; }
  void settled(double amount, const Reply& reply) { give_back_held(*this, amount, reply); }
  bool mark_capped() const { return true; }
  void warn_capped(double) const {}
  [[noreturn]] void refuse(double) const { throw BudgetExceeded("the cap is reached"); }

  struct Kept {
    std::exception_ptr error;
    void rethrow() const {
      if (error) std::rethrow_exception(error);
    }
  };
  template <class Steps>
  Kept attempt(Steps&& steps) try {
    steps();
    return {};
  } catch (...) {
    return {std::current_exception()};
  }
};

#undef FIELD

}  // namespace decision_bounds::std_host
