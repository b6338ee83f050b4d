// What a thread that gives back to a budget expects of those that wait for it.
#pragma once

#include "decision_bounds/binding/interpreter/interpreter.h"
#include "decision_bounds/binding/interpreter/unboxed.h"
#include "decision_bounds/held.h"
#include "decision_bounds/run_budget.h"

namespace decision_bounds::binding {

/// Steps that cannot fail.
struct NoError {
  static constexpr bool failed() { return false; }
  static constexpr void rethrow() {}
};

/// A copy of a budget's numbers, as they will be once the waiters that were promised room have
/// taken it: with it the notifying thread looks for the room of others, without the interpreter.
class Forecast {
 public:
  /// Of a budget whose numbers are unboxed.
  template <class Budget>
  explicit Forecast(const Budget& budget)
      : object_(budget.object()),
        max_calls_(budget.max_calls()),
        max_tokens_(budget.max_tokens()),
        calls_(budget.calls()),
        input_tokens_(budget.input_tokens()),
        in_flight_(budget.in_flight()) {
    const auto held = budget.held();
    tally_.set_holders(held.holders());
    tally_.set_amount(held.amount());
    tally_.set_unbounded(held.unbounded());
  }

  void promise(const Interpreter::Wish& wish) noexcept {
    if (wish.bound == object_) try_take(*this, wish.amount);
  }
  Outlook outlook(const Interpreter::Wish& wish) noexcept {
    if (wish.bound != object_) return Outlook::unknown;
    switch (try_take(*this, wish.amount)) {
      case Room::taken:
        return Outlook::room;
      case Room::none:
        return Outlook::no_room;
      case Room::exhausted:
        break;
    }
    return Outlook::unknown;
  }

  // A budget, as far as `try_take` asks.
  Unboxed max_calls() const { return max_calls_; }
  Unboxed max_tokens() const { return max_tokens_; }
  Unboxed calls() const { return calls_; }
  Unboxed input_tokens() const { return input_tokens_; }
  Unboxed in_flight() const { return in_flight_; }
  void set_in_flight(Unboxed value) { in_flight_ = value; }
  bool exhausted_locked() const { return decision_bounds::exhausted_locked(*this); }
  template <class Steps>
  NoError attempt(Steps&& steps) const {
    steps();
    return {};
  }
  struct Tally {
    Held<Unboxed>& held;
    bool admits(Unboxed share, Unboxed used, Unboxed limit) const {
      return decision_bounds::admits(held, share, used, limit);
    }
    void take(Unboxed share) const { decision_bounds::take(held, share); }
  };
  Tally held() { return {tally_}; }

 private:
  PyObject* object_;
  Unboxed max_calls_, max_tokens_, calls_, input_tokens_, in_flight_;
  Held<Unboxed> tally_;
};

}  // namespace decision_bounds::binding
