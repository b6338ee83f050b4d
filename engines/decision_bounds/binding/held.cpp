#include "decision_bounds/binding/held.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/repr.h"

namespace decision_bounds::binding {

namespace {

HeldView view(PyObject* self) { return HeldView(receiver_cast<HeldObject>(self)); }

}  // namespace

Ref stub::Held::admits(PyObject* const* arguments) {
  const bool admitted =
      decision_bounds::admits(view(arguments[0]), Value::borrowed(arguments[1]),
                              Value::borrowed(arguments[2]), Value::borrowed(arguments[3]));
  return Ref::retain(admitted ? Py_True : Py_False);
}

Ref stub::Held::take(PyObject* const* arguments) {
  decision_bounds::take(view(arguments[0]), Value::borrowed(arguments[1]));
  return none();
}

Ref stub::Held::give_back(PyObject* const* arguments) {
  decision_bounds::give_back(view(arguments[0]), Value::borrowed(arguments[1]));
  return none();
}

Ref stub::Held::repr(PyObject* const* arguments) { return repr_of<HeldObject>(arguments); }

ClassSpec held_class() { return class_spec<HeldObject>(); }

}  // namespace decision_bounds::binding
