// A Python value: an exact int of 64 bits and an exact float unboxed, anything else as the object
// it is. Arithmetic has Python's meaning; where the unboxed result would not be exactly Python's,
// overflow included, the operands become objects and the interpreter computes.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>

#include "decision_bounds/binding/python.h"

namespace decision_bounds::binding {

using PythonBinary = PyObject* (*)(PyObject*, PyObject*);

class Value;

/// What the interpreter computes of the operands.
[[gnu::cold, gnu::noinline]] Value compute(PythonBinary operation, const Value& a, const Value& b);

class Value {
 public:
  Value() noexcept : kind_(Kind::absent), integer_(0) {}
  explicit Value(int value) noexcept : kind_(Kind::integer), integer_(value) {}
  explicit Value(std::int64_t value) noexcept : kind_(Kind::integer), integer_(value) {}
  explicit Value(double value) noexcept : kind_(Kind::real), real_(value) {}
  explicit Value(Ref object) noexcept : kind_(Kind::object), object_(object.release()) {}

  Value(const Value& other) noexcept : kind_(other.kind_), payload_(other.payload_) {
    if (kind_ == Kind::object) [[unlikely]]
      Py_INCREF(object_);
  }
  Value(Value&& other) noexcept
      : kind_(std::exchange(other.kind_, Kind::absent)), payload_(other.payload_) {}
  Value& operator=(Value other) noexcept {
    swap(other);
    return *this;
  }
  ~Value() {
    if (kind_ == Kind::object) [[unlikely]]
      let_go(object_);
  }
  void swap(Value& other) noexcept {
    std::swap(kind_, other.kind_);
    std::swap(payload_, other.payload_);
  }

  /// The value of an object, unboxed where it is an exact int of 64 bits or an exact float.
  static Value of(PyObject* object) {
    if (PyFloat_CheckExact(object)) return Value(PyFloat_AS_DOUBLE(object));
    if (PyLong_CheckExact(object)) {
      auto* number = reinterpret_cast<PyLongObject*>(object);
      if (PyUnstable_Long_IsCompact(number)) {
        return Value(static_cast<std::int64_t>(PyUnstable_Long_CompactValue(number)));
      }
      return of_long(object);
    }
    return of_object(object);
  }

  /// The value as an object; throws where memory fails. Not for an absent one.
  Ref boxed() const;

  bool present() const { return kind_ != Kind::absent; }
  /// The object, borrowed; none where the value is unboxed or absent.
  PyObject* object() const { return kind_ == Kind::object ? object_ : nullptr; }
  /// The value as a double, where it is unboxed.
  std::optional<double> real() const {
    if (kind_ == Kind::real) return real_;
    if (kind_ == Kind::integer) return static_cast<double>(integer_);
    return std::nullopt;
  }

  friend Value operator+(const Value& a, const Value& b);
  friend Value operator-(const Value& a, const Value& b);
  friend Value increased(const Value& value, const Value& more);
  friend Value operator*(const Value& a, const Value& b);
  friend Value operator/(const Value& a, const Value& b);
  friend bool operator<(const Value& a, const Value& b) { return compare<Py_LT>(a, b); }
  friend bool operator<=(const Value& a, const Value& b) { return compare<Py_LE>(a, b); }
  friend bool operator>(const Value& a, const Value& b) { return compare<Py_GT>(a, b); }
  friend bool operator>=(const Value& a, const Value& b) { return compare<Py_GE>(a, b); }
  friend bool is_true(const Value& value) {
    if (value.kind_ == Kind::integer) return value.integer_ != 0;
    if (value.kind_ == Kind::real) return value.real_ != 0.0;
    return is_true_object(value.object_);
  }
  /// As math.isinf, which takes no other number than it takes.
  friend bool is_infinite(const Value& value) {
    if (value.kind_ == Kind::real) return std::isinf(value.real_);
    return value.kind_ != Kind::integer && is_infinite_object(value.object_);
  }

 private:
  enum class Kind : unsigned char { absent, integer, real, object };

