#include "decision_bounds/binding/run_budget.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/repr.h"
#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

namespace {

BudgetView view(PyObject* self) { return BudgetView(receiver_cast<RunBudgetObject>(self)); }

Ref boolean(bool value) { return Ref::retain(value ? Py_True : Py_False); }

/// A new dict of the counters and the limits.
Ref make_summary(const BudgetView& budget) {
  const Ref unrounded = budget.cost().boxed();
  const Ref places = Ref::steal(PyLong_FromLong(6));
  PyObject* const arguments[] = {nullptr, unrounded.get(), places.get()};
  const Ref rounded = call(budget.state().round.get(), arguments + 1, 2);
  const Ref summary = Ref::steal(PyDict_New());
  const auto add = [&](PyObject* key, const Ref& value) {
    check(PyDict_SetItem(summary.get(), key, value.get()));
  };
  const auto add_field = [&](stub::RunBudget::Field field) {
    add(budget.name(field), budget.get(field).boxed());
  };
  using enum stub::RunBudget::Field;
  add_field(calls);
  add_field(cache_hits);
  add_field(input_tokens);
  add(budget.state().names.cost_usd, rounded);
  add_field(max_calls);
  add_field(max_tokens);
  return summary;
}

[[gnu::flatten]] bool settle_share(PyObject* budget, Value tokens, PyObject* reply) {
  BudgetView self(*reinterpret_cast<RunBudgetObject*>(budget));
  self.never_interrupt();
  return give_back_share(self, Reply(self.state(), reply), tokens);
}

/// The function that a budget's share shows as its give-back.
Ref make_give_back(PyObject* budget, Value tokens) {
  const State& state = *reinterpret_cast<RunBudgetObject*>(budget)->base.head.made->state;
  const Ref boxed = tokens.boxed();
  PyObject* const arguments[] = {nullptr, budget, boxed.get()};
  return call(state.give_back_maker.get(), arguments + 1, 2);
}

constexpr BoundInterface kInterface = {settle_share, make_give_back};

}  // namespace

Counted BudgetView::charge_by_name(BudgetView budget, Reply reply, Value tokens) {
  call_method(budget.object(), budget.name(Operation::charge),
              {Value::opaque(reply.object()), tokens});
  // What another charge does with a reply is its own affair: one that says nothing was not cached.
  PyObject* const name = budget.state().names.cached;
  PyObject* cached = nullptr;
  check(guarded([&] { return PyObject_GetOptionalAttr(reply.object(), name, &cached); }));
  const bool hit = cached != nullptr && truth(Ref::steal(cached).get());
  return hit ? Counted::hit : Counted::paid;
}

Ref BudgetView::summary_of(BudgetView budget) {
  return budget.call(Operation::summary_locked, [&] { return make_summary(budget); });
}

void BudgetView::raise(BudgetView budget, Outcome outcome) {
  const State& state = budget.state();
  if (outcome == Outcome::stopped)
    return state.set_error(state.names.stopped_class, state.names.stopped_text);
  const Ref summary = budget.summary_locked();
  const Ref text = Ref::steal(guarded(
      [&] { return PyUnicode_FromFormat("decision budget exhausted: %S", summary.get()); }));
  state.set_error(state.names.exceeded_class, text.get());
}

std::optional<Outcome> BudgetView::wait_in(BudgetView budget, Lock& changed, Value tokens) {
  changed.decline([&] { return Forecast::of(budget); });
  const State& state = budget.state();
  if (const Ref replaced = replaced_wait(state)) {
    const Ref stop = attribute(budget.object(), budget.name(Operation::stopping));
    const Ref condition = budget.get_object(Field::changed);
    PyObject* const arguments[] = {nullptr, condition.get(), stop.get()};
    binding::call(replaced.get(), arguments + 1, 2);
    return std::nullopt;
  }
  // With a stop predicate of Python's a waiter is always woken; else whoever gives back looks for
  // its room, in the order in which the waiters came, and promises it what there is.
  if (budget.never_stops() && tokens.unboxed()) changed.wish(Wish{budget.object(), tokens.real()});
  Waiting waiting(state, [&] { return budget.stopping(); }, Py_None, Py_None);
  return decision_bounds::wait(waiting, changed);
}

void BudgetView::release_again(BudgetView budget, Value tokens) { budget.release(tokens); }

void BudgetView::notify_waiters(BudgetView budget, Lock& changed) {
  changed.notify_ready([&] { return Forecast::of(budget); });
}

Ref stub::RunBudget::stopping(PyObject* const* arguments) {
  return boolean(view(arguments[0]).should_stop());
}

Ref stub::RunBudget::exhausted(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return boolean(decision_bounds::exhausted(self));
}

Ref stub::RunBudget::exhausted_locked(PyObject* const* arguments) {
  return boolean(decision_bounds::exhausted_locked(view(arguments[0])));
}

Ref stub::RunBudget::reserve(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  const Outcome outcome = decision_bounds::reserve(self, Value::borrowed(arguments[1]));
  return outcome == Outcome::admitted ? none() : Ref();
}

Ref stub::RunBudget::hold(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return decision_bounds::hold(self, Value::borrowed(arguments[1])).share;
}

Ref stub::RunBudget::release(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  decision_bounds::release(self, Value::borrowed(arguments[1]));
  return none();
}

Ref stub::RunBudget::charge(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  const Reply reply(self.state(), arguments[1]);
  return decision_bounds::charge(self, reply, Value::borrowed(arguments[2])) ? none() : Ref();
}

Ref stub::RunBudget::summary(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return self.locked([&](auto&) { return self.summary_locked(); });
}

Ref stub::RunBudget::summary_locked(PyObject* const* arguments) {
  return make_summary(view(arguments[0]));
}

Ref stub::RunBudget::repr(PyObject* const* arguments) {
  return repr_of<RunBudgetObject>(arguments);
}

Ref stub::Functions::give_back(State&, PyObject* const* arguments) {
  receiver_cast<RunBudgetObject>(arguments[0]);
  const Value tokens = Value::borrowed(arguments[2]);
  return settle_share(arguments[0], tokens, arguments[1]) ? none() : Ref();
}

ClassSpec budget_class() { return class_spec<RunBudgetObject>(&kInterface); }

}  // namespace decision_bounds::binding
