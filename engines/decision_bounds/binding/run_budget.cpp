#include "decision_bounds/binding/run_budget.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/interpreter/text.h"
#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

static_assert(BudgetHost<BudgetView> && ReplyHost<Reply>);

std::optional<Outcome> BudgetView::wait(Changed::Place& place) {
  place.pass_on([this] { return forecast_of(*this); });
  std::optional<Outcome> ended;
  if (const Ref replaced = replaced_wait(state())) {
    const Ref stop = attribute(object(), state().names.stopping);
    const Ref changed = get_object(RunBudgetObject::kChanged);
    PyObject* const arguments[] = {nullptr, changed.get(), stop.get()};
    call(replaced.get(), arguments + 1, 2);
  } else {
    ended = wait_step(state(), place, [this] { return stopping(); }, Py_None, Py_None);
  }
  place.rewind();
  look();
  return ended;
}

namespace {

BudgetView view(PyObject* self) { return BudgetView(receiver_cast<RunBudgetObject>(self)); }

Ref boolean(bool value) { return Ref::borrow(value ? Py_True : Py_False); }

Ref stopping(PyObject* const* arguments) { return boolean(view(arguments[0]).should_stop()); }

Ref exhausted(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return boolean(decision_bounds::exhausted(self));
}

Ref exhausted_locked(PyObject* const* arguments) {
  return boolean(decision_bounds::exhausted_locked(view(arguments[0])));
}

Ref reserve(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  const Outcome outcome = decision_bounds::reserve(self, Value::borrowed(arguments[1]));
  if (outcome == Outcome::admitted) [[likely]]
    return none();
  raise_for(self.state(), outcome);
  return Ref();
}

Ref hold(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  Admission<Ref> admission = decision_bounds::hold(self, Value::borrowed(arguments[1]));
  if (admission.outcome != Outcome::admitted) raise_for(self.state(), admission.outcome);
  return std::move(admission.share);
}

/// The fast path of `hold`: room that is there, of an unpatched budget that nothing stops.
PyObject* hold_fast(PyObject* const* arguments) noexcept {
  if (Py_TYPE(arguments[0])->tp_dealloc != dealloc<RunBudgetObject>) return nullptr;
  auto& instance = *reinterpret_cast<RunBudgetObject*>(arguments[0]);
  State& state = *instance.base.state;
  const Value tokens = Value::borrowed(arguments[1]);
  auto budget = FastBudget::of(state, instance, tokens);
  if (!budget || !budget->never_stops() || !state.makes_own_shares()) return nullptr;
  Ref share = new_share(state);
  if (!share) return nullptr;
  const FastBudget::Lock lock(*budget);
  if (!lock || try_take(*budget, tokens.number()) != Room::taken) return nullptr;
  fill_share(share.get(), arguments[0], tokens);
  return share.release();
}

Ref release(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  decision_bounds::release(self, Value::borrowed(arguments[1]));
  return none();
}

Ref charge(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  const Reply reply(self.state(), arguments[1]);
  const Counted counted = decision_bounds::charge(self, reply, Value::borrowed(arguments[2]));
  return counted == Counted::failed ? Ref() : none();
}

/// A new dict of the counters and the limits.
Ref make_summary(const BudgetView& budget) {
  const Ref cost = budget.cost().boxed();
  const Ref places = Ref::steal(PyLong_FromLong(6));
  PyObject* const arguments[] = {nullptr, cost.get(), places.get()};
  const Ref rounded = call(budget.state().round.get(), arguments + 1, 2);
  const Ref summary = Ref::steal(PyDict_New());
  const auto add = [&](PyObject* key, const Ref& value) {
    check(PyDict_SetItem(summary.get(), key, value.get()));
  };
  const std::span<const Ref> fields = budget.state().budget.fields;
  add(fields[RunBudgetObject::kCalls].get(), budget.calls().boxed());
  add(fields[RunBudgetObject::kCacheHits].get(), budget.cache_hits().boxed());
  add(fields[RunBudgetObject::kInputTokens].get(), budget.input_tokens().boxed());
  add(budget.state().names.cost_usd, rounded);
  add(fields[RunBudgetObject::kMaxCalls].get(), budget.max_calls().boxed());
  add(fields[RunBudgetObject::kMaxTokens].get(), budget.max_tokens().boxed());
  return summary;
}

Ref summary(PyObject* const* arguments) {
  BudgetView self = view(arguments[0]);
  return self.locked([&](auto&) { return self.summary_locked(); });
}

Ref summary_locked(PyObject* const* arguments) { return make_summary(view(arguments[0])); }

/// Settles a share of `budget` that holds `tokens`.
bool settle_share(State& state, PyObject* budget, Value tokens, PyObject* reply);

Ref give_back(PyObject* const* arguments) {
  const auto self = receiver_cast<RunBudgetObject>(arguments[0]);
  const Value tokens = Value::borrowed(arguments[2]);
  return settle_share(self.state, arguments[0], tokens, arguments[1]) ? none() : Ref();
}

constexpr const char* kFields[] = {"max_calls",    "max_tokens", "calls",     "input_tokens",
                                   "cost",         "cache_hits", "in_flight", "should_stop",
                                   "_held_tokens", "_changed"};

Method methods[] = {
    method<stopping, 1>("stopping"),
    method<exhausted, 1>("exhausted"),
    method<exhausted_locked, 1>("_exhausted_locked"),
    method<reserve, 2>("reserve"),
    method<hold, 2, 2, hold_fast>("hold"),
    method<release, 2>("release"),
    method<charge, 3>("charge"),
    method<summary, 1>("summary"),
    method<summary_locked, 1>("_summary_locked"),
    method<repr<RunBudgetObject, RunBudgetObject::kNumbers>, 1>("__repr__"),
};

Method give_back_method = method<give_back, 3>("give_back");

/// The fast path of a share's release.
bool release_fast(State& state, RunBudgetObject& instance, Value tokens) {
  auto budget = FastBudget::of(state, instance, tokens);
  if (!budget) return false;
  const FastBudget::Lock lock(*budget);
  if (!lock) return false;
  free_slot(*budget, tokens.number());
  lock.monitor().notify_ready([&] { return budget->forecast(); });
  return true;
}

[[gnu::flatten]] bool settle_share(State& state, PyObject* budget, Value tokens, PyObject* reply) {
  auto& instance = *reinterpret_cast<RunBudgetObject*>(budget);
  if (reply == Py_None && release_fast(state, instance, tokens)) return true;
  BudgetView self({state, instance});
  self.settle_share();
  return give_back_share(self, Reply(state, reply), tokens);
}

/// The function that a budget's share shows as its give-back.
Ref make_give_back(State& state, PyObject* budget, Value tokens) {
  const Ref boxed = tokens.boxed();
  PyObject* const arguments[] = {nullptr, budget, boxed.get()};
  return call(state.give_back_maker.get(), arguments + 1, 2);
}

constexpr BoundOperations kOperations = {settle_share, make_give_back};

}  // namespace

