// Errors, in one protocol. What is Python's is pending in the interpreter: thrown as PythonError,
// or, where it is ordinary that a call fails (a reply's own error, a refusal), told by an empty
// value, since a C++ exception takes longer than all the rest. What is the module's own is an
// Outcome.
#pragma once

#include <exception>
#include <new>

#include "decision_bounds/binding/interpreter/call_scope.h"
#include "decision_bounds/binding/interpreter/recursion.h"

namespace decision_bounds::binding {

/// Leaves the interpreter's error for one of the C++ library's pending.
[[gnu::cold, gnu::noinline]] inline void set_error(const std::exception& error) {
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
    PyErr_NoMemory();
  } else {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
}

/// Runs `steps`; false, with the error pending, where they throw.
template <class Steps>
bool completes(Steps&& steps) {
  try {
    steps();
    return true;
  } catch (const PythonError&) {
  } catch (const std::exception& error) {
    set_error(error);
  }
  return false;
}

/// Runs `steps`, which answer whether they went well. Where they did not, or threw, `otherwise`
/// runs with the error put aside, which then goes on as it came.
template <class Steps, class Otherwise>
bool attempt(Steps&& steps, Otherwise&& otherwise) {
  bool well = false;
  const bool thrown = !completes([&] { well = steps(); });
  if (well) [[likely]]
    return true;
  Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  otherwise();
  PyErr_SetRaisedException(error.release());
  if (thrown) throw PythonError();
  return false;
}

/// Runs `steps` as one native call and gives its Ref to the interpreter, or null with the error
/// pending.
template <class Steps>
PyObject* translated(Steps&& steps) {
  PyObject* result = nullptr;
  completes([&] {
    const RecursionGuard guard;
    const CallScope scope;
    result = steps().release();
  });
  return result;
}

}  // namespace decision_bounds::binding
