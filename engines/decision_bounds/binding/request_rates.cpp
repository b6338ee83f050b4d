// The learned rates: the record of charges and the object that keeps two of them.

#include "decision_bounds/request_rates.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/interpreter/text.h"
#include "decision_bounds/binding/lock.h"
#include "decision_bounds/binding/reply.h"

namespace decision_bounds::binding {

namespace {

struct ChargesObject : NothingMore {
  static constexpr auto kClass = &State::charges;
  static constexpr const char* kName = "korvane.engines.decision_bounds._Charges";
  Instance<2> base;
};

class ChargesView : public View<ChargesObject> {
 public:
  using View::View;
  Value per_byte() const { return get(0); }
  Value per_call() const { return get(1); }
  void set_per_byte(Value value) const { set(0, value); }
  void set_per_call(Value value) const { set(1, value); }
};

/// A record as its owner uses it: native where it is ours and unpatched, else through its methods.
class Record {
 public:
  Record(State& state, Ref record) : state_(state), object_(std::move(record)) {}

  Value bound(Value size) const {
    if (is_ours()) [[likely]] {
      if (ChargesView own = view(); own.own()) [[likely]]
        return charge_bound(own, size);
    }
    return Value::of(call_method(object_.get(), state_.names.bound, {size}));
  }
  void learn(Value size, Value charge) const {
    if (is_ours()) [[likely]] {
      if (ChargesView own = view(); own.own()) [[likely]]
        return learn_charge(own, size, charge);
    }
    call_method(object_.get(), state_.names.learn, {size, charge});
  }

 private:
  bool is_ours() const { return Py_TYPE(object_.get()) == state_.charges.type; }
  ChargesView view() const {
    auto& instance = *reinterpret_cast<ChargesObject*>(object_.get());
    return ChargesView(Receiver<ChargesObject>{state_, instance});
  }

  State& state_;
  Ref object_;
};

struct RequestRatesObject {
  static constexpr auto kClass = &State::rates;
  static constexpr const char* kName = "korvane.engines.decision_bounds.RequestRates";
  enum Index : std::size_t { kCost, kTokens, kFeatures, kCount };
  Instance<kCount> base;
  Monitor lock;  // guards the three fields; taken last, and no deeper than once

  void construct() { new (&lock) Monitor; }
  int visit_more(visitproc, void*) { return 0; }
  void clear_more() {}
  void destroy() { lock.~Monitor(); }
};

class RatesView : public View<RequestRatesObject> {
 public:
  using View::View;
  using Feature = PyObject*;

  Record cost() const { return Record(state(), get_object(RequestRatesObject::kCost)); }
  Record tokens() const { return Record(state(), get_object(RequestRatesObject::kTokens)); }
  Value unknown() const { return Value(Py_HUGE_VAL); }

  bool knows(PyObject* feature) const {
    const Ref features = get_object(RequestRatesObject::kFeatures);
    const int found = guarded([&] { return PySequence_Contains(features.get(), feature); });
    check(found);
    return found != 0;
  }
  bool knows_any() const {
    const Ref features = get_object(RequestRatesObject::kFeatures);
    if (PySet_CheckExact(features.get())) [[likely]]
      return PySet_GET_SIZE(features.get()) != 0;
    return truth(features.get());
  }
  void add(PyObject* feature) const {
    const Ref features = get_object(RequestRatesObject::kFeatures);
    if (PySet_CheckExact(features.get())) {
      check(guarded([&] { return PySet_Add(features.get(), feature); }));
    } else {
      call_method(features.get(), state().names.add, {Value::opaque(feature)});
    }
  }

  /// The mutex is plain: whoever comes back for it would hang, and is told.
  template <class Body>
  auto locked(Body&& body) const {
    Monitor& lock = instance().lock;
    if (lock.owned()) refuse_reentry();
    return with_condition(NativeCondition(lock, true), [&](auto&) { return body(); });
  }

 private:
  [[noreturn]] static void refuse_reentry() {
    PyErr_SetString(
        PyExc_RuntimeError,
        "RequestRates was called again from inside its own learn(), cost() or tokens()");
    throw PythonError();
  }
};

static_assert(ChargesHost<ChargesView> && RatesHost<RatesView>);

ChargesView charges(PyObject* self) { return ChargesView(receiver_cast<ChargesObject>(self)); }
RatesView rates(PyObject* self) { return RatesView(receiver_cast<RequestRatesObject>(self)); }

Ref charges_bound(PyObject* const* arguments) {
  return charge_bound(charges(arguments[0]), Value::borrowed(arguments[1])).boxed();
}

Ref charges_learn(PyObject* const* arguments) {
  ChargesView self = charges(arguments[0]);
  learn_charge(self, Value::borrowed(arguments[1]), Value::borrowed(arguments[2]));
  return none();
}

Ref initialise(PyObject* const* arguments) {
  const State& state = receiver_cast<RequestRatesObject>(arguments[0]).state;
  for (std::size_t i = 0; i < RequestRatesObject::kCount; ++i) {
    const Ref value = i == RequestRatesObject::kFeatures
                          ? Ref::steal(PySet_New(nullptr))
                          : call(state.global(state.names.charges_class).get());
    PyObject* const name = state.rates.fields[i].get();
    check(guarded([&] { return PyObject_SetAttr(arguments[0], name, value.get()); }));
  }
  return none();
}

Ref cost(PyObject* const* arguments) {
  RatesView self = rates(arguments[0]);
  return request_cost(self, Value::borrowed(arguments[1]), arguments[2]).boxed();
}

Ref tokens(PyObject* const* arguments) {
  RatesView self = rates(arguments[0]);
  return request_tokens(self, Value::borrowed(arguments[1])).boxed();
}

Ref learn(PyObject* const* arguments) {
  RatesView self = rates(arguments[0]);
  const Reply reply(self.state(), arguments[3]);
  const Value size = Value::borrowed(arguments[1]);
  return decision_bounds::learn(self, size, arguments[2], reply) ? none() : Ref();
}

constexpr const char* kChargesFields[] = {"per_byte", "per_call"};
constexpr const char* kRatesFields[] = {"_cost", "_tokens", "_features"};

Method charges_methods[] = {method<charges_bound, 2>("bound"), method<charges_learn, 3>("learn"),
                            method<repr<ChargesObject, 2>, 1>("__repr__")};
Method rates_methods[] = {method<initialise, 1>("__init__"), method<cost, 3>("cost"),
                          method<tokens, 2>("tokens"), method<learn, 4>("learn")};

}  // namespace

ClassSpec charges_class() {
  return {&State::charges, &TypeSlots<ChargesObject>::spec, kChargesFields,
          kFirstField<ChargesObject>, charges_methods};
}

ClassSpec rates_class() {
  return {&State::rates, &TypeSlots<RequestRatesObject>::spec, kRatesFields,
          kFirstField<RequestRatesObject>, rates_methods};
}

}  // namespace decision_bounds::binding
