#include "decision_bounds/binding/python.h"

namespace decision_bounds::binding {

void Deeper::refuse() {
  PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
  throw PythonError();
}

bool Interpreter::watches_interrupts() {
  // Signals are delivered to the main thread; where that cannot be told, look on any thread.
  const Ref threading = Ref::maybe(PyImport_ImportModule("threading"));
  const Ref main = Ref::maybe(
      threading ? PyObject_CallMethod(threading.get(), "main_thread", nullptr) : nullptr);
  const Ref ident = Ref::maybe(main ? PyObject_GetAttrString(main.get(), "ident") : nullptr);
  if (!ident) {
    PyErr_Clear();
    return true;
  }
  const unsigned long id = PyLong_AsUnsignedLong(ident.get());
  if (PyErr_Occurred() != nullptr) PyErr_Clear();
  return id == PyThread_get_thread_ident();
}

}  // namespace decision_bounds::binding
