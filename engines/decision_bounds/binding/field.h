// The attributes of a native instance, and the descriptors that show them as ordinary ones.
#pragma once

#include "decision_bounds/binding/state.h"
#include "decision_bounds/binding/value.h"

namespace decision_bounds::binding {

/// One attribute. Reading and writing are whole without the bound's lock, also where no global lock
/// makes them so; what a write replaces is let go of last, since that may run anything.
class Field {
 public:
  Value load() const {
    const Guard guard(*this);
    return value_;
  }
  /// The value where it lies; for whoever holds the global lock.
  const Value& in_place() const { return value_; }
  void store(Value value) noexcept {
    const Guard guard(*this);
    value_.swap(value);
  }
  Value exchange(Value value) noexcept {
    const Guard guard(*this);
    value_.swap(value);
    return value;
  }
  bool present() const {
    const Guard guard(*this);
    return value_.present();
  }
  /// The object, if it holds one.
  Ref reference() const {
    const Guard guard(*this);
    return Ref::borrow(value_.object());
  }
  /// Whether it holds this object.
  bool is(const Ref& object) const {
    const Guard guard(*this);
    return value_.object() == object.get();
  }
  /// The object, borrowed; for the collector, which stops the world.
  PyObject* object() const { return value_.object(); }

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
  Value value_;
};

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

/// A data descriptor of the field at `offset` of `owner`'s instances. `fallback` is what the class
/// itself answers, and an instance whose attribute was deleted: a data class's default. None if
/// null.
Ref make_field_descriptor(State& state, PyTypeObject* owner, PyObject* name, Py_ssize_t offset,
                          PyObject* fallback);

extern PyType_Spec field_descriptor_spec;

}  // namespace decision_bounds::binding
