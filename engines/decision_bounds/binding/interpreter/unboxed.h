// A number that needs nothing of the interpreter.
#pragma once

#include <cmath>
#include <cstdint>

namespace decision_bounds::binding {

/// An int below 2^52 in size or a float, both as a double. A sum or difference of two such ints is
/// exact as a double, and so is every comparison, so steps of one operation each, mixed ones
/// included, give what Python's give.
class Unboxed {
 public:
  static bool holds(double whole) { return std::fabs(whole) < 0x1p52; }
  static bool holds(std::int64_t value) {
    constexpr auto kEnd = std::int64_t{1} << 52;
    return -kEnd < value && value < kEnd;
  }

  explicit Unboxed(int value) : Unboxed(value, true) {}
  explicit Unboxed(double value) : Unboxed(value, false) {}
  Unboxed(double value, bool whole) : real_(value), whole_(whole) {}

  bool whole() const { return whole_; }
  /// Of a whole one.
  std::int64_t integer() const { return static_cast<std::int64_t>(real_); }
  double real() const { return real_; }

  friend Unboxed operator+(Unboxed a, Unboxed b) {
    return {a.real_ + b.real_, (a.whole_ & b.whole_) != 0};
  }
  friend Unboxed increased(Unboxed value, Unboxed more) { return value + more; }
  friend Unboxed operator-(Unboxed a, Unboxed b) {
    return {a.real_ - b.real_, (a.whole_ & b.whole_) != 0};
  }
  /// Of two that are not both ints: the product of those may be too large.
  friend Unboxed operator*(Unboxed a, Unboxed b) { return Unboxed(a.real_ * b.real_); }
  /// By any but zero.
  friend Unboxed operator/(Unboxed a, Unboxed b) { return Unboxed(a.real_ / b.real_); }
  friend bool operator<(Unboxed a, Unboxed b) { return a.real_ < b.real_; }
  friend bool operator<=(Unboxed a, Unboxed b) { return a.real_ <= b.real_; }
  friend bool operator>(Unboxed a, Unboxed b) { return a.real_ > b.real_; }
  friend bool operator>=(Unboxed a, Unboxed b) { return a.real_ >= b.real_; }

  friend bool is_true(Unboxed value) { return value.real_ != 0; }
  friend bool is_infinite(Unboxed value) { return std::isinf(value.real_); }

 private:
  double real_;
  bool whole_;
};

}  // namespace decision_bounds::binding
