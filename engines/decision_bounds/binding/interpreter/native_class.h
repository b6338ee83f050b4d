// A native class as it was made, and what of it an object finds unchanged.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "decision_bounds/binding/interpreter/reference.h"

namespace decision_bounds::binding {

/// A number that other threads may change at any time, and that no lock guards.
template <class Number>
Number shared_read(Number& number) {
  return std::atomic_ref(number).load(std::memory_order_relaxed);
}

template <class Number>
void shared_write(Number& number, Number value) {
  std::atomic_ref(number).store(value, std::memory_order_relaxed);
}

struct State;           // of the module: see surface/state.h
struct BoundInterface;  // see share.h
class NativeClass;

/// What all native instances start with.
struct InstanceHead {
  PyObject ob_base;
  PyObject* dict;
  PyObject* weakrefs;
  NativeClass* made;  // none in an instance that a replaced `__new__` left half-made
};

/// The `__dict__` of a native instance, which may be replaced at any time; or none.
inline Ref instance_dict(PyObject* self) {
  Ref kept;
  Py_BEGIN_CRITICAL_SECTION(self);
  kept = Ref::retain(reinterpret_cast<InstanceHead*>(self)->dict);
  Py_END_CRITICAL_SECTION();
  return kept;
}

/// What an object finds as the class made it: whether its fields lie in place, `__new__` makes it
/// as it did, and which of its operations nobody has replaced, in a subclass, by a patch, or in the
/// instance.
class Originals {
 public:
  Originals() = default;
  explicit Originals(std::uint32_t bits) : bits_(bits) {}

  std::uint32_t bits() const { return bits_; }
  bool fields() const { return (bits_ & 1) != 0; }
  bool made() const { return (bits_ & 2) != 0; }
  bool operation(std::size_t index) const { return (bits_ >> (2 + index) & 1) != 0; }

  void add_fields() { bits_ |= 1; }
  void add_made() { bits_ |= 2; }
  void add_operation(std::size_t index) { bits_ |= std::uint32_t{4} << index; }
  void remove_operation(std::size_t index) { bits_ &= ~(std::uint32_t{4} << index); }

 private:
  std::uint32_t bits_ = 0;
};

class NativeClass {
 public:
  State* state = nullptr;
  const BoundInterface* bound = nullptr;  // of a class that admits calls
  PyTypeObject* type = nullptr;           // owned
  Ref attributes;                         // dict: every attribute the class was made with

  void name(std::span<const char* const> fields, std::span<const char* const> operations);
  void keep_attributes();
  int traverse(visitproc visit, void* arg) const;
  /// Breaks cycles. The names stay: instances may outlive this.
  void clear();
  PyObject* field_name(std::size_t index) const { return names_[index].get(); }
  PyObject* operation_name(std::size_t index) const { return names_[fields_ + index].get(); }
  std::size_t field_count() const { return fields_; }

  /// What any object finds; nothing, where it is no instance of this class. Nothing of Python's
  /// runs to find out.
  Originals originals(PyObject* self) {
    const Known known = shared_read(known_[0]);
    if (known >> 32 == shared_read(Py_TYPE(self)->tp_version_tag) &&
        shared_read(reinterpret_cast<InstanceHead*>(self)->dict) == nullptr) [[likely]]
      return Originals(static_cast<std::uint32_t>(known));
    return originals_slowly(self);
  }
  /// What the instances of a type find, but for what they have themselves.
  [[gnu::noinline]] Originals originals_of(PyTypeObject* other);

  /// Whether its `__init__`, the first of its operations, and its `__new__` are the ones it was
  /// made with.
  bool makes_as_written() {
    const Known known = shared_read(known_[0]);
    const Originals found = known >> 32 == shared_read(type->tp_version_tag)
                                ? Originals(static_cast<std::uint32_t>(known))
                                : originals_of(type);
    return found.operation(0) && found.made();
  }

 private:
  // The version tag of a type's attributes, which no other type ever has, and what it found. The
  // first is the class's own; the others are of subclasses that were asked for of late.
  using Known = std::uint64_t;
  static constexpr Known kNone = ~Known{0};  // no tag of any type

  std::size_t operations() const { return names_.size() - fields_ - 1; }
  Originals compare(PyTypeObject* other) const;
  // Of an instance of a subclass, or with attributes of its own.
  [[gnu::noinline]] Originals originals_slowly(PyObject* self);
  [[gnu::cold, gnu::noinline]] Originals but_for(PyObject* dict, Originals found) const;

  std::vector<Ref> names_;  // interned: of the fields, of the operations, and `__new__`
  std::size_t fields_ = 0;
  std::array<Known, 4> known_{kNone, kNone, kNone, kNone};
  std::size_t oldest_ = 1;
};

}  // namespace decision_bounds::binding
