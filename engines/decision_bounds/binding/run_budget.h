// The budget of a pass: its type, and how the core sees one.
#pragma once

#include <string>

#include "decision_bounds/binding/forecast.h"
#include "decision_bounds/binding/held.h"
#include "decision_bounds/binding/reply.h"
#include "decision_bounds/binding/run_budget_object.h"
#include "decision_bounds/binding/share.h"
#include "decision_bounds/binding/wait.h"
#include "decision_bounds/run_budget.h"

namespace decision_bounds::binding {

class BudgetView : public BudgetFields<View<RunBudgetObject>> {
 public:
  using BudgetFields::BudgetFields;

  Tally held() const { return Tally(state(), borrow_object(RunBudgetObject::kHeldTokens)); }

  /// Whether the stop predicate is the one that never stops: then nothing of Python's is asked.
  bool never_stops() const {
    return own() && instance().base.fields[RunBudgetObject::kShouldStop].is(state().never.get());
  }
  bool should_stop() {
    if (never_stops()) [[likely]]
      return false;
    const bool stop = truth(call(get_object(RunBudgetObject::kShouldStop).get()).get());
    look();
    return stop;
  }

  // The operations that others call, through the instance where it has its own.
  bool stopping() {
    if (own()) [[likely]]
      return decision_bounds::stopping(*this);
    return truth(call_method(object(), state().names.stopping).get());
  }
  bool exhausted_locked() {
    if (own()) [[likely]]
      return decision_bounds::exhausted_locked(*this);
    return truth(call_method(object(), state().names.exhausted_locked).get());
  }
  void reserve(Value tokens) {
    if (own()) [[likely]]
      return decision_bounds::reserve(*this, tokens);
    call_method(object(), state().names.reserve, {tokens});
  }
  void release(Value tokens) {
    if (own()) [[likely]]
      return decision_bounds::release(*this, tokens);
    call_method(object(), state().names.release, {tokens});
  }
  bool charge(const Reply& reply, Value tokens) {
    if (own()) [[likely]]
      return decision_bounds::charge(*this, reply, tokens);
    return charge_through_instance(*this, reply, tokens);
  }
  Ref summary_locked() {
    if (own()) return decision_bounds::summary_locked(*this).dict();
    return call_method(object(), state().names.summary_locked);
  }
  std::string summary_text() const { return text_of_summary(*this); }

  class Summary {
   public:
    Summary() : dict_(Ref::steal(PyDict_New())) {}
    void add(const char* key, Value value) {
      check(PyDict_SetItemString(dict_.get(), key, value.boxed().get()));
    }
    Ref dict() const { return dict_; }

   private:
    Ref dict_;
  };
  Summary new_summary() const { return Summary(); }
  Value rounded(Value value, int digits) const { return rounded_by(state(), value, digits); }

  NewShare make_share() const { return NewShare(state()); }
  bool own_give_back() const { return true; }
  Ref make_give_back(Value tokens) const;
  void take_back(Value tokens) const { release_again(*this, tokens); }

  /// What a waiter lets others look for, where nothing of Python's is asked for its tests.
  std::optional<Interpreter::Wish> wish(Value tokens) const {
    return own() && never_stops() ? Forecast::wish(object(), tokens) : std::nullopt;
  }
  std::optional<Forecast> forecast() const { return forecast_of(*this); }

  /// One wait step with `changed` held, by `lock` where it is the module's own condition.
  void wait_for_room(PyObject* changed, const OwnCondition& condition, Value) {
    wait_step_of(*this, changed, condition);
    look();
  }
  void wait_through_module(PyObject* changed, Value) {
    wait_step_through_module(state(), object(), changed);
    look();
  }

  /// From here on the lock is taken even where Ctrl-C comes while it blocks: a share that settles
  /// is given back already, and nothing would give back what it holds.
  void settle_share() { interruptible_ = false; }

  template <class Body>
  auto locked(Body&& body) {
    return with_lock(*this, get_object(RunBudgetObject::kChanged), interruptible_, body);
  }

 private:
  // What is rare stands out of line and takes a copy.
  [[gnu::cold, gnu::noinline]] static bool charge_through_instance(BudgetView budget, Reply reply,
                                                                   Value tokens);
  [[gnu::cold, gnu::noinline]] static std::string text_of_summary(BudgetView budget);
  [[gnu::cold, gnu::noinline]] static Value rounded_by(const State& state, Value value, int digits);
  [[gnu::cold, gnu::noinline]] static void release_again(BudgetView budget, Value tokens);
  [[gnu::cold, gnu::noinline]] static std::optional<Forecast> forecast_of(
      BudgetView budget) noexcept;
  [[gnu::noinline]] static void wait_step_of(BudgetView budget, PyObject* changed,
                                             const OwnCondition& condition);
  [[gnu::cold, gnu::noinline]] static void wait_step_through_module(State& state, PyObject* budget,
                                                                    PyObject* changed);

  bool interruptible_ = true;
};

inline bool is_budget(const State& state, PyObject* bound) {
  return PyObject_TypeCheck(bound, state.budget.type) != 0;
}

/// The function that a budget's share shows as its give-back.
Ref budget_give_back(State& state, PyObject* budget, Value tokens);

/// Settles a share of `budget` that holds `tokens`.
void settle_budget_share(State& state, PyObject* budget, Value tokens, PyObject* reply);

}  // namespace decision_bounds::binding
