#include "decision_bounds/binding/daily_spend.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/interpreter/text.h"
#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

static_assert(AccountHost<SpendView>);

namespace {

SpendView view(PyObject* self) { return SpendView(receiver_cast<DailySpendObject>(self)); }

Ref text(const char* utf8) { return Ref::steal(PyUnicode_FromString(utf8)); }

/// `logger.warning(...)` of the module's logger as it is now.
void log(const State& state, std::initializer_list<PyObject*> arguments, bool with_traceback) {
  const Ref logger = state.global(state.names.logger);
  const Ref warning = attribute(logger.get(), state.names.warning);
  const Ref positional = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(arguments.size())));
  Py_ssize_t index = 0;
  for (PyObject* argument : arguments) {
    PyTuple_SET_ITEM(positional.get(), index++, Py_NewRef(argument));
  }
  Ref keywords;
  if (with_traceback) {
    keywords = Ref::steal(PyDict_New());
    check(PyDict_SetItem(keywords.get(), state.names.exc_info, Py_True));
  }
  Ref::steal(
      guarded([&] { return PyObject_Call(warning.get(), positional.get(), keywords.get()); }));
}

/// Runs `steps` as an `except` block does: sys.exc_info() is the error that was pending.
template <class Steps>
void handling(Steps&& steps) {
  const Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  const Ref outer = Ref::steal_or_null(PyErr_GetHandledException());
  PyErr_SetHandledException(error.get());
  const KeptError kept = KeptError::attempt([&] { return steps(), true; });
  PyErr_SetHandledException(outer.get());
  if (kept.failed()) kept.rethrow();
}

Ref initialise(PyObject* const* arguments) {
  const Receiver<DailySpendObject> self = receiver_cast<DailySpendObject>(arguments[0]);
  State& state = self.state;
  const Ref changed = make_condition(state, state.threading.get("Condition").get());
  const Ref held = call(state.global(state.names.held_class).get());
  const Ref day = text("");
  const Ref cost = Ref::steal(PyFloat_FromDouble(0.0));
  PyObject* const values[DailySpendObject::kCount] = {arguments[1],  arguments[2], arguments[3],
                                                      changed.get(), held.get(),   day.get(),
                                                      cost.get(),    Py_False};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    PyObject* const name = state.spend.fields[i].get();
    check(guarded([&] { return PyObject_SetAttr(arguments[0], name, values[i]); }));
  }
  return none();
}

Ref spent(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return decision_bounds::spent(self).boxed();
}

Ref admit(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  Admission<Ref> admission = decision_bounds::admit(self, AdmissionCall(arguments));
  if (admission.outcome != Outcome::admitted) raise_for(self.state(), admission.outcome);
  return std::move(admission.share);
}

Ref charge(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return charge_today(self, Reply(self.state(), arguments[1])) ? none() : Ref();
}

Ref give_back(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  const Reply reply(self.state(), arguments[2]);
  return give_back_held(self, Value::borrowed(arguments[1]), reply) ? none() : Ref();
}

Ref today_locked(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return decision_bounds::today_locked(self).boxed();
}

Ref spent_since(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return decision_bounds::spent_since(self, Ref::borrow(arguments[1])).boxed();
}

constexpr const char* kFields[] = {"_cap",  "_today", "_ledger", "_changed",
                                   "_held", "_day",   "_cost",   "_capped"};

Method methods[] = {
    method<initialise, 4>("__init__"),      method<spent, 1>("spent"),
    method<admit, 5, 2>("admit"),           method<charge, 2>("charge"),
    method<give_back, 3>("_give_back"),     method<today_locked, 1>("_today_locked"),
    method<spent_since, 2>("_spent_since"),
};

