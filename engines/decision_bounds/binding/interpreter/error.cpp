#include "decision_bounds/binding/interpreter/error.h"

#include <new>

namespace decision_bounds::binding {

void set_error(const std::exception& error) {
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
    PyErr_NoMemory();
  } else {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
}

}  // namespace decision_bounds::binding
