#include "decision_bounds/binding/interpreter/translate.h"

#include <frameobject.h>

#include <new>

namespace decision_bounds::binding {

void raise_for(const std::exception& error) {
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
    PyErr_NoMemory();
  } else {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
}

void add_to_traceback(PyObject* function) {
  Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  auto* const code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function));
  PyObject* const globals = PyFunction_GET_GLOBALS(function);
  PyFrameObject* const frame = PyFrame_New(PyThreadState_Get(), code, globals, nullptr);
  if (frame == nullptr) PyErr_Clear();
  PyErr_SetRaisedException(error.release());
  if (frame == nullptr) return;
  PyTraceBack_Here(frame);
  Py_DECREF(frame);
}

}  // namespace decision_bounds::binding
