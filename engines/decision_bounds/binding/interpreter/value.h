// A Python value: an exact float and an exact int below 2^52 unboxed, anything else as the object
// it is. Arithmetic has Python's meaning: two such numbers are doubles whose sums, differences and
// comparisons are exact or rounded as Python's are. Where a result would not be, the operands
// become objects and the interpreter computes.
#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>

#include "decision_bounds/binding/interpreter/call.h"
#include "decision_bounds/binding/interpreter/call_scope.h"

namespace decision_bounds::binding {

/// A value is passed around like a number: an object in it is borrowed, from the operation that
/// runs (`of` sees to that) or from whatever else outlives the value.
class Value {
 public:
  Value() noexcept : kind_(Kind::absent), object_(nullptr) {}
  explicit Value(int value) noexcept : kind_(Kind::integer), real_(value) {}
  explicit Value(double value) noexcept : kind_(Kind::real), real_(value) {}

  /// The value of an object that outlives it.
  static Value borrowed(PyObject* object) {
    if (PyFloat_CheckExact(object)) return Value(PyFloat_AS_DOUBLE(object));
    if (PyLong_CheckExact(object)) {
      auto* number = reinterpret_cast<PyLongObject*>(object);
      if (PyUnstable_Long_IsCompact(number)) [[likely]]
        return Value(static_cast<int>(PyUnstable_Long_CompactValue(number)));
      return of_long(object);
    }
    return opaque(object);
  }
  /// The same of an object that the running operation keeps where the value stands for it.
  static Value of(Ref object) {
    const Value value = borrowed(object.get());
    if (value.object() != nullptr) [[unlikely]] {
      CallScope::keep(std::move(object));
    } else {
      Py_DECREF(object.release());  // a plain number, which runs nothing where it goes
    }
    return value;
  }
  /// A value that stands for an object, whatever that is; borrowed.
  static Value opaque(PyObject* object) noexcept {
    Value value;
    value.kind_ = Kind::object;
    value.object_ = object;
    return value;
  }

  /// The value as an object; throws where memory fails. Not for an absent one.
  Ref boxed() const;

  bool present() const { return kind_ != Kind::absent; }
  /// Whether it is an unboxed number: then `real` gives it, and `whole` whether it is an int.
  bool unboxed() const { return kind_ <= Kind::real; }
  bool whole() const { return kind_ == Kind::integer; }
  double real() const { return real_; }
  /// The object, borrowed; none where the value is unboxed or absent.
  PyObject* object() const {
    if (kind_ != Kind::object) return nullptr;
    if (object_ == nullptr) __builtin_unreachable();  // it spares whoever asks a second test
    return object_;
  }

  friend Value operator+(Value a, Value b) { return result(a, b, a.real_ + b.real_, PyNumber_Add); }
  friend Value increased(Value value, Value more) {
    return result(value, more, value.real_ + more.real_, PyNumber_InPlaceAdd);
  }
  friend Value operator-(Value a, Value b) {
    return result(a, b, a.real_ - b.real_, PyNumber_Subtract);
  }
  friend Value operator*(Value a, Value b) {
    if (unboxed(a, b) && !(a.whole() && b.whole())) [[likely]]
      return Value(a.real_ * b.real_);
    return compute(PyNumber_Multiply, a, b);
  }
  friend Value operator/(Value a, Value b) {
    if (unboxed(a, b) && b.real_ != 0) [[likely]]
      return Value(a.real_ / b.real_);
    return compute(PyNumber_TrueDivide, a, b);
  }
  friend bool operator<(Value a, Value b) {
    if (unboxed(a, b)) [[likely]]
      return a.real_ < b.real_;
    return compare(a, b, Py_LT);
  }
  friend bool operator<=(Value a, Value b) {
    if (unboxed(a, b)) [[likely]]
      return a.real_ <= b.real_;
    return compare(a, b, Py_LE);
  }
  friend bool operator>(Value a, Value b) {
    if (unboxed(a, b)) [[likely]]
      return a.real_ > b.real_;
    return compare(a, b, Py_GT);
  }
  friend bool operator>=(Value a, Value b) {
    if (unboxed(a, b)) [[likely]]
      return a.real_ >= b.real_;
    return compare(a, b, Py_GE);
  }
  friend bool is_true(Value value) {
    return value.unboxed() ? value.real_ != 0 : truth(value.object_);
  }
  /// As math.isinf, which takes no other number than it takes.
  friend bool is_infinite(Value value) {
    return value.unboxed() ? std::isinf(value.real_) : is_infinite_object(value.object_);
  }

 private:
  // As large as the payload, so that a value travels in two registers. Those of the unboxed ones,
  // whose payload is a double, are joined by `|`: a result is an int where both operands are.
  enum class Kind : std::uint64_t { integer, real, absent, object };
  using PythonBinary = PyObject* (*)(PyObject*, PyObject*);

  static constexpr double kEnd = 0x1p52;  // of the ints that are unboxed

  Value(Kind kind, double value) noexcept : kind_(kind), real_(value) {}

  static Kind joined(Value a, Value b) {
    return static_cast<Kind>(static_cast<std::uint64_t>(a.kind_) |
                             static_cast<std::uint64_t>(b.kind_));
  }
  static bool unboxed(Value a, Value b) { return joined(a, b) <= Kind::real; }
  // What an operation gives whose result, where both are unboxed, is this or is to be computed.
  static Value result(Value a, Value b, double real, PythonBinary operation) {
    const Kind kind = joined(a, b);
    if (kind <= Kind::real && (kind == Kind::real || std::fabs(real) < kEnd)) [[likely]]
      return {kind, real};
    return compute(operation, a, b);
  }

  // What is rare stands out of line, so that the rest is small enough to be compiled in place.
  [[gnu::cold, gnu::noinline]] static Value of_long(PyObject* object);
  [[gnu::cold, gnu::noinline]] static Value compute(PythonBinary operation, Value a, Value b);
  [[gnu::cold, gnu::noinline]] static bool compare(Value a, Value b, int operation);
  [[gnu::cold, gnu::noinline]] static bool is_infinite_object(PyObject* object);

  Kind kind_;
  union {
    double real_;
    PyObject* object_;
  };
};

/// Calls a method, of what is not ours or not as it was made.
[[gnu::cold, gnu::noinline]] Ref call_method(PyObject* self, PyObject* name,
                                             std::initializer_list<Value> arguments = {});

}  // namespace decision_bounds::binding
