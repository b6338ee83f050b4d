// The learned rates: the record of charges and the object that keeps two of them.

#include "decision_bounds/request_rates.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/lock.h"
#include "decision_bounds/binding/reply.h"
#include "decision_bounds/binding/repr.h"
#include "stub.h"

namespace decision_bounds::binding {

namespace {

using ChargesObject = PlainObject<stub::Charges, &State::charges>;

/// A record, or whatever object its owner has in its place.
class ChargesView : public stub::Charges::Numbers<View<ChargesObject>> {
 public:
  explicit ChargesView(ChargesObject& self) : Numbers(self) {}
  /// An owner's, for as long as this lasts.
  ChargesView(State& state, Ref record)
      : Numbers(state.charges, record.get()), record_(std::move(record)) {}

  Value bound(Value size) {
    return call(Operation::bound, [&] { return charge_bound(*this, size); }, size);
  }
  void learn(Value size, Value charge) {
    call(Operation::learn, [&] { learn_charge(*this, size, charge); }, size, charge);
  }

 private:
  Ref record_;
};

struct RequestRatesObject : PlainObject<stub::RequestRates, &State::rates> {
  PyObject* lock;  // guards the three fields; taken last, and no deeper than once

  bool construct() {
    lock = nullptr;
    State& state = *base.head.made->state;
    return completes([&] {
      const bool native = state.threading.native();
      lock = (native ? call(state.condition_type.get()) : state.threading.make("Lock")).release();
    });
  }
  int visit_more(visitproc visit, void* arg) {
    Py_VISIT(lock);
    return 0;
  }
  void destroy() { Py_CLEAR(lock); }
};

class RatesView : public View<RequestRatesObject> {
 public:
  using View::View;
  using Feature = PyObject*;

  ChargesView cost() const { return {state(), get_object(Field::cost)}; }
  ChargesView tokens() const { return {state(), get_object(Field::tokens)}; }
  Value unknown() const { return Value(Py_HUGE_VAL); }

  bool knows(PyObject* feature) const {
    const Ref features = get_object(Field::features);
    const int found = guarded([&] { return PySequence_Contains(features.get(), feature); });
    check(found);
    return found != 0;
  }
  bool knows_any() const {
    const Ref features = get_object(Field::features);
    if (PySet_CheckExact(features.get())) [[likely]]
      return PySet_GET_SIZE(features.get()) != 0;
    return truth(features.get());
  }
  void add(PyObject* feature) const {
    const Ref features = get_object(Field::features);
    if (PySet_CheckExact(features.get())) {
      check(guarded([&] { return PySet_Add(features.get(), feature); }));
    } else {
      call_method(features.get(), state().names.add, {Value::opaque(feature)});
    }
  }

  /// The mutex is plain: whoever comes back for it would hang, and is told.
  template <class Body>
  auto locked(Body&& body) const {
    const Ref lock = Ref::retain(instance().lock);
    const Monitor* const monitor = native_monitor(state(), lock.get());
    if (monitor != nullptr && monitor->owned()) refuse_reentry();
    return with_lock(state(), lock, true, [&](Lock&) { return body(); });
  }

 private:
  [[noreturn]] static void refuse_reentry() {
    PyErr_SetString(
        PyExc_RuntimeError,
        "RequestRates was called again from inside its own learn(), cost() or tokens()");
    throw PythonError();
  }
};

ChargesView charges(PyObject* self) { return ChargesView(receiver_cast<ChargesObject>(self)); }
RatesView rates(PyObject* self) { return RatesView(receiver_cast<RequestRatesObject>(self)); }

}  // namespace

Ref stub::Charges::bound(PyObject* const* arguments) {
  return charge_bound(charges(arguments[0]), Value::borrowed(arguments[1])).boxed();
}

Ref stub::Charges::learn(PyObject* const* arguments) {
  ChargesView self = charges(arguments[0]);
  learn_charge(self, Value::borrowed(arguments[1]), Value::borrowed(arguments[2]));
  return none();
}

Ref stub::Charges::repr(PyObject* const* arguments) { return repr_of<ChargesObject>(arguments); }

Ref stub::RequestRates::init(PyObject* const* arguments) {
  const State& state = *receiver_cast<RequestRatesObject>(arguments[0]).base.head.made->state;
  const auto charges = [&] { return call(state.global(state.names.charges_class).get()); };
  set_fields<RequestRatesObject>(arguments[0],
                                 {charges(), charges(), Ref::steal(PySet_New(nullptr))});
  return none();
}

Ref stub::RequestRates::cost(PyObject* const* arguments) {
  RatesView self = rates(arguments[0]);
  return request_cost(self, Value::borrowed(arguments[1]), arguments[2]).boxed();
}

Ref stub::RequestRates::tokens(PyObject* const* arguments) {
  RatesView self = rates(arguments[0]);
  return request_tokens(self, Value::borrowed(arguments[1])).boxed();
}

Ref stub::RequestRates::learn(PyObject* const* arguments) {
  RatesView self = rates(arguments[0]);
  const Reply reply(self.state(), arguments[3]);
  const Value size = Value::borrowed(arguments[1]);
  return decision_bounds::learn(self, size, arguments[2], reply) ? none() : Ref();
}

ClassSpec charges_class() { return class_spec<ChargesObject>(); }

ClassSpec rates_class() { return class_spec<RequestRatesObject>(); }

}  // namespace decision_bounds::binding
