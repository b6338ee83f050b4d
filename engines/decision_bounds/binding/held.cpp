#include "decision_bounds/binding/held.h"

#include "decision_bounds/binding/classes.h"

namespace decision_bounds::binding {

namespace {

HeldView view(PyObject* self) { return HeldView(Self<HeldObject>::of(self)); }

Ref admits(PyObject* const* arguments) {
  return Ref::borrow(decision_bounds::admits(view(arguments[0]), Value::of(arguments[1]),
                                             Value::of(arguments[2]), Value::of(arguments[3]))
                         ? Py_True
                         : Py_False);
}

Ref take(PyObject* const* arguments) {
  decision_bounds::take(view(arguments[0]), Value::of(arguments[1]));
  return Ref::borrow(Py_None);
}

Ref give_back(PyObject* const* arguments) {
  decision_bounds::give_back(view(arguments[0]), Value::of(arguments[1]));
  return Ref::borrow(Py_None);
}

constexpr const char* kFields[] = {"holders", "amount", "unbounded"};
Method methods[] = {method<admits, 4>("admits"), method<take, 2>("take"),
                    method<give_back, 2>("give_back")};

}  // namespace

ClassSpec held_class() {
  return {&State::held, &TypeSlots<HeldObject>::spec, kFields, offsetof(HeldObject, base.fields),
          methods};
}

}  // namespace decision_bounds::binding
