#include "decision_bounds/binding/interpreter/state.h"

namespace decision_bounds::binding {

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
  for (const Class* made : {&share, &held, &charges, &rates, &budget, &spend}) {
    Py_VISIT(made->type);
    Py_VISIT(made->attributes.get());
  }
  for (const Ref* object : {&condition_type, &field_type, &never, &wait, &give_back_maker, &partial,
                            &round, &traceback_frame}) {
    Py_VISIT(object->get());
  }
  return threading.traverse(visit, arg);
}

void State::clear() {
  share_freelist.close();
  for (Class* made : {&share, &held, &charges, &rates, &budget, &spend}) {
    Py_CLEAR(made->type);
    made->attributes = Ref();
  }
  for (Ref* object : {&condition_type, &field_type, &never, &wait, &give_back_maker, &partial,
                      &round, &traceback_frame}) {
    *object = Ref();
  }
  threading.clear();
  share_version_ = 0;
}

namespace {

template <class Test>
bool any_name(PyObject* dict, Test&& test) {
  bool found = false;
  Py_BEGIN_CRITICAL_SECTION(dict);
  PyObject* name = nullptr;
  Py_ssize_t position = 0;
  while (!found && PyDict_Next(dict, &position, &name, nullptr)) found = test(name);
  Py_END_CRITICAL_SECTION();
  return found;
}

}  // namespace

// A name that is no exact text, whose comparison may run Python, counts as one of the class's.
bool Class::shadowed_by(PyObject* dict) const {
  return dict != nullptr && any_name(dict, [&](PyObject* name) {
           return !PyUnicode_CheckExact(name) || PyDict_Contains(attributes.get(), name) != 0;
         });
}

// A patch that was undone gave the type a new version, under which all is as it was. So did an
// attribute that was added, as the interpreter does itself for whoever asks for annotations or for
// a copy; only one that intercepts the access to others makes a difference.
bool Class::unpatched_slowly() {
  if (type->tp_getattro != PyObject_GenericGetAttr) return false;
  if (type->tp_setattro != PyObject_GenericSetAttr) return false;
  // Asked for before the look, so that a patch during it is not taken for what was looked at.
  const bool tagged = PyUnstable_Type_AssignVersionTag(type) == 1;
  const unsigned tag = shared_read(type->tp_version_tag);
  const Ref now = Ref::steal_or_null(PyType_GetDict(type));
  if (any_name(now.get(), [](PyObject* name) { return !PyUnicode_CheckExact(name); })) return false;
  PyObject* name = nullptr;
  PyObject* made = nullptr;
  Py_ssize_t position = 0;
  while (PyDict_Next(attributes.get(), &position, &name, &made)) {
    PyObject* found = nullptr;
    if (PyDict_GetItemRef(now.get(), name, &found) < 0) PyErr_Clear();
    if (Ref::steal_or_null(found).get() != made) return false;
  }
  if (tagged && tag != 0) shared_write(version, tag);
  return true;
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

bool State::makes_own_shares_slowly() {
  PyObject* found = nullptr;
  if (PyDict_GetItemRef(globals, names.share, &found) < 0) PyErr_Clear();
  const Ref kept = Ref::steal_or_null(found);
  const bool own = found != nullptr && found == reinterpret_cast<PyObject*>(share.type);
  if constexpr (kSerialized) {
    if (own) share_version_ = version_of(globals);
  }
  return own && share.unpatched();
}

State* state_of(PyObject* self) {
  PyObject* const module = PyType_GetModuleByDef(Py_TYPE(self), &module_definition);
  return module == nullptr ? nullptr : state_of_module(module);
}

}  // namespace decision_bounds::binding
