#include "decision_bounds/binding/interpreter/translate.h"

#include <new>

#include "decision_bounds/errors.h"

namespace decision_bounds::binding {

namespace {

void raise(PyObject* globals, const char* name, const char* message) {
  try {
    const Ref key = Ref::steal(PyUnicode_FromString(name));
    PyObject* found = nullptr;
    check(PyDict_GetItemRef(globals, key.get(), &found));
    if (found == nullptr) {
      PyErr_Format(PyExc_NameError, "name '%s' is not defined", name);
      return;
    }
    const Ref type = Ref::steal(found);
    const Ref text = Ref::steal(PyUnicode_FromString(message));
    const Ref error = call(type.get(), text.get());
    if (!PyExceptionInstance_Check(error.get())) {
      PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
      return;
    }
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
  } catch (const PythonError&) {
    // The error that came up on the way is the one that is seen.
  }
}

}  // namespace

void raise_for(const std::exception& error, PyObject* globals) {
  if (dynamic_cast<const BudgetExceeded*>(&error) != nullptr) {
    raise(globals, "DecisionBudgetExceeded", error.what());
  } else if (dynamic_cast<const Stopped*>(&error) != nullptr) {
    raise(globals, "DecisionStopped", error.what());
  } else if (dynamic_cast<const TimedOut*>(&error) != nullptr) {
    raise(globals, "DecisionTimeout", error.what());
  } else if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
    PyErr_NoMemory();
  } else {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
}

}  // namespace decision_bounds::binding
