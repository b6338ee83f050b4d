#include "decision_bounds/binding/interpreter/python.h"

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

void CallScope::refuse() {
  PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
  throw PythonError();
}

bool Interpreter::interrupted() {
  return guarded([] {
    if (watches_interrupts() && PyErr_CheckSignals() < 0) return true;
    // Only code of Python's that begins to run delivers an asynchronous exception.
    if (std::atomic_ref(PyThreadState_Get()->async_exc).load() == nullptr) [[likely]]
      return false;
    const Ref nothing = Ref::steal_or_null(Py_CompileString("None", "<interrupt>", Py_eval_input));
    const Ref globals = Ref::steal_or_null(PyDict_New());
    if (!nothing || !globals) return true;
    return !Ref::steal_or_null(PyEval_EvalCode(nothing.get(), globals.get(), globals.get()));
  });
}

}  // namespace decision_bounds::binding
