// What the algorithms ask of a number, for hosts whose numbers are plain doubles. A host with a
// number type of its own provides the same functions beside it, where argument-dependent lookup
// finds them, together with the operators + - * / < <= > >=; any of them may throw the host's
// error.
#pragma once

#include <cmath>

namespace decision_bounds {

inline bool is_true(double value) { return value != 0.0; }
inline bool is_infinite(double value) { return std::isinf(value); }

/// What `value += more` leaves in `value`.
inline double increased(double value, double more) { return value + more; }

/// The larger of two, `first` unless `second` is strictly larger (so not-a-number in `second`
/// loses).
template <class Number>
Number larger(Number first, Number second) {
  return second > first ? second : first;
}

/// The smaller of two, `first` unless `second` is strictly smaller.
template <class Number>
Number smaller(Number first, Number second) {
  return second < first ? second : first;
}

}  // namespace decision_bounds
