// The one place where errors of the core become errors of the interpreter.
#pragma once

#include <exception>

#include "decision_bounds/binding/python.h"

namespace decision_bounds::binding {

/// Called where a C++ exception was caught: leaves the interpreter's error for it pending, a
/// module's one looked up in `globals` as it is there now.
void raise_caught(PyObject* globals);

/// Runs `steps` as one operation and gives its Ref to the interpreter, or null with the error
/// pending.
template <class Steps>
PyObject* translated(PyObject* globals, Steps&& steps) {
  try {
    const Operation operation;
    return steps().release();
  } catch (const PythonError&) {
  } catch (const std::exception&) {
    raise_caught(globals);
  }
  return nullptr;
}

}  // namespace decision_bounds::binding
