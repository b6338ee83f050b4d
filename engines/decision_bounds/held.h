// The tally of what the admitted calls hold of one bound, and the admission rule.
//
// The functions work on any tally that gives `holders()`, the calls that hold a share, bounded or
// not, `amount()`, the sum of the bounded shares, `unbounded()`, the calls whose share is infinite,
// and their setters. A tally has no lock: its owner's is held around every call, and
// the check and the matching `take` stand in one hold of it. What can fail is computed before
// anything is set, so that a failure leaves the tally as it was.
#pragma once

#include "decision_bounds/number.h"

namespace decision_bounds {

/// Whether a call that would hold `share` may start, where settled calls used `used` of `limit`.
/// Its own share is not added: the last call admitted below the limit may carry the total past it.
template <class Tally, class Number>
bool admits(const Tally& tally, const Number& share, const Number& used, const Number& limit) {
  if (is_true(tally.unbounded())) return false;
  if (is_infinite(share) && is_true(tally.holders())) return false;
  return used + tally.amount() < limit;
}

/// Records one more call that holds `share`.
template <class Tally, class Number>
void take(Tally&& tally, const Number& share) {
  const Number holders = increased(tally.holders(), Number(1));
  if (is_infinite(share)) {
    const Number unbounded = increased(tally.unbounded(), Number(1));
    tally.set_holders(holders);
    tally.set_unbounded(unbounded);
  } else {
    const Number amount = increased(tally.amount(), share);
    tally.set_holders(holders);
    tally.set_amount(amount);
  }
}

/// Undoes one `take` of the same share. Without one, every field stops at zero.
template <class Tally, class Number>
void give_back(Tally&& tally, const Number& share) {
  const Number holders = larger(Number(0), tally.holders() - Number(1));
  const bool last = !is_true(holders);
  if (is_infinite(share)) {
    const Number unbounded = larger(Number(0), tally.unbounded() - Number(1));
    tally.set_holders(holders);
    tally.set_unbounded(unbounded);
    if (last) tally.set_amount(Number(0.0));
  } else {
    // The last one out clears what rounding left behind.
    const Number amount = larger(Number(0.0), tally.amount() - share);
    tally.set_holders(holders);
    tally.set_amount(last ? Number(0.0) : amount);
  }
}

}  // namespace decision_bounds
