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
/// runs (`of` sees to that) or from whatever else outlives the value.
class Value {
 public:
  Value() noexcept : kind_(Kind::absent), wide_(0) {}
  explicit Value(int value) noexcept : kind_(Kind::integer), real_(value) {}
  explicit Value(std::int64_t value) noexcept : kind_(Kind::wide), wide_(value) {
    if (Unboxed::holds(value)) *this = Value(Unboxed(static_cast<double>(value), true));
  }
  explicit Value(double value) noexcept : kind_(Kind::real), real_(value) {}
  explicit Value(Unboxed value) noexcept
      : kind_(value.whole() ? Kind::integer : Kind::real), real_(value.real()) {
    if (value.whole() && !Unboxed::holds(real_)) [[unlikely]]
      *this = Value(value.integer());
  }

  /// The value of an object that outlives it, unboxed where it is an exact int of 64 bits or an
  /// exact float.
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
  Unboxed number() const { return {real_, kind_ == Kind::integer}; }
  /// The object, borrowed; none where the value is unboxed or absent.
  PyObject* object() const {
    if (kind_ != Kind::object) return nullptr;
    if (object_ == nullptr) __builtin_unreachable();  // it spares whoever asks a second test
    return object_;
  }
  /// The value as a double, where it is unboxed.
  std::optional<double> real() const {
    if (unboxed()) return real_;
    if (kind_ == Kind::wide) return static_cast<double>(wide_);
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
      return Value(a.number() * b.number());
    return multiply_slowly(a, b);
  }
  friend Value operator/(Value a, Value b) {
    if (a.unboxed() && b.unboxed() && is_true(b)) [[likely]]
      return Value(a.number() / b.number());
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
  // As large as the payload, so that a value travels in two registers. The unboxed ones, whose
  // payload is a double, are 0 and 1: `Kinds` depends on it. A wide one is an int of 64 bits that
  // is too large for them.
  enum class Kind : std::uint64_t { integer, real, wide, absent, object };
  using PythonBinary = PyObject* (*)(PyObject*, PyObject*);

  bool whole() const { return kind_ == Kind::integer || kind_ == Kind::wide; }
  std::int64_t integer() const { return kind_ == Kind::wide ? wide_ : number().integer(); }

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
    std::int64_t wide_;
    double real_;
    PyObject* object_;
  };
};

/// Calls a method, of what is not ours or not as it was made.
[[gnu::cold, gnu::noinline]] Ref call_method(PyObject* self, PyObject* name,
                                             std::initializer_list<Value> arguments = {});

}  // namespace decision_bounds::binding
