// The type of a pass's budget, and its numbers.
#pragma once

#include <memory>

#include "decision_bounds/binding/interpreter/view.h"
#include "decision_bounds/held.h"
#include "decision_bounds/sync/thread.h"

namespace decision_bounds::binding {

/// What the waiters hold that were woken to room and have yet to run: later ones are tested as if
/// they had taken it already. Guarded by the monitor's own guard of its waiters.
struct Called {
  decision_bounds::Held<double> tally;
  ForkCount forks = 0;  // a fork's child has none of them
};

struct RunBudgetObject {
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
  std::unique_ptr<Called> called;  // from the first such waiter on

  void construct() { new (&called) std::unique_ptr<Called>(); }
  int visit_more(visitproc, void*) { return 0; }
  void clear_more() {}
  void destroy() { called.reset(); }
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
