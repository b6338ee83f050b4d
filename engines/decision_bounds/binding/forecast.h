// What a thread that gives back to a budget expects of those that wait for it.
#pragma once

#include <cmath>
#include <optional>

#include "decision_bounds/binding/interpreter/python.h"
#include "decision_bounds/binding/interpreter/value.h"
#include "decision_bounds/held.h"
#include "decision_bounds/run_budget.h"

namespace decision_bounds::binding {

/// A budget's numbers as doubles, where every one of them is a number that a double holds exactly:
/// the tests of a waiter without a stop predicate of Python's are then made without the
/// interpreter.
class Forecast {
 public:
  template <class Budget, class Tally>
  static std::optional<Forecast> of(const Budget& budget, const Tally& held) {
    Forecast taken;
    taken.bound_ = budget.object();
    const bool exactly =
        exact(budget.calls(), taken.calls_) && exact(budget.in_flight(), taken.in_flight_) &&
        exact(budget.max_calls(), taken.max_calls_) &&
        exact(budget.input_tokens(), taken.input_tokens_) &&
        exact(budget.max_tokens(), taken.max_tokens_) && exact(held.holders(), taken.holders_) &&
        exact(held.amount(), taken.amount_) && exact(held.unbounded(), taken.unbounded_);
    return exactly ? std::optional(taken) : std::nullopt;
  }
  static std::optional<Interpreter::Wish> wish(PyObject* budget, Value tokens) {
    Interpreter::Wish wish{budget, 0};
    return exact(tokens, wish.amount) ? std::optional(wish) : std::nullopt;
  }

  Outlook outlook(const Interpreter::Wish& wish) const noexcept {
    if (wish.bound != bound_ || exhausted_locked(*this)) return Outlook::unknown;
    return admits(*this, wish.amount, input_tokens_, max_tokens_) ? Outlook::room
                                                                  : Outlook::no_room;
  }
  void promise(const Interpreter::Wish& wish) noexcept {
    if (wish.bound != bound_) return;
    ++in_flight_;
    take(*this, wish.amount);
  }

  // What the core asks of a budget and of a tally.
  double calls() const { return calls_; }
  double in_flight() const { return in_flight_; }
  double max_calls() const { return max_calls_; }
  double input_tokens() const { return input_tokens_; }
  double max_tokens() const { return max_tokens_; }
  double holders() const { return holders_; }
  double amount() const { return amount_; }
  double unbounded() const { return unbounded_; }
  void set_holders(double value) { holders_ = value; }
  void set_amount(double value) { amount_ = value; }
  void set_unbounded(double value) { unbounded_ = value; }

 private:
  static bool exact(std::optional<double> number, double& out) {
    constexpr double kMaxExact = 4503599627370496.0;  // sums of two stay exact
    if (!number || (std::isfinite(*number) && std::abs(*number) > kMaxExact)) return false;
    out = *number;
    return true;
  }
  static bool exact(Value value, double& out) { return exact(value.real(), out); }
  static bool exact(Unboxed value, double& out) { return exact(value.real(), out); }

  const void* bound_;
  double calls_, in_flight_, max_calls_, input_tokens_, max_tokens_;
  double holders_, amount_, unbounded_;
};

}  // namespace decision_bounds::binding
