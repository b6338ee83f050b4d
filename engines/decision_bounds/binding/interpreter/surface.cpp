#include "decision_bounds/binding/interpreter/surface.h"

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
  if (method.direct == nullptr) return;
  run_code = PyVectorcall_Function(function);
  PyFunction_SetVectorcall(python_function, method.direct);
}

// The collector does not look into code, whose constants these are: they must not own the module.
void add_native(PyObject* natives, const std::string& prefix, PyMethodDef& definition,
                PyObject* module_reference) {
  const std::string name = "_native_" + prefix + definition.ml_name;
  const Ref function = Ref::steal(PyCFunction_New(&definition, module_reference));
  check(PyDict_SetItemString(natives, name.c_str(), function.get()));
}

std::string text_of(PyObject* object) {
  const char* const text = PyUnicode_AsUTF8(object);
  if (text == nullptr) throw PythonError();
  return text;
}

void add_fields(State& state, const ClassSpec& spec, PyObject* attributes, PyObject* type) {
  Class& made = state.*spec.place;
  Py_ssize_t offset = spec.first_field;
  for (const char* const field : spec.fields) {
    Ref name = Ref::steal(PyUnicode_InternFromString(field));
    PyObject* const fallback = PyDict_GetItemWithError(attributes, name.get());
    const Ref descriptor = make_field_descriptor(state, made.type, name.get(), offset, fallback);
    check(PyObject_SetAttr(type, name.get(), descriptor.get()));
    made.fields.push_back(std::move(name));
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
    Class& made = state.*spec.place;
    made.type = reinterpret_cast<PyTypeObject*>(Py_NewRef(type.get()));
    made.bound = spec.bound;
    check(PyObject_SetAttrString(type.get(), "__name__", name.get()));
    add_fields(state, spec, attributes.get(), type.get());
    add_attributes(spec, attributes.get(), type.get());
    const Ref all = Ref::steal(PyType_GetDict(made.type));
    made.attributes = Ref::steal(PyDict_Copy(all.get()));
    return type;
  }
  PyErr_Format(PyExc_SystemError, "no native class '%U'", name.get());
  throw PythonError();
}

// Decorates a class as it is written, and makes the native one with its attributes.
PyObject* native_class(PyObject* module_reference, PyObject* written) {
  return translated([&] {
    const Ref module = module_behind(module_reference);
    return make_class(*state_of_module(module.get()), reinterpret_cast<PyTypeObject*>(written));
  });
}

PyMethodDef class_maker = {"class", native_class, METH_O, nullptr};

Ref make_natives(State& state, const Units& units) {
  Ref natives = Ref::steal(PyDict_New());
  const Ref module = Ref::steal(PyWeakref_NewRef(state.module, nullptr));
  const auto add = [&](const std::string& prefix, PyMethodDef& definition) {
    add_native(natives.get(), prefix, definition, module.get());
  };
  for (const ClassSpec& spec : units.classes) {
    const std::string prefix = std::string(std::strrchr(spec.type->name, '.') + 1) + '_';
    for (Method& method : spec.methods) add(prefix, method.builtin);
  }
  for (Method& method : units.functions) add("", method.builtin);
  for (PyMethodDef& factory : units.factories) add("make_", factory);
  add("", units.budget_give_back.builtin);
  add("", class_maker);
  const Ref absent = import_attribute("dataclasses", "_HAS_DEFAULT_FACTORY");
  check(PyDict_SetItemString(natives.get(), "_native_absent", absent.get()));
  return natives;
}

// A constant of the module's code with the natives in the place of their names.
Ref with_natives(PyObject* constant, PyObject* natives) {
  if (PyUnicode_CheckExact(constant)) {
    PyObject* native = nullptr;
    check(PyDict_GetItemRef(natives, constant, &native));
    return native == nullptr ? Ref::borrow(constant) : Ref::steal(native);
  }
  if (PyTuple_CheckExact(constant)) {
    const Py_ssize_t size = PyTuple_GET_SIZE(constant);
    Ref all = Ref::steal(PyTuple_New(size));
    for (Py_ssize_t i = 0; i < size; ++i) {
      Ref item = with_natives(PyTuple_GET_ITEM(constant, i), natives);
      PyTuple_SET_ITEM(all.get(), i, item.release());
    }
    return all;
  }
  if (!PyCode_Check(constant)) return Ref::borrow(constant);
  const Ref constants = with_natives(reinterpret_cast<PyCodeObject*>(constant)->co_consts, natives);
  const Ref replace = Ref::steal(PyObject_GetAttrString(constant, "replace"));
  const Ref none = Ref::steal(PyTuple_New(0));
  const Ref keywords = Ref::steal(Py_BuildValue("{s:O}", "co_consts", constants.get()));
  return Ref::steal(PyObject_Call(replace.get(), none.get(), keywords.get()));
}

void run(std::span<const unsigned char> marshalled, PyObject* natives, PyObject* globals) {
  const Ref read =
      Ref::steal(PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(marshalled.data()),
                                                static_cast<Py_ssize_t>(marshalled.size())));
  const Ref code = with_natives(read.get(), natives);
  Ref::steal(guarded([&] { return PyEval_EvalCode(code.get(), globals, globals); }));
}

}  // namespace

Ref module_behind(PyObject* module_reference) {
  PyObject* module = nullptr;
  if (PyWeakref_GetRef(module_reference, &module) == 0) {
    PyErr_SetString(PyExc_ReferenceError, "the module is gone");
  }
  return Ref::steal(module);
}

PyObject* call_with_binding(PyObject* function, PyObject* const* arguments, std::size_t flags,
                            PyObject* keywords, Py_ssize_t parameters, Native native) {
  const Py_ssize_t positional = PyVectorcall_NARGS(flags);
  const auto* const code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function));
  // Whoever is called may give the function other defaults.
  const Ref defaults = Ref::borrow(PyFunction_GET_DEFAULTS(function));
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
  // As in any module: what is called from its functions looks here.
  check(PyDict_SetItemString(state.globals, "__builtins__", PyEval_GetBuiltins()));
  state.units = &units;
  run(kSurface, make_natives(state, units).get(), state.globals);
  state.units = nullptr;
  const Ref maker = Ref::steal(PyUnicode_InternFromString("_give_back_maker"));
  state.give_back_maker = state.global(maker.get());
  check(PyDict_DelItem(state.globals, maker.get()));
  for (const Method& method : units.functions) {
    const Ref name = Ref::steal(PyUnicode_FromString(method.builtin.ml_name));
    go_direct(state.global(name.get()).get(), method);
  }
}

}  // namespace decision_bounds::binding
