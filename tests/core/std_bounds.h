// The bounds over plain std types: doubles, std::function for every callable.
#pragma once

#include <exception>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "decision_bounds/daily_spend.h"
#include "decision_bounds/held.h"
#include "decision_bounds/request_rates.h"
#include "decision_bounds/run_budget.h"
#include "decision_bounds/share.h"
#include "decision_bounds/wait.h"
#include "std_host.h"

namespace decision_bounds::std_host {

inline constexpr double kInfinite = std::numeric_limits<double>::infinity();

/// A paid reply, or none. One that cannot be read has no cost.
struct Reply {
  using Number = double;
  bool is_paid = false;
  double tokens = 0;
  std::optional<double> usd = {};
  bool paid() const { return is_paid; }
  std::optional<bool> cached() const { return false; }
  std::optional<double> input_tokens() const { return tokens; }
  std::optional<double> cost() const { return usd; }
};
static_assert(ReplyHost<Reply>);

inline Reply paid(double tokens, double usd) { return {true, tokens, usd}; }
inline Reply unreadable() { return {true, 0, std::nullopt}; }

struct Share {
  std::optional<std::function<bool(const Reply&)>> owed;
  auto exchange() { return std::exchange(owed, std::nullopt); }
};

struct NewShare {
  Admission<Share> none(Outcome outcome) const { return {outcome, {}}; }
  template <class Owner>
  Admission<Share> owe(Owner& owner, double amount) const {
    return {Outcome::admitted,
            {[&owner, amount](const Reply& reply) { return owner.settled(amount, reply); }}};
  }
};

/// Steps that failed, or did not.
struct Attempt {
  bool ok;
  std::exception_ptr error;
  bool failed() const { return !ok; }
  void rethrow() const {
    if (error) std::rethrow_exception(error);
  }
  template <class Steps>
  static Attempt of(Steps&& steps) try {
    return {steps(), nullptr};
  } catch (...) {
    return {false, std::current_exception()};
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

/// One hold of a bound's lock. A wait lasts a minute at the most, so that only a notification ends
/// it in time.
template <class Host>
struct Condition : Locked<Host> {
  using Locked<Host>::Locked;
  struct Place {
    Locked<Host>& lock;
    typename Monitor<Host>::Place place;
    void wait(double seconds) {
      lock.sleep(place, std::chrono::seconds(static_cast<int>(seconds)));
    }
    void took_room() { place.kept(); }
  };
  Place place(std::optional<double> wish = {}) {
    return {*this, typename Monitor<Host>::Place(this->monitor(), wish)};
  }
};

template <class Place>
std::optional<Outcome> wait_step(Place& place) {
  const std::optional<double> deadline;
  const std::optional<double (*)()> clock;
  return wait(place, [] { return false; }, deadline, clock, [] { return 60.0; });
}

#define FIELD(name)                       \
  double name##_ = 0;                     \
  double name() const { return name##_; } \
  void set_##name(double value) { name##_ = value; }

/// What a bound holds.
struct Holding {
  using Number = double;
  Held<double> tally;
  Tally held() { return {tally}; }
  template <class Steps>
  Attempt attempt(Steps&& steps) const {
    return Attempt::of(steps);
  }
  bool holds_nothing() const {
    return tally.holders() == 0 && tally.amount() == 0 && tally.unbounded() == 0;
  }
};

struct BudgetNumbers : Holding {
  FIELD(max_calls)
  FIELD(max_tokens)
  FIELD(calls)
  FIELD(input_tokens)
  FIELD(cost)
  FIELD(cache_hits)
  FIELD(in_flight)
  bool exhausted_locked() const { return decision_bounds::exhausted_locked(*this); }
};

struct Forecast : BudgetNumbers {
  Outlook outlook(double tokens) noexcept {
    switch (try_take(*this, tokens)) {
      case decision_bounds::Room::taken:
        return Outlook::room;
      case decision_bounds::Room::none:
        return Outlook::no_room;
      case decision_bounds::Room::exhausted:
        break;
    }
    return Outlook::unknown;
  }
  void promise(double tokens) noexcept { try_take(*this, tokens); }
};

template <class Host>
struct Budget : BudgetNumbers {
  using Condition = std_host::Condition<Host>;
  Monitor<Host> changed;
  int refusals = 0;

  Budget(double calls, double tokens) { max_calls_ = calls, max_tokens_ = tokens; }

  bool stopping() const { return false; }
  Outcome reserve(double tokens) { return decision_bounds::reserve(*this, tokens); }
  void release(double tokens) { decision_bounds::release(*this, tokens); }
  Counted charge(const Reply& reply, double tokens) {
    return decision_bounds::charge(*this, reply, tokens);
  }
  void refuse() { ++refusals; }
  NewShare make_share() const { return {}; }
  auto place(Condition& condition, double tokens) { return condition.place(tokens); }
  auto wait(typename Condition::Place& place) { return wait_step(place); }
  void notify_all(Condition& condition) {
    condition.monitor().notify_ready([this] { return std::optional(Forecast{*this}); });
  }
  template <class Body>
  auto locked(Body&& body) {
    Condition condition(changed);
    return body(condition);
  }
  bool settled(double tokens, const Reply& reply) { return give_back_share(*this, reply, tokens); }
};

struct Call {
  std::function<double()> bound;
};

template <class Host>
struct Account : Holding {
  using Condition = std_host::Condition<Host>;
  using Call = std_host::Call;
  using Day = std::string;
  FIELD(cap)
  FIELD(cost)
  Monitor<Host> changed;
  std::string day = "";
  std::function<std::string()> clock_day = [] { return "D"; };
  std::function<std::optional<double>(std::string)> ledger;
  bool capped = false;
  int warnings = 0, refusals = 0;

  explicit Account(double limit) { cap_ = limit; }

  std::string today() const { return clock_day(); }
  bool is_another_day(const std::string& today) const { return today != day; }
  void start_day(std::string today, double spent) {
    day = std::move(today), cost_ = spent, capped = false;
  }
  bool has_ledger() const { return static_cast<bool>(ledger); }
  std::optional<double> read_ledger(const std::string& since) const { return ledger(since); }
  double today_locked() { return decision_bounds::today_locked(*this); }
  double spent_since(const std::string& since) {
    return decision_bounds::spent_since(*this, since);
  }
  double bound(const Call& call) const { return call.bound(); }
  bool try_take(double amount, double spent) {
    return decision_bounds::try_take(*this, amount, spent);
  }
  bool first_refusal() { return !std::exchange(capped, true); }
  void warn(double) { ++warnings; }
  void refuse(double) { ++refusals; }
  NewShare make_share() const { return {}; }
  auto place(Condition& condition) { return condition.place(); }
  auto wait(typename Condition::Place& place, const Call&) { return wait_step(place); }
  template <class Body>
  auto locked(Body&& body) {
    Condition condition(changed);
    return body(condition);
  }
  bool settled(double amount, const Reply& reply) { return give_back_held(*this, amount, reply); }
};

#undef FIELD

struct Record {
  Charges<double> charges;
  double bound(double size) const { return charge_bound(charges, size); }
  void learn(double size, double charge) { learn_charge(charges, size, charge); }
};
static_assert(ChargesHost<Charges<double>>);

struct Rates {
  using Number = double;
  using Feature = std::string;
  std::mutex mutex;
  Record costs, used;
  std::set<std::string> features;

  template <class Body>
  auto locked(Body&& body) {
    const std::lock_guard held(mutex);
    return body();
  }
  Record& cost() { return costs; }
  Record& tokens() { return used; }
  bool knows(const std::string& feature) const { return features.contains(feature); }
  bool knows_any() const { return !features.empty(); }
  double unknown() const { return kInfinite; }
  void add(const std::string& feature) { features.insert(feature); }
};

static_assert(BudgetHost<Budget<Threads<true>>> && AccountHost<Account<Threads<true>>>);
static_assert(RatesHost<Rates>);

}  // namespace decision_bounds::std_host
