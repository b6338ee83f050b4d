// How an operation sees the instance that it works on.
#pragma once

#include <algorithm>
#include <new>
#include <span>

#include "decision_bounds/binding/interpreter/field.h"

namespace decision_bounds::binding {

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

/// An instance with its attributes. Where the instance finds its class's own methods (`own`), they
/// are read and written in place and operations call each other natively; otherwise through the
/// interpreter, so that a subclass's, a patched or an instance's attribute is the one used.
///
/// What stands out of line takes a copy of a view or its parts, never its address, so that the
/// compiler can hold the view of an operation in registers.
template <class T>
class View {
 public:
  using Number = Value;

  explicit View(const Receiver<T>& self) : state_(&self.state), self_(&self.instance) { look(); }

  State& state() const { return *state_; }
  PyObject* object() const { return object_of(*self_); }
  T& instance() const { return *self_; }
  bool own() const { return fields_ == self_->base.fields; }
  /// Looks again whether somebody replaced a method, as code called in between may have.
  void look() {
    const bool own = (state_->*T::kClass).owns(object(), self_->base.dict);
    fields_ = own ? self_->base.fields : none_;
  }

 protected:
  Value get(std::size_t index) const {
    const Value value = fields_[index].peek();
    if (value.unboxed()) [[likely]]
      return value;
    return get_slowly(*state_, *self_, fields_[index], index);
  }
  /// An attribute that is an object to be used, rather than a number.
  Ref get_object(std::size_t index) const {
    Ref object = fields_[index].reference();
    if (object) [[likely]]
      return object;
    return fetch(*state_, *self_, index);
  }
  /// The same, borrowed until something of Python's runs.
  PyObject* borrow_object(std::size_t index) const {
    if constexpr (Interpreter::kSerialized) {
      PyObject* const object = fields_[index].object();
      if (object != nullptr) [[likely]]
        return object;
    }
    return CallScope::keep(get_object(index));
  }
  void set(std::size_t index, Value value) const {
    if (!fields_[index].replace(value)) [[unlikely]]
      set_slowly(*state_, *self_, own() ? &fields_[index] : nullptr, index, value);
  }
  void set_object(std::size_t index, const Ref& object) const {
    set(index, Value::opaque(object.get()));
  }

 private:
  // An object, or an attribute that was deleted or is not the class's own.
  [[gnu::cold, gnu::noinline]] static Value get_slowly(State& state, T& self, const Field& field,
                                                       std::size_t index) {
    const Value value = field.load();
    return value.present() ? value : Value::of(fetch(state, self, index));
  }
  [[gnu::cold, gnu::noinline]] static void set_slowly(State& state, T& self, Field* own,
                                                      std::size_t index, Value value) {
    if (own != nullptr) return own->store(value);
    const Ref boxed = value.boxed();
    PyObject* const attribute = name(state, index);
    check(guarded([&] { return PyObject_SetAttr(object_of(self), attribute, boxed.get()); }));
  }

  [[gnu::cold, gnu::noinline]] static Ref fetch(State& state, T& self, std::size_t index) {
    return attribute(object_of(self), name(state, index));
  }

  static PyObject* object_of(T& self) { return reinterpret_cast<PyObject*>(&self); }
  static PyObject* name(State& state, std::size_t index) {
    return (state.*T::kClass).fields[index].get();
  }

  // What an instance that is not its own is read from and written to: absent, all of them, so that
  // one look at a field tells both.
  static inline Field none_[decltype(T::base)::kFieldCount];

  State* state_;
  T* self_;
  Field* fields_ = nullptr;
};

/// The fields of a view of an own instance that all hold unboxed numbers, for steps in which
/// nothing of Python's runs.
class UnboxedFields {
 public:
  using Number = Unboxed;

  explicit UnboxedFields(std::span<Field> fields) : fields_(fields.data()) {}
  /// Without a global lock any field may change at any time.
  static bool fit(std::span<const Field> fields) {
    Value::Kinds kinds;
    for (const Field& field : fields) kinds.add(field.peek());
    return Interpreter::kSerialized && kinds.all_unboxed();
  }

 protected:
  Unboxed get(std::size_t index) const { return fields_[index].peek().number(); }
  void set(std::size_t index, Unboxed value) const { fields_[index].put(Value(value)); }

 private:
  Field* fields_;
};

/// `__new__`, which takes and ignores what the constructor takes.
template <class T>
PyObject* create(PyTypeObject* type, PyObject*, PyObject*) {
  PyObject* const module = PyType_GetModuleByDef(type, &module_definition);
  if (module == nullptr) return nullptr;
  PyObject* const object = PyType_GenericAlloc(type, 0);
  if (object == nullptr) return nullptr;
  // GenericAlloc gave zeroes and a header, and the collector knows the object: give the fields
  // their absent values in place, and let `T` do the same with what it has besides.
  T& self = *reinterpret_cast<T*>(object);
  self.base.state = state_of_module(module);
  for (Field& field : self.base.fields) new (&field) Field();
  self.construct();
  return object;
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

/// What a type needs besides its fields: nothing, unless it says so.
struct NothingMore {
  void construct() {}
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
      {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
      {nullptr, nullptr, nullptr, nullptr, nullptr},
  };
  static inline PyMethodDef methods[] = {
      {"__getstate__", get_state<T>, METH_NOARGS, nullptr},
      {nullptr, nullptr, 0, nullptr},
  };
  static inline PyType_Slot slots[] = {
      {Py_tp_new, reinterpret_cast<void*>(create<T>)},
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
