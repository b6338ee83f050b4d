// The one place where errors of the core become errors of the interpreter.
#pragma once

#include <exception>

#include "decision_bounds/binding/interpreter/call_scope.h"

namespace decision_bounds::binding {

/// Leaves the interpreter's error for one of the C++ library's pending.
void raise_for(const std::exception& error);

/// Adds a function of Python's, called on `self` if on anything, to the traceback of the pending
/// error, as if its own code had run. A function that raises again and again shows the same frame:
/// to make one takes as long as all the rest of a stop.
[[gnu::cold, gnu::noinline]] void add_to_traceback(PyObject* function, PyObject* self);

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