Counted BudgetView::charge_through_instance(BudgetView budget, Reply reply, Value tokens) {
  const Names& names = budget.state().names;
  call_method(budget.object(), names.charge, {Value::opaque(reply.object()), tokens});
  // What another charge does with a reply is its own affair: one that says nothing was not cached.
  PyObject* cached = nullptr;
  check(guarded([&] { return PyObject_GetOptionalAttr(reply.object(), names.cached, &cached); }));
  const bool hit = cached != nullptr && truth(Ref::steal(cached).get());
  return hit ? Counted::hit : Counted::paid;
}

Ref BudgetView::summary_of(BudgetView budget) {
  if (budget.own()) return make_summary(budget);
  return call_method(budget.object(), budget.state().names.summary_locked);
}

void BudgetView::raise_exhausted(BudgetView budget) {
  const Ref summary = budget.summary_locked();
  const Ref text = Ref::steal(guarded(
      [&] { return PyUnicode_FromFormat("decision budget exhausted: %S", summary.get()); }));
  raise_error(budget.state(), budget.state().names.exceeded_class, text.get());
}

void BudgetView::release_again(BudgetView budget, Value tokens) { budget.release(tokens); }

std::optional<Forecast> BudgetView::forecast_of(BudgetView budget) {
  const auto fast = FastBudget::of(budget.state(), budget.instance(), Value(0));
  return fast ? fast->forecast() : std::nullopt;
}

ClassSpec budget_class() {
  return {&State::budget, &TypeSlots<RunBudgetObject>::spec,
          kFields,        kFirstField<RunBudgetObject>,
          methods,        &kOperations};
}

Method& budget_give_back() { return give_back_method; }

}  // namespace decision_bounds::binding
