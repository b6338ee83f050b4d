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

namespace {

// A function of Python's that does nothing: as its code begins to run, the interpreter delivers
// what is pending for the thread. Nothing else delivers asynchronous exceptions. One for each
// interpreter; null leaves an error pending.
PyObject* checkpoint() {
  constexpr const char* kKey = "korvane.engines.decision_bounds.checkpoint";
  PyObject* const kept = PyInterpreterState_GetDict(PyInterpreterState_Get());
  if (kept == nullptr) return PyErr_NoMemory();
  PyObject* function = nullptr;
  if (PyDict_GetItemStringRef(kept, kKey, &function) != 0) return function;
  const Ref globals = Ref::steal_or_null(PyDict_New());
  if (!globals) return nullptr;
  function = PyRun_String("lambda: None", Py_eval_input, globals.get(), globals.get());
  if (function != nullptr && PyDict_SetItemString(kept, kKey, function) < 0) Py_CLEAR(function);
  return function;
}

}  // namespace

bool Interpreter::interrupted() {
  return guarded([] {
    const Ref function = Ref::steal_or_null(checkpoint());
    return !function || !Ref::steal_or_null(PyObject_CallNoArgs(function.get()));
  });
}

}  // namespace decision_bounds::binding
