#include "decision_bounds/binding/python.h"

namespace decision_bounds::binding {

void Deeper::refuse() {
  PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
  throw PythonError();
}

}  // namespace decision_bounds::binding
