// What `threading` makes its locks of.
#pragma once

#include <cstdint>

#include "decision_bounds/binding/interpreter/call.h"

namespace decision_bounds::binding {

/// The version of a dict, which changes with every change of it. A watcher, which replaces it from
/// 3.14 on, is told before the change rather than after it.
inline std::uint64_t version_of(PyObject* dict) {
  _Py_COMP_DIAG_PUSH _Py_COMP_DIAG_IGNORE_DEPR_DECLS return reinterpret_cast<PyDictObject*>(dict)
      ->ma_version_tag;
  _Py_COMP_DIAG_POP
}

/// The module `threading` as it is now. A host whose threads are of another kind, greenlets by a
/// monkey patch, puts other locks in the place of the interpreter's, before this module is
/// imported or after: what holds a whole thread up would hold up all of them.
class Threading {
 public:
  void import() { module_ = Ref::steal(PyImport_ImportModule("threading")); }
  /// Whether a lock or a condition that is made now has the interpreter's own locks.
  bool native() {
    if (!module_) return true;  // the collector was here
    const bool known = kSerialized && version_of(PyModule_GetDict(module_.get())) == version_;
    return known ? native_ : look();
  }
  /// The interpreter's cache of look-ups keeps the string that it was asked with, in a place that
  /// its address gives: so that one is always the same.
  Ref get(const char* name) const {
    return attribute(module_.get(), Ref::steal(PyUnicode_InternFromString(name)).get());
  }
  Ref make(const char* name) const { return call(get(name).get()); }

  int traverse(visitproc visit, void* arg) const {
    Py_VISIT(module_.get());
    return 0;
  }
  void clear() { module_ = Ref(); }

 private:
  [[gnu::cold, gnu::noinline]] bool look();

  Ref module_;
  std::uint64_t version_ = 0;  // of no dict; that of the names under which `native_` was found
  bool native_ = false;
};

}  // namespace decision_bounds::binding
