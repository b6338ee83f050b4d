#include "decision_bounds/binding/surface/surface.h"

#include <frameobject.h>
#include <marshal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <string>

#include "decision_bounds/binding/interpreter/interpreter.h"
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

void add_fields(const State& state, const ClassSpec& spec, PyObject* attributes) {
  const NativeClass& made = state.*spec.place;
  auto* const type = reinterpret_cast<PyObject*>(made.type);
  Py_ssize_t offset = spec.first_field;
  for (std::size_t i = 0; i < spec.fields.size(); ++i) {
    PyObject* const name = made.field_name(i);
    PyObject* const fallback = PyDict_GetItemWithError(attributes, name);
    const Ref descriptor = make_field_descriptor(state.field_type.get(), made.type, name, offset,
                                                 spec.complete, fallback);
    check(PyObject_SetAttr(type, name, descriptor.get()));
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
  for (const ClassSpec& spec : state.classes) {
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
PyObject* native_class(PyObject* module_reference, PyObject* written) {
  return translated([&] {
    const Ref module = module_behind(module_reference);
    return make_class(*state_of_module(module.get()), reinterpret_cast<PyTypeObject*>(written));
  });
}

PyMethodDef class_maker = {"class", native_class, METH_O, nullptr};

Ref make_natives(State& state, std::span<Method> functions) {
  Ref natives = Ref::steal(PyDict_New());
  const Ref module = Ref::steal(PyWeakref_NewRef(state.module, nullptr));
  const auto add = [&](const std::string& prefix, PyMethodDef& definition) {
    add_native(natives.get(), prefix, definition, module.get());
  };
  for (const ClassSpec& spec : state.classes) {
    const std::string prefix = std::string(std::strrchr(spec.type->name, '.') + 1) + '_';
    for (Method& method : spec.methods) add(prefix, method.builtin);
  }
  for (Method& method : functions) add("", method.builtin);
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
    return native == nullptr ? Ref::retain(constant) : Ref::steal(native);
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
  if (!PyCode_Check(constant)) return Ref::retain(constant);
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

static Ref frame_of(PyObject* function, PyObject* self) {
  PyObject* const code = PyFunction_GET_CODE(function);
  State* const state = self == nullptr ? nullptr : state_of_type(Py_TYPE(self));
  if (state == nullptr) PyErr_Clear();
  const bool keeps = Interpreter::kSerialized && state != nullptr;
  if (keeps && state->traceback_frame) {
    auto* const frame = reinterpret_cast<PyFrameObject*>(state->traceback_frame.get());
    const Ref of = Ref::steal(reinterpret_cast<PyObject*>(PyFrame_GetCode(frame)));
    if (of.get() == code) return state->traceback_frame;
  }
  Ref frame = Ref::steal_or_null(reinterpret_cast<PyObject*>(
      PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code),
                  PyFunction_GET_GLOBALS(function), nullptr)));
  if (keeps && frame) state->traceback_frame = frame;
  return frame;
}

void add_to_traceback(PyObject* function, PyObject* self) {
  Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  const Ref frame = frame_of(function, self);
  PyErr_SetRaisedException(error.release());
  if (frame) PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame.get()));
}

void bind_surface(State& state, std::span<const ClassSpec> classes, std::span<Method> functions) {
  if (PyImport_GetMagicNumber() != kBytecode) {
    PyErr_SetString(PyExc_ImportError,
                    "decision_bounds was built for another release of this interpreter");
    throw PythonError();
  }
  const Ref documentation = Ref::steal(PyUnicode_FromString(kDocumentation));
  check(PyDict_SetItemString(state.globals, "__doc__", documentation.get()));
  // As in any module: what is called from its functions looks here.
  check(PyDict_SetItemString(state.globals, "__builtins__", PyEval_GetBuiltins()));
  state.classes = classes;
  run(kSurface, make_natives(state, functions).get(), state.globals);
  state.classes = {};
  const Ref maker = Ref::steal(PyUnicode_InternFromString("_give_back_maker"));
  state.give_back_maker = state.global(maker.get());
  check(PyDict_DelItem(state.globals, maker.get()));
}

}  // namespace decision_bounds::binding
