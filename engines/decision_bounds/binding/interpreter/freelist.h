// Memory that is used again.
#pragma once

#include <Python.h>

#include <array>

namespace decision_bounds::binding {

/// The memory of a few objects of one class that went, for those that come. Not for a class that
/// was given a finalizer: an object's memory keeps the mark that it was finalized, and so would the
/// next one's.
class Freelist {
 public:
  /// Whether the memory was kept, as it is after the object was deallocated.
  bool keep(PyObject* object) {
    if (count_ >= room_) return false;
    objects_[count_++] = object;
    return true;
  }
  PyObject* take() { return count_ == 0 ? nullptr : objects_[--count_]; }
  /// Keeps none from here on. To be called while their class is there.
  void close() {
    room_ = 0;
    while (count_ > 0) PyObject_GC_Del(objects_[--count_]);
  }

 private:
  static constexpr std::size_t kMaxKept = 64;
  std::array<PyObject*, kMaxKept> objects_{};
  std::size_t count_ = 0;
  std::size_t room_ = kMaxKept;
};

}  // namespace decision_bounds::binding
