// The instances of a native class: what lies in them, and the slots of their type.
#pragma once

#include <new>

#include "decision_bounds/binding/interpreter/error.h"
#include "decision_bounds/binding/interpreter/field.h"
#include "decision_bounds/binding/interpreter/native_class.h"

namespace decision_bounds::binding {

/// A native instance: the attributes that the stub lists follow.
template <class Stub>
struct Instance {
  static constexpr std::size_t kFieldCount = Stub::kFields.size();
  InstanceHead head;
  Field fields[kFieldCount];
};

template <class T>
void dealloc(PyObject* self);

/// The state of the module whose class, or a subclass of whose class, this is; none, with a
/// TypeError pending, for any other.
State* state_of_type(PyTypeObject* type);

/// Makes a bare object of a type an instance of `T`'s class: fields that are absent, and what `T`
/// has besides. Where that cannot be, it leaves an error pending, and something whole.
template <class T>
bool adopt(T& self, PyTypeObject* type) {
  State* const state = state_of_type(type);
  if (state == nullptr) return false;
  self.base.head.made = &(state->*T::kClass);
  for (Field& field : self.base.fields) new (&field) Field();
  return self.construct();
}

/// The native part of the object that a method was called on. Throws TypeError for an object that
/// is no instance of `T`'s class or of a subclass. One that `object`'s `__new__` made, where the
/// class's own was replaced and deleted, is completed as it is first used.
template <class T>
T& receiver_cast(PyObject* object) {
  // Only the class itself, in whatever interpreter, is deallocated by this very function.
  for (const PyTypeObject* type = Py_TYPE(object); type != nullptr; type = type->tp_base) {
    if (type->tp_dealloc != dealloc<T>) continue;
    T& self = *reinterpret_cast<T*>(object);
    if (self.base.head.made == nullptr && !adopt(self, Py_TYPE(object))) [[unlikely]]
      throw PythonError();
    return self;
  }
  PyErr_Format(PyExc_TypeError, "a '%s' object was expected, not '%.200s'", T::Stub::kName,
               Py_TYPE(object)->tp_name);
  throw PythonError();
}

/// Makes an instance of the class or of a subclass. It is the type's allocation as well, which
/// `object`'s `__new__` uses.
template <class T>
PyObject* allocate(PyTypeObject* type, Py_ssize_t items) {
  PyObject* const object = PyType_GenericAlloc(type, items);
  if (object == nullptr) return nullptr;
  // GenericAlloc gave zeroes and a header, and the collector knows the object.
  if (!adopt(*reinterpret_cast<T*>(object), type)) {
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

/// Makes the fields what they stand for, before somebody looks; false with the error pending.
template <class T>
bool complete(PyObject* object) {
  return completes([&] { reinterpret_cast<T*>(object)->complete(); });
}

template <class T>
int traverse(PyObject* object, visitproc visit, void* arg) {
  T& self = *reinterpret_cast<T*>(object);
  Py_VISIT(Py_TYPE(object));
  Py_VISIT(self.base.head.dict);
  for (const Field& field : self.base.fields) Py_VISIT(field.object());
  return self.visit_more(visit, arg);
}

template <class T>
int clear(PyObject* object) {
  T& self = *reinterpret_cast<T*>(object);
  Py_CLEAR(self.base.head.dict);
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
    if (self.base.head.weakrefs != nullptr) PyObject_ClearWeakRefs(object);
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
    const NativeClass& made = *receiver_cast<T>(object).base.head.made;
    self.complete();
    const Ref fields = Ref::steal(PyDict_New());
    for (std::size_t i = 0; i < std::size(self.base.fields); ++i) {
      const Ref value = self.base.fields[i].boxed();
      if (value) check(PyDict_SetItem(fields.get(), made.field_name(i), value.get()));
    }
    const Ref dict = instance_dict(object);
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
    T& self = receiver_cast<T>(object);
    const NativeClass& made = *self.base.head.made;
    self.complete();
    Ref rest = Ref::retain(dict);
    for (std::size_t i = 0; i < made.field_count(); ++i) {
      const Ref value = take_field(dict, made.field_name(i), rest);
      if (value) self.base.fields[i].store(Value::borrowed(value.get()));
    }
    return PyObject_GenericSetDict(object, rest.get(), nullptr);
  } catch (const PythonError&) {
    return -1;
  }
}

/// What a type needs besides its fields: nothing, unless it says so.
struct NothingMore {
  bool construct() { return true; }
  void complete() {}
  int visit_more(visitproc, void*) { return 0; }
  void clear_more() {}
  void destroy() {}
};

/// An instance of the class at `kPlace` of the state, with the fields that the stub lists alone.
template <class StubOfClass, auto kPlace>
struct PlainObject : NothingMore {
  using Stub = StubOfClass;
  static constexpr auto kClass = kPlace;
  Instance<Stub> base;
};

/// The slots of an ordinary class over `T`.
template <class T>
struct TypeSlots {
  static inline PyMemberDef members[] = {
      {"__dictoffset__", Py_T_PYSSIZET, offsetof(InstanceHead, dict), Py_READONLY, nullptr},
      {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(InstanceHead, weakrefs), Py_READONLY, nullptr},
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
  static inline PyType_Spec spec = {T::Stub::kName, sizeof(T), 0,
                                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_BASETYPE,
                                    slots};
};

}  // namespace decision_bounds::binding
