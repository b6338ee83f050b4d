// What a thread that gives back to a budget expects of those that wait for it.
#pragma once

#include <array>
#include <optional>

#include "decision_bounds/binding/held.h"
#include "decision_bounds/binding/interpreter/interpreter.h"
#include "decision_bounds/run_budget.h"

namespace decision_bounds::binding {

/// A copy of an instance's numbers, for steps without the interpreter.
template <class Stub>
class PlainNumbers {
 public:
  using Number = double;
  using Field = typename Stub::Field;

  /// False where some number is none that lies unboxed in the instance itself.
  template <class View>
  bool copy(const View& view) {
    for (const Field field : Stub::kNumbers) {
      const Value value = view.peek(field);
      if (value.unboxed()) {
        set(field, value.real());
      } else if (value.object() != Py_None) {
        return false;
      }
    }
    return true;
  }
  double get(Field field) const { return *get_or_none(field); }
  std::optional<double> get_or_none(Field field) const {
    return values_[static_cast<std::size_t>(field)];
  }
  void set(Field field, double value) { values_[static_cast<std::size_t>(field)] = value; }

 private:
  std::array<std::optional<double>, Stub::kFields.size()> values_;
};

class PlainTally : public stub::Held::Numbers<PlainNumbers<stub::Held>> {
 public:
  bool admits(double share, double used, double limit) const {
    return decision_bounds::admits(*this, share, used, limit);
  }
  void take(double share) { decision_bounds::take(*this, share); }
};

/// A copy of a budget's numbers, as they will be once the waiters that were promised room have
/// taken it: with it the notifying thread looks for the room of others, without the interpreter.
class Forecast : public stub::RunBudget::Numbers<PlainNumbers<stub::RunBudget>> {
 public:
  /// None, where the interpreter is needed to tell who finds room.
  template <class Budget>
  static std::optional<Forecast> of(const Budget& budget) {
    using Operation = typename Budget::Operation;
    if (!budget.never_stops() || !budget.original(Operation::exhausted_locked)) return std::nullopt;
    const HeldView tally = budget.held();
    Forecast forecast(budget.object());
    const bool known = tally.original(HeldView::Operation::admits) &&
                       tally.original(HeldView::Operation::take) && forecast.copy(budget) &&
                       forecast.tally_.copy(tally);
    return known ? std::optional(forecast) : std::nullopt;
  }

  void promise(const Interpreter::Wish& wish) noexcept {
    if (wish.bound == budget_) try_take(*this, wish.amount);
  }
  Outlook outlook(const Interpreter::Wish& wish) noexcept {
    if (wish.bound != budget_) return Outlook::unknown;
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
  bool exhausted_locked() const { return decision_bounds::exhausted_locked(*this); }
  PlainTally& held() { return tally_; }
  void renew(PlainTally&) const {}
  template <class Steps, class Otherwise>
  void attempt(Steps&& steps, Otherwise&&) const {
    steps();
  }

 private:
  explicit Forecast(const void* budget) : budget_(budget) {}

  const void* budget_;
  PlainTally tally_;
};

}  // namespace decision_bounds::binding
