#include "decision_bounds/binding/held.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/interpreter/text.h"

namespace decision_bounds::binding {

namespace {

HeldView view(PyObject* self) { return HeldView(receiver_cast<HeldObject>(self)); }

}  // namespace

Ref stub::Held::admits(PyObject* const* arguments) {
  const bool admitted =
      decision_bounds::admits(view(arguments[0]), Value::borrowed(arguments[1]),
                              Value::borrowed(arguments[2]), Value::borrowed(arguments[3]));
  return Ref::borrow(admitted ? Py_True : Py_False);
}

Ref stub::Held::take(PyObject* const* arguments) {
  decision_bounds::take(view(arguments[0]), Value::borrowed(arguments[1]));
  return none();
}

Ref stub::Held::give_back(PyObject* const* arguments) {
  decision_bounds::give_back(view(arguments[0]), Value::borrowed(arguments[1]));
  return none();
}

Ref stub::Held::repr(PyObject* const* arguments) { return binding::repr<HeldObject>(arguments); }

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
  if (const auto own = own_view(state, tally)) return decision_bounds::take(HeldView(*own), share);
  call_method(tally, state.names.take, {share});
}

void Tally::give_back_slowly(State& state, PyObject* tally, Value share) {
  const Ref kept = Ref::borrow(tally);
  if (const auto own = own_view(state, tally))
    return decision_bounds::give_back(HeldView(*own), share);
  call_method(tally, state.names.give_back, {share});
}

ClassSpec held_class() { return class_spec<HeldObject>(); }

}  // namespace decision_bounds::binding
