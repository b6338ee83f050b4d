// A number that needs nothing of the interpreter.
#pragma once

#include <cmath>
#include <cstdint>

namespace decision_bounds::binding {

/// An int below 2^52 in size or a float. A sum or difference of two such ints is exact as an int
/// and as a double, so steps of one operation each, mixed ones included, give what Python's give.
class Unboxed {
 public:
  static bool holds(std::int64_t value) {
    constexpr int kBits = 52;
    constexpr auto kEnd = std::uint64_t{1} << kBits;
    return (static_cast<std::uint64_t>(value) + kEnd) >> (kBits + 1) == 0;
  }

  explicit Unboxed(int value) : whole_(true), integer_(value) {}
  explicit Unboxed(std::int64_t value) : whole_(true), integer_(value) {}
  explicit Unboxed(double value) : whole_(false), real_(value) {}

  bool whole() const { return whole_; }
  std::int64_t integer() const { return integer_; }
  double real() const { return whole_ ? static_cast<double>(integer_) : real_; }

  friend Unboxed operator+(Unboxed a, Unboxed b) {
    return a.whole_ && b.whole_ ? Unboxed(a.integer_ + b.integer_) : Unboxed(a.real() + b.real());
  }
  friend Unboxed increased(Unboxed value, Unboxed more) { return value + more; }
  friend Unboxed operator-(Unboxed a, Unboxed b) {
    return a.whole_ && b.whole_ ? Unboxed(a.integer_ - b.integer_) : Unboxed(a.real() - b.real());
  }
  friend bool operator<(Unboxed a, Unboxed b) {
    return a.whole_ && b.whole_ ? a.integer_ < b.integer_ : a.real() < b.real();
  }
  friend bool operator<=(Unboxed a, Unboxed b) {
    return a.whole_ && b.whole_ ? a.integer_ <= b.integer_ : a.real() <= b.real();
  }
  friend bool operator>(Unboxed a, Unboxed b) { return b < a; }
  friend bool operator>=(Unboxed a, Unboxed b) { return b <= a; }

  friend bool is_true(Unboxed value) {
    return value.whole_ ? value.integer_ != 0 : value.real_ != 0;
  }
  friend bool is_infinite(Unboxed value) { return !value.whole_ && std::isinf(value.real_); }

 private:
  bool whole_;
  union {
    std::int64_t integer_;
    double real_;
  };
};

}  // namespace decision_bounds::binding
