#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

void set_error(const State& state, PyObject* class_name, PyObject* text) {
  const Ref error_class = state.global(class_name);
  const Ref error = call(error_class.get(), text);
  if (!PyExceptionInstance_Check(error.get())) {
    PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    throw PythonError();
  }
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
}

Ref replaced_wait(const State& state) {
  Ref wait = state.global(state.names.wait_private);
  return wait.get() == state.wait.get() ? Ref() : std::move(wait);
}

}  // namespace decision_bounds::binding
