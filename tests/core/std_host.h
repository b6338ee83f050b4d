// A host of plain std types, on which the core is tested without an interpreter: doubles,
// std::function for every callable, std::thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "decision_bounds/daily_spend.h"
#include "decision_bounds/held.h"
#include "decision_bounds/locked.h"
#include "decision_bounds/request_rates.h"
#include "decision_bounds/run_budget.h"
#include "decision_bounds/share.h"
#include "decision_bounds/wait.h"

namespace decision_bounds::std_host {

using namespace std::chrono_literals;

struct Interrupt {};

/// What this thread asks while it blocks; where it has none it does not watch for interrupts.
inline thread_local std::function<bool()> interrupts;

struct NoLock {
  void lock() {}
  void unlock() {}
};

/// Threads without a global lock, or under one as an interpreter's are.
template <bool serialized>
struct Threads {
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
  static bool watches_interrupts() { return static_cast<bool>(interrupts); }
  static bool interrupted() { return interrupts(); }
  [[noreturn]] static void throw_interrupt() { throw Interrupt(); }
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

/// A reply; one without a cost stands for none.
struct Reply {
  std::function<double()> input_tokens, cost;
  std::function<bool()> cached = [] { return false; };
  explicit operator bool() const { return static_cast<bool>(cost); }
};

inline Reply paid(double tokens, double usd) {
  return {[=] { return tokens; }, [=] { return usd; }};
}

struct Share {
  std::optional<std::function<void(const Reply&)>> owed;
  auto exchange() { return std::exchange(owed, std::nullopt); }
};

struct NewShare {
  Share made;
  Share none() const { return {}; }
  template <class Owner>
  Share owe(Owner& owner, double amount) {
    made.owed = [&owner, amount](const Reply& reply) { owner.settled(amount, reply); };
    return std::move(made);
  }
};

/// A handle of one tally.
struct Tally {
  std::shared_ptr<Held<double>> held = std::make_shared<Held<double>>();
  bool admits(double share, double used, double limit) const {
    return decision_bounds::admits(*held, share, used, limit);
  }
  void take(double share) const { decision_bounds::take(*held, share); }
  void give_back(double share) const { decision_bounds::give_back(*held, share); }
  bool is(double calls, double sum, double infinite) const {
    return held->holders() == calls && held->amount() == sum && held->unbounded() == infinite;
  }
};

struct Call {
  std::function<double()> bound;
  std::function<bool()> stopping = [] { return false; };
  std::optional<double> deadline = {};
  std::optional<std::function<double()>> clock = {};
};

/// What a budget and an account have in common. The poll interval is so long that only a
/// notification ends a wait in time, unless a test says otherwise.
template <class Host>
struct Bound {
  Monitor<Host> changed;
  Tally tally;
  double poll = 60.0;
  std::function<bool()> should_stop = [] { return false; };
  Tally held() const { return tally; }
  NewShare make_share() const { return {}; }

  struct Lock : Locked<Host> {
    Bound& bound;
    explicit Lock(Bound& its) : Locked<Host>(its.changed), bound(its) {}
    struct Changed {
      Lock& lock;
      void wait(double seconds) const {
        struct : Waiter {
        } sleeper;
        lock.sleep(sleeper, Duration(static_cast<Duration::rep>(seconds * 1e9)));
      }
    };
    void wait_for_room(const Call& call) {
      wait(Changed{*this}, call.stopping, call.deadline, call.clock, [&] { return bound.poll; });
    }
    void wait_for_room(double) { wait_for_room(Call{{}, bound.should_stop}); }
  };
  template <class Body>
  auto locked(Body&& body) {
    Lock lock(*this);
    return body(lock);
  }
};

#define FIELD(name)                       \
  double name##_ = 0;                     \
  double name() const { return name##_; } \
  void set_##name(double value) { name##_ = value; }

template <class Host>
struct Budget : Bound<Host> {
  FIELD(max_calls)
  FIELD(max_tokens)
  FIELD(calls)
  FIELD(input_tokens)
  FIELD(cost)
  FIELD(cache_hits)
  FIELD(in_flight)
  Budget(double calls, double tokens) : max_calls_(calls), max_tokens_(tokens) {}

  bool stopping() { return decision_bounds::stopping(*this); }
  bool exhausted_locked() { return decision_bounds::exhausted_locked(*this); }
  void reserve(double tokens) { decision_bounds::reserve(*this, tokens); }
  void release(double tokens) { decision_bounds::release(*this, tokens); }
  bool charge(const Reply& reply, double tokens) {
    return decision_bounds::charge(*this, reply, tokens);
  }
  void settled(double tokens, const Reply& reply) { give_back_share(*this, reply, tokens); }
  std::string summary_text() {
    const bool locked = this->changed.owned();
    return std::to_string(calls()) + " calls" + (locked ? ", locked" : "");
  }
};

template <class Host>
struct Account : Bound<Host> {
  using Number = double;
  FIELD(cap)
  FIELD(cost)
  std::function<std::string()> today;
  std::function<double(const std::string&)> ledger;
  std::string day;
  bool capped = false;
  int warnings = 0;
  Account(double limit, std::function<std::string()> date, decltype(ledger) since)
      : cap_(limit), today(std::move(date)), ledger(std::move(since)) {}

  bool is_another_day(const std::string& date) const { return date != day; }
  void start_day(std::string date, double start) {
    day = std::move(date);
    set_cost(start);
    capped = false;
  }
  bool has_ledger() const { return static_cast<bool>(ledger); }
  std::optional<double> read_ledger(const std::string& date) try {
    return ledger(date);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  double today_locked() { return decision_bounds::today_locked(*this); }
  double spent_since(const std::string& date) { return decision_bounds::spent_since(*this, date); }
  void settled(double amount, const Reply& reply) { give_back_held(*this, amount, reply); }
  bool mark_capped() { return !std::exchange(capped, true); }
  void warn_capped(double) { warnings += this->changed.owned() ? 100 : 1; }
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

struct Record : Charges<double> {
  double bound(double size) const { return charge_bound(*this, size); }
  void learn(double size, double charge) { learn_charge(*this, size, charge); }
};

struct Rates {
  std::mutex mutex;
  Record cost_record, token_record;
  std::set<std::string> features;
  Record& cost() { return cost_record; }
  Record& tokens() { return token_record; }
  double unknown() const { return HUGE_VAL; }
  bool knows(const std::string& feature) const { return features.contains(feature); }
  bool knows_any() const { return !features.empty(); }
  void add(const std::string& feature) { features.insert(feature); }
  template <class Body>
  auto locked(Body&& body) {
    const std::lock_guard guard(mutex);
    return body();
  }
};

}  // namespace decision_bounds::std_host
