#include "decision_bounds/binding/surface/state.h"

namespace decision_bounds::binding {

// What the collector is to know of.
static constexpr NativeClass State::* kClasses[] = {&State::share, &State::held,   &State::charges,
                                                    &State::rates, &State::budget, &State::spend};
static constexpr Ref State::* kObjects[] = {&State::condition_type,  &State::condition_enter,
                                            &State::condition_exit,  &State::field_type,
                                            &State::never,           &State::wait,
                                            &State::give_back_maker, &State::partial,
                                            &State::round,           &State::traceback_frame};

void Names::intern() {
#define DECISION_BOUNDS_INTERN(member, text) \
  member = PyUnicode_InternFromString(text); \
  if (member == nullptr) throw PythonError();
  DECISION_BOUNDS_NAMES(DECISION_BOUNDS_INTERN)
#undef DECISION_BOUNDS_INTERN
}

void Names::clear() {
#define DECISION_BOUNDS_CLEAR(member, text) Py_CLEAR(member);
  DECISION_BOUNDS_NAMES(DECISION_BOUNDS_CLEAR)
#undef DECISION_BOUNDS_CLEAR
}

int State::traverse(visitproc visit, void* arg) const {
  for (NativeClass State::* const made : kClasses) {
    if (const int stopped = (this->*made).traverse(visit, arg)) return stopped;
  }
  for (Ref State::* const object : kObjects) Py_VISIT((this->*object).get());
  return threading.traverse(visit, arg);
}

void State::clear() {
  share_freelist.close();
  for (NativeClass State::* const made : kClasses) (this->*made).clear();
  for (Ref State::* const object : kObjects) this->*object = Ref();
  threading.clear();
  share_version_ = 0;
}

Ref State::global(PyObject* name) const {
  PyObject* found = nullptr;
  check(PyDict_GetItemRef(globals, name, &found));
  if (found == nullptr) {
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name);
    throw PythonError();
  }
  return Ref::steal(found);
}

void State::set_error(PyObject* class_name, PyObject* text) const {
  const Ref error_class = global(class_name);
  const Ref error = call(error_class.get(), text);
  if (!PyExceptionInstance_Check(error.get())) {
    PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    throw PythonError();
  }
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
}

bool State::share_original_slowly() {
  PyObject* found = nullptr;
  if (PyDict_GetItemRef(globals, names.share, &found) < 0) PyErr_Clear();
  const Ref kept = Ref::steal_or_null(found);
  const bool original = found != nullptr && found == reinterpret_cast<PyObject*>(share.type);
  if constexpr (kSerialized) {
    if (original) share_version_ = version_of(globals);
  }
  return original && share.makes_as_written();
}

State* state_of_type(PyTypeObject* type) {
  PyObject* const module = PyType_GetModuleByDef(type, &module_definition);
  return module == nullptr ? nullptr : state_of_module(module);
}

}  // namespace decision_bounds::binding
