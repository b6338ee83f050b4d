// The one place where errors of the core become errors of the interpreter.
#pragma once

#include <exception>

#include "decision_bounds/binding/interpreter/python.h"

namespace decision_bounds::binding {

/// Leaves the interpreter's error for one of the core's pending: the module's, as it is in
/// `globals` now, where it has one.
void raise_for(const std::exception& error, PyObject* globals);

/// Runs `steps` as one operation and gives its Ref to the interpreter, or null with the error
/// pending.
template <class Steps>
PyObject* translated(PyObject* globals, Steps&& steps) {
  try {
    const Operation operation;
    return steps().release();
  } catch (const PythonError&) {
  } catch (const std::exception& error) {
    raise_for(error, globals);
  }
  return nullptr;
}

}  // namespace decision_bounds::binding