  // Every integer of at most this size is a double as well, so that mixed steps stay exact.
  static constexpr std::int64_t kExact = std::int64_t{1} << 53;

  // What is rare stands out of line, so that the rest is small enough to be compiled in place.
  [[gnu::cold, gnu::noinline]] static Value of_long(PyObject* object);
  [[gnu::cold, gnu::noinline]] static Value of_object(PyObject* object);
  [[gnu::cold, gnu::noinline]] static bool is_true_object(PyObject* object);
  [[gnu::cold, gnu::noinline]] static bool is_infinite_object(PyObject* object);
  [[gnu::cold, gnu::noinline]] static bool compare_objects(const Value& a, const Value& b,
                                                           int operation);

  static Value sum(PythonBinary operation, const Value& a, const Value& b) {
    if (a.kind_ == Kind::integer && b.kind_ == Kind::integer) {
      std::int64_t sum = 0;
      if (!__builtin_add_overflow(a.integer_, b.integer_, &sum)) [[likely]]
        return Value(sum);
    } else if (double x = 0.0, y = 0.0; as_doubles(a, b, x, y)) [[likely]] {
      return Value(x + y);
    }
    return compute(operation, a, b);
  }

  // Both as doubles, where comparing and adding them as doubles is what Python does.
  static bool as_doubles(const Value& a, const Value& b, double& x, double& y) {
    return a.as_double(x) && b.as_double(y);
  }
  bool as_double(double& out) const {
    if (kind_ == Kind::real) {
      out = real_;
      return true;
    }
    if (kind_ != Kind::integer || integer_ > kExact || integer_ < -kExact) return false;
    out = static_cast<double>(integer_);
    return true;
  }

  template <int kOperation, class Number>
  static bool compare_plain(Number x, Number y) {
    if constexpr (kOperation == Py_LT) return x < y;
    if constexpr (kOperation == Py_LE) return x <= y;
    if constexpr (kOperation == Py_GT) return x > y;
    if constexpr (kOperation == Py_GE) return x >= y;
  }
  template <int kOperation>
  static bool compare(const Value& a, const Value& b) {
    if (a.kind_ == Kind::integer && b.kind_ == Kind::integer) {
      return compare_plain<kOperation>(a.integer_, b.integer_);
    }
    double x = 0.0;
    double y = 0.0;
    if (as_doubles(a, b, x, y)) [[likely]]
      return compare_plain<kOperation>(x, y);
    return compare_objects(a, b, kOperation);
  }

  Kind kind_;
  union {
    std::int64_t integer_;
    double real_;
    PyObject* object_;
    std::uint64_t payload_;
  };
};

inline Value operator+(const Value& a, const Value& b) { return Value::sum(PyNumber_Add, a, b); }
inline Value increased(const Value& value, const Value& more) {
  return Value::sum(PyNumber_InPlaceAdd, value, more);
}

inline Value operator-(const Value& a, const Value& b) {
  if (a.kind_ == Value::Kind::integer && b.kind_ == Value::Kind::integer) {
    std::int64_t difference = 0;
    if (!__builtin_sub_overflow(a.integer_, b.integer_, &difference)) [[likely]] {
      return Value(difference);
    }
  } else if (double x = 0.0, y = 0.0; Value::as_doubles(a, b, x, y)) [[likely]] {
    return Value(x - y);
  }
  return compute(PyNumber_Subtract, a, b);
}

inline Value operator*(const Value& a, const Value& b) {
  if (a.kind_ == Value::Kind::integer && b.kind_ == Value::Kind::integer) {
    std::int64_t product = 0;
    if (!__builtin_mul_overflow(a.integer_, b.integer_, &product)) return Value(product);
  } else if (double x = 0.0, y = 0.0; Value::as_doubles(a, b, x, y)) {
    return Value(x * y);
  }
  return compute(PyNumber_Multiply, a, b);
}

inline Value operator/(const Value& a, const Value& b) {
  if (double x = 0.0, y = 0.0; Value::as_doubles(a, b, x, y) && y != 0.0) return Value(x / y);
  return compute(PyNumber_TrueDivide, a, b);
}

}  // namespace decision_bounds::binding
