#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

void raise_error(const State& state, PyObject* class_name, PyObject* text) {
  const Ref error_class = state.global(class_name);
  const Ref error = call(error_class.get(), text);
  if (!PyExceptionInstance_Check(error.get())) {
    PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    throw PythonError();
  }
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
}

void raise_for(const State& state, Outcome outcome) {
  if (PyErr_Occurred() != nullptr) return;
  const Names& names = state.names;
  switch (outcome) {
    case Outcome::stopped:
      return raise_error(state, names.stopped_class, names.stopped_text);
    case Outcome::timed_out:
      return raise_error(state, names.timeout_class, names.timeout_text);
    case Outcome::admitted:
    case Outcome::refused:  // whose text is made where it is refused
      break;
  }
}

Ref replaced_wait(const State& state) {
  Ref wait = state.global(state.names.wait_private);
  return wait.get() == state.wait.get() ? Ref() : std::move(wait);
}

}  // namespace decision_bounds::binding
