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
  const Ref code = Ref::steal_or_null(Py_CompileString("lambda: None", "", Py_eval_input));
  if (!code) return nullptr;
  // PyRun_String would note an interrupt that comes here as one that ended the program.
  function = PyEval_EvalCode(code.get(), globals.get(), globals.get());
  if (function != nullptr && PyDict_SetItemString(kept, kKey, function) < 0) Py_CLEAR(function);
  return function;
}

}  // namespace

bool Interpreter::interrupted() {
  return guarded([] {
    // In a child that another thread than the main one forked, code that runs sees no signal.
    if (PyErr_CheckSignals() < 0) return true;
    const Ref function = Ref::steal_or_null(checkpoint());
    return !function || !Ref::steal_or_null(PyObject_CallNoArgs(function.get()));
  });
}

}  // namespace decision_bounds::binding
