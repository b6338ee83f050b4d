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

template <class Fields>
class ChargesFields : public Fields {
 public:
  using Fields::Fields;
  using typename Fields::Number;
  Number per_byte() const { return this->get(0); }
  Number per_call() const { return this->get(1); }
  void set_per_byte(Number value) const { this->set(0, value); }
  void set_per_call(Number value) const { this->set(1, value); }
};

using ChargesView = ChargesFields<View<ChargesObject>>;

/// An unpatched record of ours with unboxed numbers.
class UnboxedCharges : public ChargesFields<UnboxedFields> {
 public:
  using ChargesFields::ChargesFields;
  /// None, where the object is no such record, or one whose products may be too large.
  static UnboxedCharges of(State& state, PyObject* record) {
    auto& base = reinterpret_cast<ChargesObject*>(record)->base;
    if (!state.charges.owns(record, base.dict) || !fit(base.fields)) return {};
    const UnboxedCharges charges(base.fields);
    return charges.per_byte().whole() ? UnboxedCharges() : charges;
  }
};

/// A record as its owner uses it, borrowed for one step: native where it is ours and unpatched,
/// else through its methods.
class Record {
 public:
  Record(State& state, PyObject* record) : state_(state), record_(record) {}

  Value bound(Value size) const {
    const auto numbers = UnboxedCharges::of(state_, record_);
    if (numbers && size.unboxed()) [[likely]]
      return Value(charge_bound(numbers, size.number()));
    return bound_slowly(state_, record_, size);
  }
  void learn(Value size, Value charge) const {
    const auto numbers = UnboxedCharges::of(state_, record_);
    if (numbers && size.unboxed() && charge.unboxed()) [[likely]]
      return learn_charge(numbers, size.number(), charge.number());
    learn_slowly(state_, record_, size, charge);
  }

 private:
  static std::optional<ChargesView> own_view(State& state, PyObject* record) {
    if (Py_TYPE(record) != state.charges.type) return std::nullopt;
    auto& instance = *reinterpret_cast<ChargesObject*>(record);
    const ChargesView view(Receiver<ChargesObject>{state, instance});
    return view.own() ? std::optional(view) : std::nullopt;
  }
  [[gnu::cold, gnu::noinline]] static Value bound_slowly(State& state, PyObject* record,
                                                         Value size) {
    const Ref kept = Ref::borrow(record);
    if (const auto own = own_view(state, record)) return charge_bound(*own, size);
    return Value::of(call_method(record, state.names.bound, {size}));
  }
  [[gnu::cold, gnu::noinline]] static void learn_slowly(State& state, PyObject* record, Value size,
                                                        Value charge) {
    const Ref kept = Ref::borrow(record);
    if (const auto own = own_view(state, record)) return learn_charge(*own, size, charge);
    call_method(record, state.names.learn, {size, charge});
  }

  State& state_;
  PyObject* record_;
};

struct RequestRatesObject {
  static constexpr auto kClass = &State::rates;
  static constexpr const char* kName = "korvane.engines.decision_bounds.RequestRates";
  enum Index : std::size_t { kCost, kTokens, kFeatures, kCount };
  Instance<kCount> base;
  Monitor lock;       // guards the three fields; taken last, and no deeper than once
  PyObject* foreign;  // the lock in its place, where `threading` has others than the interpreter's

  bool construct() {
    new (&lock) Monitor;
    foreign = nullptr;
    Threading& threading = base.state->threading;
    try {
      if (!threading.native()) foreign = threading.make("Lock").release();
    } catch (const PythonError&) {
      return false;
    }
    return true;
  }
  int visit_more(visitproc visit, void* arg) {
    Py_VISIT(foreign);
    return 0;
  }
  void clear_more() { Py_CLEAR(foreign); }
  void destroy() { lock.~Monitor(); }
};

class RatesView : public View<RequestRatesObject> {
 public:
  using View::View;
  using Feature = PyObject*;

  Record cost() const { return Record(state(), borrow_object(RequestRatesObject::kCost)); }
  Record tokens() const { return Record(state(), borrow_object(RequestRatesObject::kTokens)); }
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
    if (PyObject* const foreign = instance().foreign) [[unlikely]]
      return locked_by(state(), foreign, body);
    Monitor& lock = instance().lock;
    if (lock.owned()) refuse_reentry();
    if (!lock.lock()) throw PythonError();
    const Unlocking unlocking{lock};
    return body();
  }

 private:
  struct Unlocking {
    Monitor& lock;
    ~Unlocking() { lock.unlock(); }
  };

  template <class Body>
  [[gnu::cold, gnu::noinline]] static auto locked_by(const State& state, PyObject* lock,
                                                     Body&& body) {
    return with_lock(state, Ref::borrow(lock), true, [&](Changed&) { return body(); });
  }
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
