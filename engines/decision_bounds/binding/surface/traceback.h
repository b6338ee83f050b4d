// The tracebacks of errors that native functions raise.
#pragma once

#include <Python.h>

namespace decision_bounds::binding {

/// Adds a function of Python's, called on `self` if on anything, to the traceback of the pending
/// error, as if its own code had run. A function that raises again and again shows the same frame:
/// to make one takes as long as all the rest of a stop.
[[gnu::cold, gnu::noinline]] void add_to_traceback(PyObject* function, PyObject* self);

}  // namespace decision_bounds::binding
