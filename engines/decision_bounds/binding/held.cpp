#include "decision_bounds/binding/held.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/interpreter/text.h"

namespace decision_bounds::binding {

namespace {

HeldView view(PyObject* self) { return HeldView(receiver_cast<HeldObject>(self)); }

Ref admits(PyObject* const* arguments) {
  return Ref::borrow(decision_bounds::admits(view(arguments[0]), Value::borrowed(arguments[1]),
                                             Value::borrowed(arguments[2]),
                                             Value::borrowed(arguments[3]))
                         ? Py_True
                         : Py_False);
}

Ref take(PyObject* const* arguments) {
  decision_bounds::take(view(arguments[0]), Value::borrowed(arguments[1]));
  return none();
}

Ref give_back(PyObject* const* arguments) {
  decision_bounds::give_back(view(arguments[0]), Value::borrowed(arguments[1]));
  return none();
}

constexpr const char* kFields[] = {"holders", "amount", "unbounded"};
Method methods[] = {method<admits, 4>("admits"), method<take, 2>("take"),
                    method<give_back, 2>("give_back"), method<repr<HeldObject, 3>, 1>("__repr__")};

}  // namespace

std::optional<HeldView> Tally::own_view(State& state, PyObject* tally) {
  if (Py_TYPE(tally) != state.held.type) return std::nullopt;
  const HeldView view(Receiver<HeldObject>{state, *reinterpret_cast<HeldObject*>(tally)});
  return view.own() ? std::optional(view) : std::nullopt;
}

bool Tally::admits_slowly(State& state, PyObject* tally, Value share, Value used, Value limit) {
  const Ref kept = Ref::borrow(tally);
  if (const auto own = own_view(state, tally)) {
    return decision_bounds::admits(*own, share, used, limit);
  }
  return truth(call_method(tally, state.names.admits, {share, used, limit}).get());
}

void Tally::take_slowly(State& state, PyObject* tally, Value share) {
  const Ref kept = Ref::borrow(tally);
  if (const auto own = own_view(state, tally)) return decision_bounds::take(*own, share);
  call_method(tally, state.names.take, {share});
}

void Tally::give_back_slowly(State& state, PyObject* tally, Value share) {
  const Ref kept = Ref::borrow(tally);
  if (const auto own = own_view(state, tally)) return decision_bounds::give_back(*own, share);
  call_method(tally, state.names.give_back, {share});
}

ClassSpec held_class() {
  return {&State::held, &TypeSlots<HeldObject>::spec, kFields, kFirstField<HeldObject>, methods};
}

}  // namespace decision_bounds::binding
