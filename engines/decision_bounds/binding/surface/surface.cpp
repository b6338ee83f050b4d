#include "decision_bounds/binding/surface/surface.h"

#include <marshal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <string>

#include "surface.inc"

namespace decision_bounds::binding {

namespace {

// How the interpreter runs a Python function's own code, whatever vectorcall the function was
// given: the same in all interpreters of a process.
std::atomic<vectorcallfunc> run_code = nullptr;

constexpr Py_ssize_t kMaxParameters = 8;

void go_direct(PyObject* function, const Method& method) {
  auto* const python_function = reinterpret_cast<PyFunctionObject*>(function);
  run_code = PyVectorcall_Function(function);
  PyFunction_SetVectorcall(python_function, method.direct);
}

void add_builtin(State& state, PyObject* builtins, const char* prefix, Method& method) {
  const std::string name = std::string("_native_") + prefix + method.builtin.ml_name;
  const Ref function = Ref::steal(PyCFunction_New(&method.builtin, state.module));
  check(PyDict_SetItemString(builtins, name.c_str(), function.get()));
}

std::string text_of(PyObject* object) {
  const char* const text = PyUnicode_AsUTF8(object);
  if (text == nullptr) throw PythonError();
  return text;
}

void add_fields(const State& state, const ClassSpec& spec, PyObject* attributes) {
  const NativeClass& made = state.*spec.place;
  auto* const type = reinterpret_cast<PyObject*>(made.type);
  const Ref described = Ref::steal(PyType_GetDict(made.type));
  Py_ssize_t offset = spec.first_field;
  for (std::size_t i = 0; i < spec.fields.size(); ++i) {
    PyObject* const name = made.field_name(i);
    // A share's give-back has a description of its own.
    if (PyDict_Contains(described.get(), name) == 0) {
      PyObject* const fallback = PyDict_GetItemWithError(attributes, name);
      const Ref descriptor =
          make_field_descriptor(state.field_type.get(), made.type, name, offset, fallback);
      check(PyObject_SetAttr(type, name, descriptor.get()));
    }
    offset += static_cast<Py_ssize_t>(sizeof(Field));
  }
}

void add_attributes(const ClassSpec& spec, PyObject* attributes, PyObject* type) {
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  Py_ssize_t position = 0;
  while (PyDict_Next(attributes, &position, &key, &value)) {
    const std::string name = text_of(key);
    const bool is_field = std::ranges::find(spec.fields, name) != spec.fields.end();
    if (name == "__dict__" || name == "__weakref__" || is_field) continue;
    check(PyObject_SetAttr(type, key, value));
    for (const Method& method : spec.methods) {
      if (name == method.builtin.ml_name) go_direct(value, method);
    }
  }
}

Ref make_class(State& state, PyTypeObject* written) {
  const Ref name = Ref::steal(PyType_GetName(written));
  const Ref attributes = Ref::steal(PyType_GetDict(written));
  for (const ClassSpec& spec : state.units->classes) {
    if (text_of(name.get()) != std::strrchr(spec.type->name, '.') + 1) continue;
    Ref type = Ref::steal(PyType_FromModuleAndSpec(state.module, spec.type, nullptr));
    NativeClass& made = state.*spec.place;
    made.state = &state;
    made.name(spec.fields, spec.operations);
    made.type = reinterpret_cast<PyTypeObject*>(Py_NewRef(type.get()));
    made.bound = spec.bound;
    check(PyObject_SetAttrString(type.get(), "__name__", name.get()));
    add_fields(state, spec, attributes.get());
    add_attributes(spec, attributes.get(), type.get());
    made.keep_attributes();
    return type;
  }
  PyErr_Format(PyExc_SystemError, "no native class '%U'", name.get());
  throw PythonError();
}

// Decorates a class as it is written, and makes the native one with its attributes.
PyObject* native_class(PyObject* module, PyObject* written) {
  return translated([&] {
    return make_class(*state_of_module(module), reinterpret_cast<PyTypeObject*>(written));
  });
}

PyMethodDef class_maker = {"_native_class", native_class, METH_O, nullptr};

Ref make_builtins(State& state, const Units& units) {
  Ref builtins = Ref::steal(PyDict_Copy(PyEval_GetBuiltins()));
  for (const ClassSpec& spec : units.classes) {
    const std::string prefix = std::string(std::strrchr(spec.type->name, '.') + 1) + '_';
    for (Method& method : spec.methods) add_builtin(state, builtins.get(), prefix.c_str(), method);
  }
  for (Method& method : units.functions) add_builtin(state, builtins.get(), "", method);
  const Ref maker = Ref::steal(PyCFunction_New(&class_maker, state.module));
  check(PyDict_SetItemString(builtins.get(), class_maker.ml_name, maker.get()));
  check(PyDict_SetItemString(builtins.get(), "_native_condition", state.condition_type.get()));
  return builtins;
}

void run(std::span<const unsigned char> marshalled, PyObject* globals) {
  const Ref code =
      Ref::steal(PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(marshalled.data()),
                                                static_cast<Py_ssize_t>(marshalled.size())));
  Ref::steal(guarded([&] { return PyEval_EvalCode(code.get(), globals, globals); }));
}

}  // namespace

PyObject* call_with_binding(PyObject* function, PyObject* const* arguments, std::size_t flags,
                            PyObject* keywords, Py_ssize_t parameters, Native native) {
  const Py_ssize_t positional = PyVectorcall_NARGS(flags);
  const auto* const code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function));
  // Whoever is called may give the function other defaults.
  const Ref defaults = Ref::retain(PyFunction_GET_DEFAULTS(function));
  const Py_ssize_t missing = parameters - positional;
  if (native != nullptr && keywords == nullptr && parameters == code->co_argcount && missing > 0 &&
      defaults && missing <= PyTuple_GET_SIZE(defaults.get())) {
    std::array<PyObject*, kMaxParameters> all{};
    std::copy_n(arguments, positional, all.begin());
    const Py_ssize_t skipped = PyTuple_GET_SIZE(defaults.get()) - missing;
    for (Py_ssize_t i = 0; i < missing; ++i) {
      all[static_cast<std::size_t>(positional + i)] = PyTuple_GET_ITEM(defaults.get(), skipped + i);
    }
    return detail::finished<1>(function, all.data(),
                               translated([&] { return native(all.data()); }));
  }
  return guarded([&] { return run_code.load()(function, arguments, flags, keywords); });
}

void bind_surface(State& state, const Units& units) {
  if (PyImport_GetMagicNumber() != kBytecode) {
    PyErr_SetString(PyExc_ImportError,
                    "decision_bounds was built for another release of this interpreter");
    throw PythonError();
  }
  const Ref documentation = Ref::steal(PyUnicode_FromString(kDocumentation));
  check(PyDict_SetItemString(state.globals, "__doc__", documentation.get()));
  const Ref builtins = make_builtins(state, units);
  check(PyDict_SetItemString(state.globals, "__builtins__", builtins.get()));
  state.units = &units;
  run(kSurface, state.globals);
  state.units = nullptr;
  state.give_back_maker = Ref::retain(PyDict_GetItemString(builtins.get(), "_give_back_maker"));
  check(PyDict_DelItemString(state.globals, "__builtins__"));
}

}  // namespace decision_bounds::binding
