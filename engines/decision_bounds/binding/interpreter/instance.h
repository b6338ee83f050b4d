// The instances of a native class: what lies in them, and the slots of their type.
#pragma once

#include <new>

#include "decision_bounds/binding/interpreter/field.h"

namespace decision_bounds::binding {

/// What every native instance starts with; `kFields` attributes follow.
template <std::size_t kFields>
struct Instance {
  static constexpr std::size_t kFieldCount = kFields;
  PyObject ob_base;
  PyObject* dict;
  PyObject* weakrefs;
  State* state;
  Field fields[kFields];
};

/// Where the fields of `T`'s instances begin, which start with `T::base`.
template <class T>
constexpr Py_ssize_t kFirstField = offsetof(decltype(T::base), fields);

template <class T>
void dealloc(PyObject* self);

/// The native part of the object that a method was called on.
template <class T>
struct Receiver {
  State& state;
  T& instance;
};

/// Throws TypeError for an object that is no instance of `T`'s class or of a subclass.
template <class T>
Receiver<T> receiver_cast(PyObject* object) {
  PyTypeObject* const type = Py_TYPE(object);
  // Only the class itself, in whatever interpreter, is deallocated by this very function.
  if (type->tp_dealloc == dealloc<T>) [[likely]] {
    return {*reinterpret_cast<T*>(object)->base.state, *reinterpret_cast<T*>(object)};
  }
  State* const state = state_of(object);
  if (state == nullptr || (state->*T::kClass).type == nullptr ||
      !PyType_IsSubtype(type, (state->*T::kClass).type)) {
    PyErr_Format(PyExc_TypeError, "a '%s' object was expected, not '%.200s'", T::kName,
                 type->tp_name);
    throw PythonError();
  }
  return {*state, *reinterpret_cast<T*>(object)};
}

/// Makes an instance of the class or of a subclass. It is the type's allocation as well, so that an
/// instance is whole also where a `__new__` that was replaced and deleted left `object`'s behind.
template <class T>
PyObject* allocate(PyTypeObject* type, Py_ssize_t items) {
  PyObject* const module = PyType_GetModuleByDef(type, &module_definition);
  if (module == nullptr) return nullptr;
  PyObject* const object = PyType_GenericAlloc(type, items);
  if (object == nullptr) return nullptr;
  // GenericAlloc gave zeroes and a header, and the collector knows the object: give the fields
  // their absent values in place, and let `T` do the same with what it has besides. Where it
  // cannot, it leaves an error and something whole.
  T& self = *reinterpret_cast<T*>(object);
  self.base.state = state_of_module(module);
  for (Field& field : self.base.fields) new (&field) Field();
  if (!self.construct()) {
    Py_DECREF(object);
    return nullptr;
  }
  return object;
}

/// `__new__`, which takes and ignores what the constructor takes.
template <class T>
PyObject* create(PyTypeObject* type, PyObject*, PyObject*) {
  return allocate<T>(type, 0);
}

template <class T>
int traverse(PyObject* object, visitproc visit, void* arg) {
  T& self = *reinterpret_cast<T*>(object);
  Py_VISIT(Py_TYPE(object));
  Py_VISIT(self.base.dict);
  for (const Field& field : self.base.fields) Py_VISIT(field.object());
  return self.visit_more(visit, arg);
}

template <class T>
int clear(PyObject* object) {
  T& self = *reinterpret_cast<T*>(object);
  Py_CLEAR(self.base.dict);
  for (Field& field : self.base.fields) field.store(Value());
  self.clear_more();
  return 0;
}

template <class T>
void dealloc(PyObject* object) {
  T& self = *reinterpret_cast<T*>(object);
  PyTypeObject* const type = Py_TYPE(object);
  if (type->tp_finalize != nullptr && PyObject_CallFinalizerFromDealloc(object) < 0) return;
  PyObject_GC_UnTrack(object);
  Py_TRASHCAN_BEGIN(object, dealloc<T>)
    if (self.base.weakrefs != nullptr) PyObject_ClearWeakRefs(object);
    clear<T>(object);
    self.destroy();
    type->tp_free(object);
    Py_DECREF(type);
  Py_TRASHCAN_END
}

/// The state of an instance for copy and pickle: (its dict or None, its fields by name).
template <class T>
PyObject* get_state(PyObject* object, PyObject*) {
  try {
    T& self = *reinterpret_cast<T*>(object);
    State* const state = state_of(object);
    if (state == nullptr) return nullptr;
    const Ref fields = Ref::steal(PyDict_New());
    const Class& own = state->*T::kClass;
    for (std::size_t i = 0; i < own.fields.size(); ++i) {
      const Ref value = self.base.fields[i].boxed();
      if (value) check(PyDict_SetItem(fields.get(), own.fields[i].get(), value.get()));
    }
    const Ref dict = instance_dict(object, self.base.dict);
    return PyTuple_Pack(2, dict ? dict.get() : Py_None, fields.get());
  } catch (const PythonError&) {
    return nullptr;
  }
}

/// Takes the value that an assigned `dict` has for a field, none if it has none, out of the `rest`,
/// a copy from then on: the dict is whoever's assigned it.
inline Ref take_field(PyObject* dict, PyObject* name, Ref& rest) {
  PyObject* found = nullptr;
  check(guarded([&] { return PyDict_GetItemRef(dict, name, &found); }));
  Ref value = Ref::steal_or_null(found);
  if (!value) return value;
  if (rest.get() == dict) rest = Ref::steal(PyDict_Copy(dict));
  check(guarded([&] { return PyDict_DelItem(rest.get(), name); }));
  return value;
}

/// Assigns `__dict__`. Fields that it does not name stay: whoever read it before found none.
template <class T>
int set_dict(PyObject* object, PyObject* dict, void*) {
  if (dict == nullptr || !PyDict_Check(dict)) return PyObject_GenericSetDict(object, dict, nullptr);
  try {
    const State* const state = state_of(object);
    if (state == nullptr) return -1;
    const std::vector<Ref>& names = (state->*T::kClass).fields;
    Ref rest = Ref::borrow(dict);
    for (std::size_t i = 0; i < names.size(); ++i) {
      const Ref value = take_field(dict, names[i].get(), rest);
      if (value) reinterpret_cast<T*>(object)->base.fields[i].store(Value::borrowed(value.get()));
    }
    return PyObject_GenericSetDict(object, rest.get(), nullptr);
  } catch (const PythonError&) {
    return -1;
  }
}

/// What a type needs besides its fields: nothing, unless it says so.
struct NothingMore {
  bool construct() { return true; }
  int visit_more(visitproc, void*) { return 0; }
  void clear_more() {}
  void destroy() {}
};

/// The slots of an ordinary class over `T`.
template <class T>
struct TypeSlots {
  static inline PyMemberDef members[] = {
      {"__dictoffset__", Py_T_PYSSIZET, offsetof(decltype(T::base), dict), Py_READONLY, nullptr},
      {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(decltype(T::base), weakrefs), Py_READONLY,
       nullptr},
      {nullptr, 0, 0, 0, nullptr},
  };
  static inline PyGetSetDef getset[] = {
      {"__dict__", PyObject_GenericGetDict, set_dict<T>, nullptr, nullptr},
      {nullptr, nullptr, nullptr, nullptr, nullptr},
  };
  static inline PyMethodDef methods[] = {
      {"__getstate__", get_state<T>, METH_NOARGS, nullptr},
      {nullptr, nullptr, 0, nullptr},
  };
  static inline PyType_Slot slots[] = {
      {Py_tp_new, reinterpret_cast<void*>(create<T>)},
      {Py_tp_alloc, reinterpret_cast<void*>(allocate<T>)},
      {Py_tp_traverse, reinterpret_cast<void*>(traverse<T>)},
      {Py_tp_clear, reinterpret_cast<void*>(clear<T>)},
      {Py_tp_dealloc, reinterpret_cast<void*>(dealloc<T>)},
      {Py_tp_members, members},
      {Py_tp_getset, getset},
      {Py_tp_methods, methods},
      {0, nullptr},
  };
  static inline PyType_Spec spec = {
      T::kName, sizeof(T), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_BASETYPE, slots};
};

}  // namespace decision_bounds::binding