/// Settles a share of `account` that holds `held`. Its give-back is the method as it was when the
/// call was admitted: the class's own, or there would be a partial application.
[[gnu::flatten]] bool settle_share(State& state, PyObject* account, Value held, PyObject* reply) {
  SpendView self({state, *reinterpret_cast<DailySpendObject*>(account)});
  self.settle_share();
  return give_back_held(self, held, Reply(state, reply));
}

/// The partial application that an account's share shows as its give-back.
Ref make_give_back(State& state, PyObject* account, Value held) {
  const Ref method = attribute(account, state.names.give_back_private);
  const Ref boxed = held.boxed();
  PyObject* const arguments[] = {nullptr, method.get(), boxed.get()};
  return call(state.partial.get(), arguments + 1, 2);
}

constexpr BoundOperations kOperations = {settle_share, make_give_back};

}  // namespace

bool SpendView::differ(const Ref& day, const Ref& other) {
  if (PyUnicode_CheckExact(day.get()) && PyUnicode_CheckExact(other.get())) {
    return PyUnicode_Compare(day.get(), other.get()) != 0;
  }
  const auto compare = [&] { return PyObject_RichCompare(day.get(), other.get(), Py_NE); };
  return truth(Ref::steal(guarded(compare)).get());
}

std::optional<Value> SpendView::ask_ledger(SpendView account, PyObject* day) {
  try {
    const Ref ledger = account.get_object(DailySpendObject::kLedger);
    const Ref figure = call(ledger.get(), day);
    return Value::of(Ref::steal(guarded([&] { return PyNumber_Float(figure.get()); })));
  } catch (const PythonError&) {
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0) throw;
  }
  add_to_traceback(
      PyDict_GetItem(account.state().spend.attributes.get(), account.state().names.spent_since),
      account.object());
  handling([&] {
    const Ref format =
        text("Could not read what the decision calls of %s cost; the daily cap counts from 0");
    log(account.state(), {format.get(), day}, true);
  });
  return std::nullopt;
}

bool SpendView::try_take_slowly(SpendView account, Value held, Value cost) {
  return decision_bounds::try_take(account, held, cost);
}

bool SpendView::first_refusal() const {
  const bool first = !truth(get_object(DailySpendObject::kCapped).get());
  set_object(DailySpendObject::kCapped, Ref::borrow(Py_True));
  return first;
}

void SpendView::warn_of_cap(SpendView account, Value cost) {
  const Ref format = text(
      "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
      "tomorrow, cached answers are still used");
  const Ref spent = cost.boxed();
  log(account.state(), {format.get(), spent.get(), account.cap().boxed().get()}, false);
}

void SpendView::raise_at_cap(SpendView account, Value cost) {
  std::string text = "the daily decision cost cap is reached: $";
  append_fixed(text, cost, 4);
  text += " of $";
  append_fixed(text, account.cap(), 2);
  text += " spent today (UTC)";
  raise_error(account.state(), account.state().names.exceeded_class, decoded(text).get());
}

std::optional<Outcome> SpendView::wait_in(SpendView account, Changed::Place& place, Call asked) {
  const State& state = account.state();
  if (const Ref replaced = replaced_wait(state)) {
    const Ref changed = account.get_object(DailySpendObject::kChanged);
    const Ref keywords = Ref::steal(PyTuple_Pack(2, state.names.deadline, state.names.clock));
    PyObject* const arguments[] = {changed.get(), asked.stopping(), asked.deadline(),
                                   asked.clock()};
    Ref::steal(
        guarded([&] { return PyObject_Vectorcall(replaced.get(), arguments, 2, keywords.get()); }));
    return std::nullopt;
  }
  const auto stopping = [&] { return truth(binding::call(asked.stopping()).get()); };
  return wait_step(state, place, stopping, asked.deadline(), asked.clock());
}

ClassSpec spend_class() {
  return {&State::spend, &TypeSlots<DailySpendObject>::spec,
          kFields,       kFirstField<DailySpendObject>,
          methods,       &kOperations};
}

}  // namespace decision_bounds::binding
