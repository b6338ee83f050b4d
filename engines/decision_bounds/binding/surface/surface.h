// Native functions behind real Python functions, and native classes behind class statements.
//
// The module's text (see generate_surface.py) defines every function in Python, with a body that
// calls the native function, one of its constants. `Method` names both ways in: that one, and a
// vectorcall that the real function gets, which goes straight to the native code where the
// arguments fit as they stand. Where they do not, the function's own code runs after all: the
// interpreter fills in what is missing, or raises what it raises.
#pragma once

#include <span>
#include <type_traits>

#include "decision_bounds/binding/interpreter/error.h"
#include "decision_bounds/binding/interpreter/instance.h"
#include "decision_bounds/binding/surface/state.h"

namespace decision_bounds::binding {

/// A native function; the arguments are as many as the Python function has parameters, borrowed.
using Native = Ref (*)(PyObject* const* arguments);

struct Method {
  PyMethodDef builtin;
  vectorcallfunc direct;
};

/// A native class: the class statement's name for it, its type and its instances' fields.
struct ClassSpec {
  NativeClass State::* place;
  PyType_Spec* type;
  std::span<const char* const> fields;      // names, in order
  std::span<const char* const> operations;  // likewise
  Py_ssize_t first_field;                   // where the first one lies
  std::span<Method> methods;
  CompleteInstance complete;
  const BoundInterface* bound = nullptr;  // of a class that admits calls
};

/// The module that a native function's `self` refers to.
Ref module_behind(PyObject* module_reference);

/// Arguments that do not fit as they stand: moved into place where that takes no more than
/// defaults, else left to the function's own code.
[[gnu::noinline]] PyObject* call_with_binding(PyObject* function, PyObject* const* arguments,
                                              std::size_t flags, PyObject* keywords,
                                              Py_ssize_t parameters, Native native);

/// Adds a function of Python's, called on `self` if on anything, to the traceback of the pending
/// error, as if its own code had run. A function that raises again and again shows the same frame:
/// to make one takes as long as all the rest of a stop.
[[gnu::cold, gnu::noinline]] void add_to_traceback(PyObject* function, PyObject* self);

namespace detail {

template <auto kNative>
PyObject* run(PyObject* const* arguments) {
  return translated([&] { return kNative(arguments); });
}

template <auto kNative, Py_ssize_t kParameters>
PyObject* builtin(PyObject* module_reference, PyObject* const* arguments, Py_ssize_t count) {
  if (count != kParameters) {
    PyErr_SetString(PyExc_TypeError, "a native function takes all of its arguments");
    return nullptr;
  }
  if constexpr (std::is_invocable_v<decltype(kNative), State&, PyObject* const*>) {
    return translated([&] {
      const Ref module = module_behind(module_reference);
      return kNative(*state_of_module(module.get()), arguments);
    });
  } else {
    return run<kNative>(arguments);
  }
}

/// The result of a native call that stands for a call of `function` with these arguments.
template <Py_ssize_t kParameters>
PyObject* finished(PyObject* function, PyObject* const* arguments, PyObject* result) {
  if (result == nullptr) [[unlikely]]
    add_to_traceback(function, kParameters == 0 ? nullptr : arguments[0]);
  return result;
}

/// Whether arguments, all of them given, stand in the order of the parameters.
template <Py_ssize_t kParameters, Py_ssize_t kPositional>
bool fit(PyObject* function, Py_ssize_t positional, PyObject* keywords) {
  if (keywords == nullptr) return positional == kParameters && kPositional == kParameters;
  if (positional > kPositional) return false;
  if (positional + PyTuple_GET_SIZE(keywords) != kParameters) return false;
  const auto* const code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function));
  if (code->co_argcount + code->co_kwonlyargcount != kParameters) return false;
  for (Py_ssize_t i = positional; i < kParameters; ++i) {
    PyObject* const parameter = PyTuple_GET_ITEM(code->co_localsplusnames, i);
    if (PyTuple_GET_ITEM(keywords, i - positional) != parameter) return false;
  }
  return true;
}

template <auto kNative, Py_ssize_t kParameters, Py_ssize_t kPositional>
[[gnu::flatten]] PyObject* direct(PyObject* function, PyObject* const* arguments, std::size_t flags,
                                  PyObject* keywords) {
  if (fit<kParameters, kPositional>(function, PyVectorcall_NARGS(flags), keywords)) [[likely]] {
    return finished<kParameters>(function, arguments, run<kNative>(arguments));
  }
  return call_with_binding(function, arguments, flags, keywords, kParameters, kNative);
}

template <auto kNative>
[[gnu::flatten]] PyObject* direct_any(PyObject* function, PyObject* const* arguments,
                                      std::size_t flags, PyObject* keywords) {
  if (PyVectorcall_NARGS(flags) >= 1 && keywords == nullptr) [[likely]] {
    return finished<1>(function, arguments, run<kNative>(arguments));
  }
  return call_with_binding(function, arguments, flags, keywords, 0, nullptr);
}

template <auto kNative, Py_ssize_t kParameters>
PyMethodDef definition(const char* name) {
  auto* const function = reinterpret_cast<void (*)()>(builtin<kNative, kParameters>);
  return {name, reinterpret_cast<PyCFunction>(function), METH_FASTCALL, nullptr};
}

}  // namespace detail

/// A function of the module's, which is told of its state.
template <auto kNative, Py_ssize_t kParameters>
Method function(const char* name) {
  return {detail::definition<kNative, kParameters>(name), nullptr};
}

/// The parameters beyond `kPositional` are keyword-only.
template <auto kNative, Py_ssize_t kParameters, Py_ssize_t kPositional>
Method method(const char* name) {
  return {detail::definition<kNative, kParameters>(name),
          detail::direct<kNative, kParameters, kPositional>};
}

/// A method that takes any positional arguments and looks at none but `self`.
template <auto kNative>
Method method_of_any(const char* name) {
  return {detail::definition<kNative, 1>(name), detail::direct_any<kNative>};
}

/// The class over `T`, with the methods that its unit defines.
template <class T>
ClassSpec class_spec(const BoundInterface* bound = nullptr) {
  using Stub = typename T::Stub;
  return {T::kClass,
          &TypeSlots<T>::spec,
          Stub::kFields,
          Stub::kOperations,
          offsetof(decltype(T::base), fields),
          Stub::template methods<Stub>(),
          complete<T>,
          bound};
}

/// Runs the module's text, compiled when it was built, in its namespace, which binds every name in
/// order: of these classes and functions.
void bind_surface(State& state, std::span<const ClassSpec> classes, std::span<Method> functions);

}  // namespace decision_bounds::binding
