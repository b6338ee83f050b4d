// Calls into the interpreter.
#pragma once

#include "decision_bounds/binding/interpreter/reference.h"

namespace decision_bounds::binding {

inline bool truth(PyObject* object) {
  if (object == Py_True) return true;
  if (object == Py_False) return false;
  const int result = guarded([&] { return PyObject_IsTrue(object); });
  check(result);
  return result != 0;
}

/// Calls as the protocol says. A function of Python's is called as it is, without the checks that
/// any other callable's result needs.
inline Ref call_with_flags(PyObject* callable, PyObject* const* arguments, std::size_t flags) {
  return Ref::steal(guarded([&] {
    if (PyFunction_Check(callable)) [[likely]] {
      const vectorcallfunc function = reinterpret_cast<PyFunctionObject*>(callable)->vectorcall;
      return function(callable, arguments, flags, nullptr);
    }
    return PyObject_Vectorcall(callable, arguments, flags, nullptr);
  }));
}

/// Calls with `count` arguments, before the first of which there is room for one more.
inline Ref call(PyObject* callable, PyObject* const* arguments, std::size_t count) {
  return call_with_flags(callable, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET);
}

inline Ref call(PyObject* callable) { return call_with_flags(callable, nullptr, 0); }

inline Ref call(PyObject* callable, PyObject* argument) {
  PyObject* const arguments[] = {nullptr, argument};
  return call(callable, arguments + 1, 1);
}

/// Calls a method of the first argument.
template <std::size_t kCount>
Ref call_method(PyObject* name, PyObject* const (&arguments)[kCount]) {
  return Ref::steal(
      guarded([&] { return PyObject_VectorcallMethod(name, arguments, kCount, nullptr); }));
}

inline Ref import_attribute(const char* module, const char* name) {
  const Ref imported = Ref::steal(PyImport_ImportModule(module));
  return Ref::steal(PyObject_GetAttrString(imported.get(), name));
}

/// None, with the error pending, where that fails.
inline Ref attribute_or_null(PyObject* self, PyObject* name) {
  return Ref::steal_or_null(guarded([&] {
    // All that PyObject_GetAttr would add to this is one more call.
    if (Py_TYPE(self)->tp_getattro == PyObject_GenericGetAttr) [[likely]]
      return PyObject_GenericGetAttr(self, name);
    return PyObject_GetAttr(self, name);
  }));
}

inline Ref attribute(PyObject* self, PyObject* name) {
  return Ref::steal(attribute_or_null(self, name).release());
}

}  // namespace decision_bounds::binding
