// Owned references.
#pragma once

#include <Python.h>

#include <cstdint>
#include <utility>

#include "decision_bounds/binding/interpreter/guarded.h"

namespace decision_bounds::binding {

/// Gives up a reference that may be the last one: what goes away may run anything.
[[gnu::noinline]] inline void decref_last(PyObject* object) {
  guarded([&] {
    Py_DECREF(object);
    return true;
  });
}

inline void decref(PyObject* object) {
#ifndef Py_GIL_DISABLED
  // In 32 bits, that of an object which is never counted is below zero.
  const auto count = static_cast<std::int32_t>(Py_REFCNT(object));
  if (count > 1) [[likely]]
    return Py_DECREF(object);
  if (count < 0) return;
#endif
  decref_last(object);
}

/// An owned reference, or none. Made only by `steal`, `steal_or_null` and `retain`.
class Ref {
 public:
  Ref() = default;
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Ref(const Ref& other) noexcept : object_(Py_XNewRef(other.object_)) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Ref() {
    if (object_ != nullptr) decref(object_);
  }

  PyObject* get() const { return object_; }
  PyObject* release() { return std::exchange(object_, nullptr); }
  explicit operator bool() const { return object_ != nullptr; }

  /// Owns what a call gave; throws where it gave an error.
  static Ref steal(PyObject* object) {
    if (object == nullptr) throw_pending();
    return Ref(object);
  }
  /// Owns what a call gave, an error's null included.
  static Ref steal_or_null(PyObject* object) { return Ref(object); }
  static Ref retain(PyObject* object) { return Ref(Py_XNewRef(object)); }

 private:
  explicit Ref(PyObject* object) : object_(object) {}
  PyObject* object_ = nullptr;
};

/// None, which is never counted.
inline Ref none() { return Ref::steal(Py_None); }

inline void check(int status) {
  if (status < 0) throw_pending();
}

}  // namespace decision_bounds::binding
