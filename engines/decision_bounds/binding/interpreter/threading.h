// What `threading` makes its locks of.
#pragma once

#include <cstdint>
#include <string_view>

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
    return known ? native_ : recheck();
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
  // By what they make: each patch replaces other names. No class that is written in Python has a
  // dot in its type's name.
  [[gnu::cold, gnu::noinline]] bool recheck() {
    const auto makes = [&](const char* name, std::string_view type) {
      return Py_TYPE(make(name).get())->tp_name == type;
    };
    const std::uint64_t version = version_of(PyModule_GetDict(module_.get()));
    native_ = makes("RLock", "_thread.RLock") && makes("_allocate_lock", "_thread.lock") &&
              makes("Lock", "_thread.lock");
    version_ = version;
    return native_;
  }

  Ref module_;
  std::uint64_t version_ = 0;  // of no dict; that of the names under which `native_` was found
  bool native_ = false;
};

/// The methods of the interpreter's own re-entrant lock, which nobody can replace: they are what
/// its `__enter__` and `__exit__` do.
struct RLockMethods {
  Ref acquire;
  Ref release;

  void find() {
    const Ref type = import_attribute("_thread", "RLock");
    if (type.get() != reinterpret_cast<PyObject*>(Py_TYPE(call(type.get()).get()))) return;
    acquire = Ref::steal(PyObject_GetAttrString(type.get(), "acquire"));
    release = Ref::steal(PyObject_GetAttrString(type.get(), "release"));
  }
  /// Whether they are this lock's.
  bool made(PyObject* lock) const {
    return acquire && PyDescr_TYPE(acquire.get()) == Py_TYPE(lock);
  }
};

}  // namespace decision_bounds::binding
