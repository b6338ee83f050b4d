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
  for (const Ref* object :
       {&condition_type, &field_type, &never, &wait, &give_back_maker, &partial, &round}) {
    Py_VISIT(object->get());
  }
  return 0;
}

void State::clear() {
  spare_shares.free();
  for (Class* made : {&share, &held, &charges, &rates, &budget, &spend}) {
    Py_CLEAR(made->type);
    made->attributes = Ref();
  }
  for (Ref* object :
       {&condition_type, &field_type, &never, &wait, &give_back_maker, &partial, &round}) {
    *object = Ref();
  }
  share_version_ = 0;
}

bool Class::shadowed_by(PyObject* instance_dict) const {
  PyObject* name = nullptr;
  Py_ssize_t position = 0;
  while (PyDict_Next(instance_dict, &position, &name, nullptr)) {
    const int found = PyDict_Contains(attributes.get(), name);
    if (found != 0) {
      if (found < 0) PyErr_Clear();
      return true;
    }
  }
  return false;
}

// A patch that was undone gave the type a new version, under which all is as it was. So did an
// attribute that was added, as the interpreter does itself for whoever asks for annotations or for
// a copy; only one that intercepts the access to others makes a difference.
bool Class::unpatched_slowly() {
  if (type->tp_getattro != PyObject_GenericGetAttr) return false;
  if (type->tp_setattro != PyObject_GenericSetAttr) return false;
  PyObject* name = nullptr;
  PyObject* made = nullptr;
  Py_ssize_t position = 0;
  const Ref now = Ref::steal_or_null(PyType_GetDict(type));
  while (PyDict_Next(attributes.get(), &position, &name, &made)) {
    if (PyDict_GetItemWithError(now.get(), name) != made) {
      PyErr_Clear();
      return false;
    }
  }
  if (PyUnstable_Type_AssignVersionTag(type) == 1)
    shared_write(version, shared_read(type->tp_version_tag));
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
  own_share_ = found != nullptr && found == reinterpret_cast<PyObject*>(share.type);
  share_version_ = version_of_globals();
  return own_share_ && share.unpatched();
}

State* state_of(PyObject* self) {
  PyObject* const module = PyType_GetModuleByDef(Py_TYPE(self), &module_definition);
  return module == nullptr ? nullptr : state_of_module(module);
}

}  // namespace decision_bounds::binding
