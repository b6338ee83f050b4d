#include "decision_bounds/binding/interpreter/call_scope.h"

namespace decision_bounds::binding {

struct CallScope::Kept {
  Kept* below;
  PyObject* object;
};

PyObject* CallScope::keep(Ref object) {
  Kept*& top = running_scope->kept_;
  top = new Kept{top, object.get()};
  return object.release();
}

void CallScope::drop(Kept* down_to) {
  while (kept_ != down_to) {
    Kept* const top = kept_;
    kept_ = top->below;
    PyObject* const object = top->object;
    delete top;
    decref(object);
  }
}

void CallScope::charge() {
  PyThreadState* const thread = PyThreadState_Get();
  if (thread->c_recursion_remaining <= kWeight) {
    PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
    throw PythonError();
  }
  thread->c_recursion_remaining -= kWeight;
  charged_ = thread;
}

}  // namespace decision_bounds::binding
