// The budget of a pass: its type, and how the core sees one.
#pragma once

#include <memory>
#include <string>

#include "decision_bounds/binding/held.h"
#include "decision_bounds/binding/reply.h"
#include "decision_bounds/binding/share.h"
#include "decision_bounds/binding/wait.h"
#include "decision_bounds/run_budget.h"

namespace decision_bounds::binding {

/// What the waiters hold that were woken to room and have yet to run: later ones are tested as if
/// they had taken it already. Guarded by the monitor's own guard of its waiters.
struct Called {
  decision_bounds::Held<double> tally;
  std::uint64_t forks = 0;  // a fork's child has none of them
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
    kShouldStop,
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

class BudgetView : public View<RunBudgetObject> {
 public:
  using View::View;

  const Value& max_calls() const { return get(RunBudgetObject::kMaxCalls); }
  const Value& max_tokens() const { return get(RunBudgetObject::kMaxTokens); }
  const Value& calls() const { return get(RunBudgetObject::kCalls); }
  const Value& input_tokens() const { return get(RunBudgetObject::kInputTokens); }
  const Value& cost() const { return get(RunBudgetObject::kCost); }
  const Value& cache_hits() const { return get(RunBudgetObject::kCacheHits); }
  const Value& in_flight() const { return get(RunBudgetObject::kInFlight); }
  void set_calls(Value value) const { set(RunBudgetObject::kCalls, std::move(value)); }
  void set_input_tokens(Value value) const { set(RunBudgetObject::kInputTokens, std::move(value)); }
  void set_cost(Value value) const { set(RunBudgetObject::kCost, std::move(value)); }
  void set_cache_hits(Value value) const { set(RunBudgetObject::kCacheHits, std::move(value)); }
  void set_in_flight(Value value) const { set(RunBudgetObject::kInFlight, std::move(value)); }
  Tally held() const { return Tally(state(), get_object(RunBudgetObject::kHeldTokens)); }

  /// Whether the stop predicate is the one that never stops: then nothing of Python's is asked.
  bool never_stops() const {
    return own() && instance().base.fields[RunBudgetObject::kShouldStop].is(state().never);
  }
  bool should_stop() { return !never_stops() && ask_to_stop(); }

  // The operations that others call, through the instance where it has its own.
  bool stopping();
  bool exhausted_locked();
  void reserve(const Value& tokens);
  void release(const Value& tokens);
  bool charge(const Reply& reply, const Value& tokens);
  Ref summary_locked();
  std::string summary_text();

  class Summary {
   public:
    Summary() : dict_(Ref::steal(PyDict_New())) {}
    void add(const char* key, const Value& value) {
      check(PyDict_SetItemString(dict_.get(), key, value.boxed().get()));
    }
    Ref dict() const { return dict_; }

   private:
    Ref dict_;
  };
  Summary new_summary() const { return Summary(); }
  Value rounded(const Value& value, int digits) const;

  NewShare make_share() const { return NewShare(state()); }
  bool own_give_back() const { return true; }
  Ref make_give_back(const Value& tokens) const;
  void take_back(const Value& tokens) { release(tokens); }

  /// One wait step with `changed` held, by `lock` where it is the module's own condition.
  [[gnu::noinline]] void wait_for_room(PyObject* changed, Locked& lock, const Value& tokens);
  [[gnu::cold, gnu::noinline]] void wait_through_module(PyObject* changed, const Value& tokens);

  /// From here on the lock is taken even where Ctrl-C comes while it blocks: a share that settles
  /// is given back already, and nothing would give back what it holds.
  void settle_share() { interruptible_ = false; }

  template <class Body>
  auto locked(Body&& body) {
    return with_lock(*this, get_object(RunBudgetObject::kChanged), interruptible_, body);
  }

 private:
  bool interruptible_ = true;
  [[gnu::noinline]] bool ask_to_stop();
};

inline bool is_budget(const State& state, PyObject* bound) {
  return PyObject_TypeCheck(bound, state.budget.type) != 0;
}

/// The function that a budget's share shows as its give-back.
Ref budget_give_back(State& state, PyObject* budget, const Value& tokens);

/// Settles a share of `budget` that holds `tokens`.
void settle_budget_share(State& state, PyObject* budget, const Value& tokens, PyObject* reply);

}  // namespace decision_bounds::binding
