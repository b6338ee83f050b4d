// The one place where errors of the core become errors of the interpreter.
#pragma once

#include <new>

#include "decision_bounds/binding/python.h"
#include "decision_bounds/errors.h"

namespace decision_bounds::binding {

/// Raises the module's error `name`, as `globals` has it now, with `message`.
void raise(PyObject* globals, const char* name, const char* message);

/// Runs `steps` and gives its Ref to the interpreter, or null with the error pending.
template <class Steps>
PyObject* translated(PyObject* globals, Steps&& steps) {
  try {
    return steps().release();
  } catch (const PythonError&) {
  } catch (const Stopped& error) {
    raise(globals, "DecisionStopped", error.what());
  } catch (const TimedOut& error) {
    raise(globals, "DecisionTimeout", error.what());
  } catch (const BudgetExceeded& error) {
    raise(globals, "DecisionBudgetExceeded", error.what());
  } catch (const Reentered& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  }
  return nullptr;
}

}  // namespace decision_bounds::binding
