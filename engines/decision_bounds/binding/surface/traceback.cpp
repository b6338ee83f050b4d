#include "decision_bounds/binding/surface/traceback.h"

#include <frameobject.h>

#include "decision_bounds/binding/interpreter/interpreter.h"
#include "decision_bounds/binding/surface/state.h"

namespace decision_bounds::binding {

static Ref frame_of(PyObject* function, PyObject* self) {
  PyObject* const code = PyFunction_GET_CODE(function);
  State* const state = self == nullptr ? nullptr : state_of_type(Py_TYPE(self));
  if (state == nullptr) PyErr_Clear();
  const bool keeps = Interpreter::kSerialized && state != nullptr;
  if (keeps && state->traceback_frame) {
    auto* const frame = reinterpret_cast<PyFrameObject*>(state->traceback_frame.get());
    const Ref of = Ref::steal(reinterpret_cast<PyObject*>(PyFrame_GetCode(frame)));
    if (of.get() == code) return state->traceback_frame;
  }
  Ref frame = Ref::steal_or_null(reinterpret_cast<PyObject*>(
      PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code),
                  PyFunction_GET_GLOBALS(function), nullptr)));
  if (keeps && frame) state->traceback_frame = frame;
  return frame;
}

void add_to_traceback(PyObject* function, PyObject* self) {
  Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  const Ref frame = frame_of(function, self);
  PyErr_SetRaisedException(error.release());
  if (frame) PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame.get()));
}

}  // namespace decision_bounds::binding
