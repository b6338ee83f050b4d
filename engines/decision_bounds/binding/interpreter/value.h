// A Python value: an exact int of 64 bits and an exact float unboxed, anything else as the object
// it is. Arithmetic has Python's meaning; where the unboxed result would not be exactly Python's,
// overflow included, the operands become objects and the interpreter computes.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>

#include "decision_bounds/binding/interpreter/call.h"
#include "decision_bounds/binding/interpreter/call_scope.h"
#include "decision_bounds/binding/interpreter/unboxed.h"

namespace decision_bounds::binding {

/// A value is passed around like a number: an object in it is borrowed, from the operation that
/// runs
/// (`of` sees to that) or from whatever else outlives the value.
class Value {
 public:
  Value() noexcept : kind_(Kind::absent), integer_(0) {}
  explicit Value(int value) noexcept : kind_(Kind::integer), integer_(value) {}
  explicit Value(std::int64_t value) noexcept : kind_(kind_of(value)), integer_(value) {}
  explicit Value(double value) noexcept : kind_(Kind::real), real_(value) {}
  explicit Value(Unboxed value) noexcept
      : Value(value.whole() ? Value(value.integer()) : Value(value.real())) {}

  /// The value of an object that outlives it, unboxed where it is an exact int of 64 bits or an
  /// exact float.
  static Value borrowed(PyObject* object) {
    if (PyFloat_CheckExact(object)) return Value(PyFloat_AS_DOUBLE(object));
    if (PyLong_CheckExact(object)) {
      auto* number = reinterpret_cast<PyLongObject*>(object);
      if (PyUnstable_Long_IsCompact(number)) [[likely]]
        return Value(static_cast<std::int64_t>(PyUnstable_Long_CompactValue(number)));
      return of_long(object);
    }
    return opaque(object);
  }
  /// The same of an object that the running operation keeps where the value stands for it.
  static Value of(Ref object) {
    const Value value = borrowed(object.get());
    if (value.object() != nullptr) [[unlikely]]
      CallScope::keep(std::move(object));
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
  /// Whether it is an unboxed number, which `number` then gives.
  bool unboxed() const { return kind_ <= Kind::real; }
  /// Whether many values are unboxed numbers, told by one test.
  class Kinds {
   public:
    void add(Value value) { seen_ |= static_cast<std::uint64_t>(value.kind_); }
    bool all_unboxed() const { return seen_ <= static_cast<std::uint64_t>(Kind::real); }

   private:
    std::uint64_t seen_ = 0;
  };
  Unboxed number() const { return kind_ == Kind::real ? Unboxed(real_) : Unboxed(integer_); }
  /// The object, borrowed; none where the value is unboxed or absent.
  PyObject* object() const { return kind_ == Kind::object ? object_ : nullptr; }
  /// The value as a double, where it is unboxed.
  std::optional<double> real() const {
    if (kind_ == Kind::real) return real_;
    if (whole()) return static_cast<double>(integer_);
    return std::nullopt;
  }

  friend Value operator+(Value a, Value b) {
    if (a.unboxed() && b.unboxed()) [[likely]]
      return Value(a.number() + b.number());
    return add_slowly(a, b, PyNumber_Add);
  }
  friend Value increased(Value value, Value more) {
    if (value.unboxed() && more.unboxed()) [[likely]]
      return Value(value.number() + more.number());
    return add_slowly(value, more, PyNumber_InPlaceAdd);
  }
  friend Value operator-(Value a, Value b) {
    if (a.unboxed() && b.unboxed()) [[likely]]
      return Value(a.number() - b.number());
    return subtract_slowly(a, b);
  }
  friend Value operator*(Value a, Value b) {
    if (a.unboxed() && b.unboxed() && !(a.whole() && b.whole())) [[likely]]
      return Value(a.number().real() * b.number().real());
    return multiply_slowly(a, b);
  }
  friend Value operator/(Value a, Value b) {
    if (a.unboxed() && b.unboxed() && is_true(b)) [[likely]]
      return Value(a.number().real() / b.number().real());
    return compute(PyNumber_TrueDivide, a, b);
  }
  friend bool operator<(Value a, Value b) {
    if (a.unboxed() && b.unboxed()) [[likely]]
      return a.number() < b.number();
    return compare_slowly(a, b, Py_LT);
  }
  friend bool operator<=(Value a, Value b) {
    if (a.unboxed() && b.unboxed()) [[likely]]
      return a.number() <= b.number();
    return compare_slowly(a, b, Py_LE);
  }
  friend bool operator>(Value a, Value b) {
    if (a.unboxed() && b.unboxed()) [[likely]]
      return a.number() > b.number();
    return compare_slowly(a, b, Py_GT);
  }
  friend bool operator>=(Value a, Value b) {
    if (a.unboxed() && b.unboxed()) [[likely]]
      return a.number() >= b.number();
    return compare_slowly(a, b, Py_GE);
  }
  friend bool is_true(Value value) {
    return value.unboxed() ? is_true(value.number()) : is_true_slowly(value);
  }
  /// As math.isinf, which takes no other number than it takes.
  friend bool is_infinite(Value value) {
    return value.unboxed() ? is_infinite(value.number()) : is_infinite_slowly(value);
  }

 private:
  // As large as the payload, so that a value travels in two registers. A wide one is an int of 64
  // bits that is too large for `Unboxed`. The unboxed ones are 0 and 1: `Kinds` depends on it.
  enum class Kind : std::uint64_t { integer, real, wide, absent, object };
  using PythonBinary = PyObject* (*)(PyObject*, PyObject*);

  static Kind kind_of(std::int64_t value) {
    return Unboxed::holds(value) ? Kind::integer : Kind::wide;
  }
  bool whole() const { return kind_ == Kind::integer || kind_ == Kind::wide; }

  // What is rare stands out of line, so that the rest is small enough to be compiled in place.
  [[gnu::cold, gnu::noinline]] static Value of_long(PyObject* object);
  [[gnu::cold, gnu::noinline]] static Value add_slowly(Value a, Value b, PythonBinary operation);
  [[gnu::cold, gnu::noinline]] static Value subtract_slowly(Value a, Value b);
  [[gnu::cold, gnu::noinline]] static Value multiply_slowly(Value a, Value b);
  [[gnu::cold, gnu::noinline]] static Value compute(PythonBinary operation, Value a, Value b);
  [[gnu::cold, gnu::noinline]] static bool compare_slowly(Value a, Value b, int operation);
  [[gnu::cold, gnu::noinline]] static bool is_true_slowly(Value value);
  [[gnu::cold, gnu::noinline]] static bool is_infinite_slowly(Value value);

  Kind kind_;
  union {
    std::int64_t integer_;
    double real_;
    PyObject* object_;
  };
};

/// Calls a method, of what is not ours or not as it was made.
[[gnu::cold, gnu::noinline]] Ref call_method(PyObject* self, PyObject* name,
                                             std::initializer_list<Value> arguments = {});

}  // namespace decision_bounds::binding
