// The attributes of a native instance, and the descriptors that show them as ordinary ones.
#pragma once

#include "decision_bounds/binding/interpreter/value.h"

namespace decision_bounds::binding {

/// One attribute, which owns what it holds. Reading and writing are whole without the bound's lock,
/// also where no global lock makes them so; what a write replaces is let go of last, since that may
/// run anything.
class Field {
 public:
  /// The value as it lies here. An object in it is the field's: look no further than whether there
  /// is one.
  Value peek() const {
    const Guard guard(*this);
    return value_;
  }
  /// The value, with an object in it kept by the operation that runs.
  Value load() const {
    Ref object;
    const Value value = snapshot(object);
    if (object) CallScope::keep(std::move(object));
    return value;
  }
  /// The value as an object, none where it is absent.
  Ref boxed() const {
    Ref object;
    const Value value = snapshot(object);
    return object || !value.present() ? std::move(object) : value.boxed();
  }
  /// The object, if it holds one.
  Ref reference() const {
    const Guard guard(*this);
    return Ref::retain(value_.object());
  }
  /// The object, borrowed; for the collector, which stops the world.
  PyObject* object() const { return value_.object(); }

  /// Puts one unboxed number in the place of another; false, with nothing done, where either is
  /// not.
  bool replace(Value value) noexcept {
    const Guard guard(*this);
    if (!value_.unboxed() || !value.unboxed()) return false;
    value_ = value;
    return true;
  }
  /// Puts a value where none is yet, of an instance that nobody else knows.
  void fill(Value value) noexcept {
    if (PyObject* const object = value.object()) Py_INCREF(object);
    value_ = value;
  }
  void store(Value value) noexcept {
    Ref dropped;
    swap(value, dropped);
  }
  /// Gives out the value that was there; an object in it is now `owner`'s.
  Value swap(Value value, Ref& owner) noexcept {
    if (PyObject* const object = value.object()) Py_INCREF(object);
    {
      const Guard guard(*this);
      std::swap(value_, value);
    }
    owner = Ref::steal_or_null(value.object());
    return value;
  }

 private:
#ifdef Py_GIL_DISABLED
  class Guard {
   public:
    explicit Guard(const Field& field) : mutex_(field.mutex_) { PyMutex_Lock(&mutex_); }
    ~Guard() { PyMutex_Unlock(&mutex_); }

   private:
    PyMutex& mutex_;
  };
  mutable PyMutex mutex_{};
#else
  struct Guard {
    explicit Guard(const Field&) {}
  };
#endif
  Value snapshot(Ref& object) const {
    const Guard guard(*this);
    object = Ref::retain(value_.object());
    return value_;
  }

  Value value_;
};

/// What is called before a field of an instance is used; false, with the error pending, if it
/// fails.
using CompleteInstance = bool (*)(PyObject* instance);

/// A data descriptor, of `type`, of the field at `offset` of `owner`'s instances. `fallback` is
/// what the class itself answers, and an instance whose attribute was deleted: a data class's
/// default. None if null.
Ref make_field_descriptor(PyObject* type, PyTypeObject* owner, PyObject* name, Py_ssize_t offset,
                          CompleteInstance complete, PyObject* fallback);

extern PyType_Spec field_descriptor_spec;

}  // namespace decision_bounds::binding
