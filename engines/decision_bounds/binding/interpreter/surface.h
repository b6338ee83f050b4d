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

#include "decision_bounds/binding/interpreter/field.h"
#include "decision_bounds/binding/interpreter/translate.h"

namespace decision_bounds::binding {

/// A native function; the arguments are as many as the Python function has parameters, borrowed.
using Native = Ref (*)(PyObject* const* arguments);

/// The fast path of a native function: the same result for the usual receiver and arguments,
/// without running anything of Python's. For any others null, with nothing done; or with an error
/// pending.
using FastPath = PyObject* (*)(PyObject* const* arguments) noexcept;

struct Method {
  PyMethodDef builtin;
  vectorcallfunc direct;
};

/// A native class: the class statement's name for it, its type and its instances' fields.
struct ClassSpec {
  Class State::* place;
  PyType_Spec* type;
  std::span<const char* const>
      fields;  // names, in order; `first_field` is where the first one lies
  Py_ssize_t first_field;
  std::span<Method> methods;
  const BoundOperations* bound = nullptr;  // of a class that admits calls
};

/// Arguments that do not fit as they stand: moved into place where that takes no more than
/// defaults, else left to the function's own code.
[[gnu::noinline]] PyObject* call_with_binding(PyObject* function, PyObject* const* arguments,
                                              std::size_t flags, PyObject* keywords,
                                              Py_ssize_t parameters, Native native);

namespace detail {

/// A native function that cannot fail calls nothing, and so is no operation either.
template <auto kNative>
PyObject* run(PyObject* const* arguments) {
  if constexpr (std::is_nothrow_invocable_v<decltype(kNative), PyObject* const*>) {
    return kNative(arguments).release();
  } else {
    return translated([&] { return kNative(arguments); });
  }
}

template <auto kNative>
[[gnu::flatten, gnu::noinline]] PyObject* run_apart(PyObject* const* arguments) {
  return run<kNative>(arguments);
}

template <auto kNative, Py_ssize_t kParameters>
PyObject* builtin(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
  if (count != kParameters) {
    PyErr_SetString(PyExc_TypeError, "a native function takes all of its arguments");
    return nullptr;
  }
  return run<kNative>(arguments);
}

/// Tries the fast path first, if there is one. What runs where that gave up stands in a function of
/// its own: the compiler then keeps the fast path's small.
template <auto kNative, FastPath kFastPath>
[[gnu::flatten]] PyObject* run_fitting(PyObject* const* arguments) {
  if constexpr (kFastPath != nullptr) {
    if (PyObject* const result = kFastPath(arguments)) [[likely]]
      return result;
    if (PyErr_Occurred() != nullptr) return nullptr;
    return run_apart<kNative>(arguments);
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

template <auto kNative, Py_ssize_t kParameters, Py_ssize_t kPositional, FastPath kFastPath>
[[gnu::flatten]] PyObject* direct(PyObject* function, PyObject* const* arguments, std::size_t flags,
                                  PyObject* keywords) {
  if (fit<kParameters, kPositional>(function, PyVectorcall_NARGS(flags), keywords)) [[likely]] {
    return finished<kParameters>(function, arguments, run_fitting<kNative, kFastPath>(arguments));
  }
  return call_with_binding(function, arguments, flags, keywords, kParameters, kNative);
}

template <auto kNative, FastPath kFastPath>
[[gnu::flatten]] PyObject* direct_any(PyObject* function, PyObject* const* arguments,
                                      std::size_t flags, PyObject* keywords) {
  if (PyVectorcall_NARGS(flags) >= 1 && keywords == nullptr) [[likely]] {
    return finished<1>(function, arguments, run_fitting<kNative, kFastPath>(arguments));
  }
  return call_with_binding(function, arguments, flags, keywords, 0, nullptr);
}

template <auto kNative, Py_ssize_t kParameters>
PyMethodDef definition(const char* name) {
  auto* const function = reinterpret_cast<void (*)()>(builtin<kNative, kParameters>);
  return {name, reinterpret_cast<PyCFunction>(function), METH_FASTCALL, nullptr};
}

}  // namespace detail

/// The parameters beyond `kPositional` are keyword-only.
template <auto kNative, Py_ssize_t kParameters, Py_ssize_t kPositional = kParameters,
          FastPath kFastPath = nullptr>
Method method(const char* name) {
  return {detail::definition<kNative, kParameters>(name),
          detail::direct<kNative, kParameters, kPositional, kFastPath>};
}

/// A method that takes any positional arguments and looks at none but `self`.
template <auto kNative, FastPath kFastPath = nullptr>
Method method_of_any(const char* name) {
  return {detail::definition<kNative, 1>(name), detail::direct_any<kNative, kFastPath>};
}

/// The module that a native function's `self` refers to.
Ref module_behind(PyObject* module_reference);

/// What the module's text is made of.
struct Units {
  std::span<const ClassSpec> classes;
  std::span<Method> functions;
  std::span<PyMethodDef> factories;  // what makes the default of a field
  Method& budget_give_back;
};

/// Runs the module's text, compiled when it was built, in its namespace, which binds every name in
/// order.
void bind_surface(State& state, const Units& units);

}  // namespace decision_bounds::binding
