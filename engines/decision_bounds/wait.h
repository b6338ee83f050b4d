// The one wait step of every admission that finds no room.
#pragma once

#include <optional>

#include "decision_bounds/errors.h"
#include "decision_bounds/number.h"

namespace decision_bounds {

/// Sleeps on `changed` until it is notified, for at most `poll()` seconds, and no longer than
/// `deadline` leaves on `clock` where both are given. The calling thread holds `changed` before and
/// after, also when this throws. Throws Stopped, then TimedOut, before any sleep; neither is looked
/// at again after it, which the caller's next round does.
template <class Changed, class Stopping, class Number, class Clock, class Poll>
void wait(const Changed& changed, Stopping&& stopping, const std::optional<Number>& deadline,
          const std::optional<Clock>& clock, Poll&& poll) {
  if (stopping()) throw Stopped();
  Number timeout = poll();
  if (deadline && clock) {
    const Number left = *deadline - (*clock)();
    if (left <= Number(0)) throw TimedOut();
    timeout = smaller(timeout, left);
  }
  changed.wait(timeout);
}

}  // namespace decision_bounds
