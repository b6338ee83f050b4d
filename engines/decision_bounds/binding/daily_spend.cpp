#include "decision_bounds/binding/daily_spend.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/interpreter/text.h"
#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

namespace {

SpendView view(PyObject* self) { return SpendView(receiver_cast<DailySpendObject>(self)); }

Ref text(const char* utf8) { return Ref::steal(PyUnicode_FromString(utf8)); }

/// `logger.warning(...)` of the module's logger as it is now.
template <std::size_t kCount>
void log(const State& state, PyObject* const (&arguments)[kCount], PyObject* keywords) {
  const Ref logger = state.global(state.names.logger);
  const Ref warning = attribute(logger.get(), state.names.warning);
  const std::size_t positional = keywords == nullptr ? kCount : kCount - 1;
  Ref::steal(
      guarded([&] { return PyObject_Vectorcall(warning.get(), arguments, positional, keywords); }));
}

/// Runs `steps` as an `except` block does: sys.exc_info() is the error that was pending.
template <class Steps>
void handling(Steps&& steps) {
  const Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  const Ref outer = Ref::steal_or_null(PyErr_GetHandledException());
  PyErr_SetHandledException(error.get());
  const auto handled = [&] { PyErr_SetHandledException(outer.get()); };
  attempt([&] { return steps(), true; }, handled);
  handled();
}

/// Settles a share of `account` that holds `held`. Its give-back is the method as it was when the
/// call was admitted: the class's own, or there would be a partial application.
[[gnu::flatten]] bool settle_share(PyObject* account, Value held, PyObject* reply) {
  SpendView self(*reinterpret_cast<DailySpendObject*>(account));
  self.never_interrupt();
  return give_back_held(self, held, Reply(self.state(), reply));
}

/// The partial application that an account's share shows as its give-back.
Ref make_give_back(PyObject* account, Value held) {
  const SpendView self(*reinterpret_cast<DailySpendObject*>(account));
  const Ref method = attribute(account, self.name(SpendView::Operation::give_back));
  const Ref boxed = held.boxed();
  PyObject* const arguments[] = {nullptr, method.get(), boxed.get()};
  return call(self.state().partial.get(), arguments + 1, 2);
}

constexpr BoundInterface kInterface = {settle_share, make_give_back};

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
    const Ref ledger = account.get_object(Field::ledger);
    const Ref figure = binding::call(ledger.get(), day);
    return Value::of(Ref::steal(guarded([&] { return PyNumber_Float(figure.get()); })));
  } catch (const PythonError&) {
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0) throw;
  }
  PyObject* const made = account.state().spend.attributes.get();
  add_to_traceback(PyDict_GetItem(made, account.name(Operation::spent_since)), account.object());
  handling([&] {
    const Ref format =
        text("Could not read what the decision calls of %s cost; the daily cap counts from 0");
    const Ref keywords = Ref::steal(PyTuple_Pack(1, account.state().names.exc_info));
    log(account.state(), {format.get(), day, Py_True}, keywords.get());
  });
  return std::nullopt;
}

bool SpendView::first_refusal() const {
  const bool first = !truth(get_object(Field::capped).get());
  set_object(Field::capped, Ref::retain(Py_True));
  return first;
}

void SpendView::warn_of_cap(SpendView account, Value cost) {
  const Ref format = text(
      "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
      "tomorrow, cached answers are still used");
  const Ref spent = cost.boxed();
  const Ref cap = account.cap().boxed();
  log(account.state(), {format.get(), spent.get(), cap.get()}, nullptr);
}

void SpendView::raise_at_cap(SpendView account, Value cost) {
  const State& state = account.state();
  Text text;
  text.append("the daily decision cost cap is reached: $");
  text.append_fixed(cost, 4);
  text.append(" of $");
  text.append_fixed(account.cap(), 2);
  text.append(" spent today (UTC)");
  state.set_error(state.names.exceeded_class, text.finish().get());
}

std::optional<Outcome> SpendView::wait_in(SpendView account, Lock& changed, Call asked) {
  const State& state = account.state();
  if (const Ref replaced = replaced_wait(state)) {
    const Ref condition = account.get_object(Field::changed);
    const Ref keywords = Ref::steal(PyTuple_Pack(2, state.names.deadline, state.names.clock));
    PyObject* const arguments[] = {condition.get(), asked.stopping, asked.deadline, asked.clock};
    Ref::steal(
        guarded([&] { return PyObject_Vectorcall(replaced.get(), arguments, 2, keywords.get()); }));
    return std::nullopt;
  }
  const auto stopping = [&] { return truth(binding::call(asked.stopping).get()); };
  Waiting waiting(state, stopping, asked.deadline, asked.clock);
  return decision_bounds::wait(waiting, changed);
}

Ref stub::DailySpend::init(PyObject* const* arguments) {
  State& state = *receiver_cast<DailySpendObject>(arguments[0]).base.head.made->state;
  set_fields<DailySpendObject>(
      arguments[0],
      {Ref::retain(arguments[1]), Ref::retain(arguments[2]), Ref::retain(arguments[3]),
       make_condition(state, state.threading.get("Condition").get()),
       call(state.global(state.names.held_class).get()), text(""),
       Ref::steal(PyFloat_FromDouble(0.0)), Ref::retain(Py_False)});
  return none();
}

Ref stub::DailySpend::spent(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return decision_bounds::spent(self).boxed();
}

Ref stub::DailySpend::admit(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  const AdmitArguments asked{arguments[1], arguments[2], arguments[3], arguments[4]};
  return decision_bounds::admit(self, asked).share;
}

Ref stub::DailySpend::charge(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return charge_today(self, Reply(self.state(), arguments[1])) ? none() : Ref();
}

Ref stub::DailySpend::give_back(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  const Reply reply(self.state(), arguments[2]);
  return give_back_held(self, Value::borrowed(arguments[1]), reply) ? none() : Ref();
}

Ref stub::DailySpend::today_locked(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return decision_bounds::today_locked(self).boxed();
}

Ref stub::DailySpend::spent_since(PyObject* const* arguments) {
  SpendView self = view(arguments[0]);
  return decision_bounds::spent_since(self, Ref::retain(arguments[1])).boxed();
}

ClassSpec spend_class() { return class_spec<DailySpendObject>(&kInterface); }

}  // namespace decision_bounds::binding
