#include "decision_bounds/binding/interpreter/python.h"

namespace decision_bounds::binding {

struct Operation::Kept {
  Kept* below;
  PyObject* object;
};

PyObject* Operation::keep(Ref object) {
  thread_.kept = new Kept{thread_.kept, object.get()};
  return object.release();
}

void Operation::drop(Kept* down_to) {
  while (thread_.kept != down_to) {
    Kept* const top = thread_.kept;
    thread_.kept = top->below;
    PyObject* const object = top->object;
    delete top;
    decref(object);
  }
}

void Operation::refuse() {
  PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
  throw PythonError();
}

}  // namespace decision_bounds::binding
