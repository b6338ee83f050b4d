// The type of a pass's budget, and its numbers.
#pragma once

#include "decision_bounds/binding/interpreter/view.h"

namespace decision_bounds::binding {

struct RunBudgetObject : NothingMore {
  static constexpr auto kClass = &State::budget;
  static constexpr const char* kName = "korvane.engines.decision_bounds.RunBudget";
  enum Index : std::size_t {
    kMaxCalls,
    kMaxTokens,
    kCalls,
    kInputTokens,
    kCost,
    kCacheHits,
    kInFlight,
    kNumbers,
    kShouldStop = kNumbers,
    kHeldTokens,
    kChanged,
    kCount
  };
  Instance<kCount> base;
};

/// The numbers of a budget, whether they are read and written as any values or unboxed.
template <class Fields>
class BudgetFields : public Fields {
 public:
  using Fields::Fields;
  using typename Fields::Number;
  Number max_calls() const { return this->get(RunBudgetObject::kMaxCalls); }
  Number max_tokens() const { return this->get(RunBudgetObject::kMaxTokens); }
  Number calls() const { return this->get(RunBudgetObject::kCalls); }
  Number input_tokens() const { return this->get(RunBudgetObject::kInputTokens); }
  Number cost() const { return this->get(RunBudgetObject::kCost); }
  Number cache_hits() const { return this->get(RunBudgetObject::kCacheHits); }
  Number in_flight() const { return this->get(RunBudgetObject::kInFlight); }
  void set_calls(Number value) const { this->set(RunBudgetObject::kCalls, value); }
  void set_input_tokens(Number value) const { this->set(RunBudgetObject::kInputTokens, value); }
  void set_cost(Number value) const { this->set(RunBudgetObject::kCost, value); }
  void set_cache_hits(Number value) const { this->set(RunBudgetObject::kCacheHits, value); }
  void set_in_flight(Number value) const { this->set(RunBudgetObject::kInFlight, value); }
};

}  // namespace decision_bounds::binding
