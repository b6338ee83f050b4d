#include "decision_bounds/binding/run_budget.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/usual_budget.h"

namespace decision_bounds::binding {

namespace {

BudgetView view(PyObject* self) { return BudgetView(receiver_cast<RunBudgetObject>(self)); }

Ref boolean(bool value) { return Ref::borrow(value ? Py_True : Py_False); }

Ref stopping(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return boolean(decision_bounds::stopping(self));
}

Ref exhausted(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return boolean(decision_bounds::exhausted(self));
}

Ref exhausted_locked(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return boolean(decision_bounds::exhausted_locked(self));
}

Ref reserve(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  decision_bounds::reserve(self, Value::borrowed(arguments[1]));
  return none();
}

Ref hold(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return decision_bounds::hold(self, Value::borrowed(arguments[1]));
}

/// Leaves the refusal of an exhausted budget pending. Thrown, it would take longer than all the
/// rest.
[[gnu::cold, gnu::noinline]] void refuse(State& state, RunBudgetObject& instance) {
  try {
    const Operation operation;
    BudgetView budget({state, instance});
    raise_for(decision_bounds::refusal(budget), state.globals);
  } catch (const PythonError&) {
    // The error that came up on the way is the one that is seen.
  } catch (const std::exception& error) {
    raise_for(error, state.globals);
  }
}

/// What `hold` does, where all is as it mostly is.
PyObject* hold_as_usual(PyObject* const* arguments) noexcept {
  if (Py_TYPE(arguments[0])->tp_dealloc != dealloc<RunBudgetObject>) return nullptr;
  auto& instance = *reinterpret_cast<RunBudgetObject*>(arguments[0]);
  State& state = *instance.base.state;
  const Value tokens = Value::borrowed(arguments[1]);
  const auto budget = UsualBudget::of(state, instance, tokens);
  if (!budget || !budget->never_stops() || !state.makes_own_shares()) return nullptr;
  try {
    if (decision_bounds::exhausted_locked(*budget)) [[unlikely]] {
      budget->locked([&](auto&) { refuse(state, instance); });
      return nullptr;
    }
    return decision_bounds::hold(*budget, tokens.number()).release();
  } catch (const Unusual&) {
    return nullptr;
  }
}

Ref release(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  decision_bounds::release(self, Value::borrowed(arguments[1]));
  return none();
}

Ref charge(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  decision_bounds::charge(self, Reply(self.state(), arguments[1]), Value::borrowed(arguments[2]));
  return none();
}

Ref summary(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return decision_bounds::summary(self);
}

Ref summary_locked(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return decision_bounds::summary_locked(self).dict();
}

Ref give_back(PyObject* const* arguments) {
  const Receiver<RunBudgetObject> self = receiver_cast<RunBudgetObject>(arguments[0]);
  settle_budget_share(self.state, arguments[0], Value::borrowed(arguments[2]), arguments[1]);
  return none();
}

constexpr const char* kFields[] = {"max_calls",    "max_tokens", "calls",     "input_tokens",
                                   "cost",         "cache_hits", "in_flight", "should_stop",
                                   "_held_tokens", "_changed"};

Method methods[] = {
    method<stopping, 1>("stopping"),
    method<exhausted, 1>("exhausted"),
    method<exhausted_locked, 1>("_exhausted_locked"),
    method<reserve, 2>("reserve"),
    method<hold, 2, 2, hold_as_usual>("hold"),
    method<release, 2>("release"),
    method<charge, 3>("charge"),
    method<summary, 1>("summary"),
    method<summary_locked, 1>("_summary_locked"),
};

Method give_back_method = method<give_back, 3>("give_back");

}  // namespace

Value BudgetView::rounded_by(const State& state, Value value, int digits) {
  const Ref boxed = value.boxed();
  const Ref places = Ref::steal(PyLong_FromLong(digits));
  PyObject* const arguments[] = {nullptr, boxed.get(), places.get()};
  return Value::of(call(state.round.get(), arguments + 1, 2));
}

bool BudgetView::charge_through_instance(BudgetView budget, Reply reply, Value tokens) {
  const Names& names = budget.state().names;
  call_method(budget.object(), names.charge, {Value::opaque(reply.object()), tokens});
  // What another charge does with a reply is its own affair: one that says nothing was not cached.
  PyObject* cached = nullptr;
  check(guarded([&] { return PyObject_GetOptionalAttr(reply.object(), names.cached, &cached); }));
  return cached != nullptr && truth(Ref::steal(cached).get());
}

std::string BudgetView::text_of_summary(BudgetView budget) {
  const Ref summary = budget.summary_locked();
  const Ref text = Ref::steal(guarded([&] { return PyObject_Str(summary.get()); }));
  const char* const utf8 = PyUnicode_AsUTF8(text.get());
  if (utf8 == nullptr) throw PythonError();
  return utf8;
}

Ref BudgetView::make_give_back(Value tokens) const {
  return budget_give_back(state(), object(), tokens);
}

void BudgetView::release_again(BudgetView budget, Value tokens) { budget.release(tokens); }

std::optional<Forecast> BudgetView::forecast_of(BudgetView budget) noexcept {
  try {
    if (!budget.own() || !budget.never_stops()) return std::nullopt;
    const Operation operation;  // whatever this thread was called for
    const std::optional<HeldView> held = budget.held().own();
    return held ? Forecast::of(budget, *held) : std::nullopt;
  } catch (const PythonError&) {
    PyErr_Clear();  // an attribute that was deleted: the waiters shall see for themselves
  } catch (const std::bad_alloc&) {
  }
  return std::nullopt;
}

void BudgetView::wait_step_of(BudgetView budget, PyObject* changed, const OwnCondition& condition) {
  State& state = budget.state();
  if (!own_wait(state, state.global(state.names.wait_private))) {
    return wait_step_through_module(state, budget.object(), changed);
  }
  const auto stopping = [&] { return budget.stopping(); };
  wait_step(state, condition, stopping, Py_None, Py_None);
}

void BudgetView::wait_step_through_module(State& state, PyObject* budget, PyObject* changed) {
  const Ref wait = state.global(state.names.wait_private);
  const Ref stopping = attribute(budget, state.names.stopping);
  PyObject* const arguments[] = {nullptr, changed, stopping.get()};
  call(wait.get(), arguments + 1, 2);
}

Ref budget_give_back(State& state, PyObject* budget, Value tokens) {
  const Ref boxed = tokens.boxed();
  PyObject* const arguments[] = {nullptr, budget, boxed.get()};
  return call(state.give_back_maker.get(), arguments + 1, 2);
}

namespace {

/// What the release of a share does, where all is as it mostly is.
bool release_as_usual(State& state, RunBudgetObject& instance, Value tokens) {
  const auto budget = UsualBudget::of(state, instance, tokens);
  if (!budget) return false;
  try {
    decision_bounds::release(*budget, tokens.number());
    return true;
  } catch (const Unusual&) {
    return false;
  }
}

}  // namespace

void settle_budget_share(State& state, PyObject* budget, Value tokens, PyObject* reply) {
  auto& instance = *reinterpret_cast<RunBudgetObject*>(budget);
  if (reply == Py_None && release_as_usual(state, instance, tokens)) return;
  BudgetView self({state, instance});
  self.settle_share();
  decision_bounds::give_back_share(self, Reply(state, reply), tokens);
}

ClassSpec budget_class() {
  return {&State::budget, &TypeSlots<RunBudgetObject>::spec, kFields, kFirstField<RunBudgetObject>,
          methods};
}

Method& budget_give_back() { return give_back_method; }

}  // namespace decision_bounds::binding
