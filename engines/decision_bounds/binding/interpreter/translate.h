// The one place where errors of the core become errors of the interpreter.
#pragma once

#include <exception>

#include "decision_bounds/binding/interpreter/python.h"

namespace decision_bounds::binding {

/// Leaves the interpreter's error for one of the C++ library's pending.
void raise_for(const std::exception& error);

/// Runs `steps` as one operation and gives its Ref to the interpreter, or null with the error
/// pending.
template <class Steps>
PyObject* translated(Steps&& steps) {
  try {
    const CallScope scope;
    return steps().release();
  } catch (const PythonError&) {
  } catch (const std::exception& error) {
    raise_for(error);
  }
  return nullptr;
}

}  // namespace decision_bounds::binding
