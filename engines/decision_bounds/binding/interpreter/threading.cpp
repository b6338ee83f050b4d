#include "decision_bounds/binding/interpreter/threading.h"

#include <string_view>

namespace decision_bounds::binding {

// By what they make: each patch replaces other names. No class that is written in Python has a dot
// in its type's name.
bool Threading::look() {
  const auto makes = [&](const char* name, std::string_view type) {
    return Py_TYPE(make(name).get())->tp_name == type;
  };
  const std::uint64_t version = version_of(PyModule_GetDict(module_.get()));
  native_ = makes("RLock", "_thread.RLock") && makes("_allocate_lock", "_thread.lock") &&
            makes("Lock", "_thread.lock");
  version_ = version;
  return native_;
}

}  // namespace decision_bounds::binding
