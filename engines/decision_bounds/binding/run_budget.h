// The budget of a pass: its type, and how the core sees one.
#pragma once

#include <optional>

#include "decision_bounds/binding/forecast.h"
#include "decision_bounds/binding/reply.h"
#include "decision_bounds/binding/share.h"
#include "decision_bounds/run_budget.h"
#include "stub.h"

namespace decision_bounds::binding {

using RunBudgetObject = PlainObject<stub::RunBudget, &State::budget>;

/// Of a `reserve` of Python's that returned.
template <>
inline Outcome answer_of(Ref) {
  return Outcome::admitted;
}

/// A budget, in whatever state.
class BudgetView : public BoundView<RunBudgetObject> {
 public:
  using BoundView::BoundView;

  HeldView held() const { return {state(), get_object(Field::held_tokens)}; }
  void renew(HeldView& tally) const { tally.renew(*this, Field::held_tokens); }

  /// Whether the stop predicate is the one that never stops: then nothing of Python's is asked.
  bool never_stops() const {
    return peek(Field::should_stop).object() == state().never.get() &&
           original(Operation::stopping);
  }
  bool should_stop() {
    if (peek(Field::should_stop).object() == state().never.get()) [[likely]]
      return false;
    const bool stop = truth(binding::call(get_object(Field::should_stop).get()).get());
    recheck();
    return stop;
  }

  bool stopping() {
    return call(Operation::stopping, [&] { return should_stop(); });
  }
  bool exhausted_locked() {
    return call(Operation::exhausted_locked,
                [&] { return decision_bounds::exhausted_locked(*this); });
  }
  Outcome reserve(Value tokens) {
    return call(
        Operation::reserve, [&] { return decision_bounds::reserve(*this, tokens); }, tokens);
  }
  void release(Value tokens) {
    call(Operation::release, [&] { decision_bounds::release(*this, tokens); }, tokens);
  }
  std::optional<Counted> charge(const Reply& reply, Value tokens) {
    if (original(Operation::charge)) [[likely]]
      return decision_bounds::charge(*this, reply, tokens);
    const Counted counted = charge_by_name(*this, reply, tokens);
    recheck();
    return counted;
  }
  /// A new dict with the six entries, in the order in which it is shown. The lock is held.
  Ref summary_locked() { return summary_of(*this); }

  /// Leaves the error of an admission that ended this way pending.
  Outcome refuse(Outcome outcome) {
    raise(*this, outcome);
    return outcome;
  }

  bool give_back_original() const { return true; }
  void take_back(Value tokens) const { release_again(*this, tokens); }

  std::optional<Outcome> wait(Lock& changed, Value tokens) {
    const std::optional<Outcome> ended = wait_in(*this, changed, tokens);
    changed.rewind();
    recheck();
    return ended;
  }

  void notify_all(Lock& changed) const {
    if (changed.awaited()) [[unlikely]]
      notify_waiters(*this, changed);
  }

 private:
  // What is rare stands out of line and takes a copy.
  [[gnu::cold, gnu::noinline]] static Counted charge_by_name(BudgetView budget, Reply reply,
                                                             Value tokens);
  [[gnu::cold, gnu::noinline]] static Ref summary_of(BudgetView budget);
  [[gnu::cold, gnu::noinline]] static void raise(BudgetView budget, Outcome outcome);
  [[gnu::noinline]] static std::optional<Outcome> wait_in(BudgetView budget, Lock& changed,
                                                          Value tokens);
  [[gnu::cold, gnu::noinline]] static void release_again(BudgetView budget, Value tokens);
  [[gnu::cold, gnu::noinline]] static void notify_waiters(BudgetView budget, Lock& changed);
};

}  // namespace decision_bounds::binding
