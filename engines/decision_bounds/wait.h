// The one wait step of every admission that finds no room.
#pragma once

#include <optional>

#include "decision_bounds/errors.h"
#include "decision_bounds/number.h"

namespace decision_bounds {

/// Sleeps in `place`, a thread's place among the waiters of a bound's condition, until it is
/// called, for at most `poll()` seconds, and no longer than `deadline` leaves on `clock` where both
/// are given. The calling thread holds the condition before and after. Answers how the admission
/// ends, before any sleep: stopped, then timed out; or nothing, and the caller looks for room
/// again. After the sleep neither is looked at.
template <class Place, class Stopping, class Number, class Clock, class Poll>
std::optional<Outcome> wait(Place& place, Stopping&& stopping,
                            const std::optional<Number>& deadline,
                            const std::optional<Clock>& clock, Poll&& poll) {
  if (stopping()) return Outcome::stopped;
  Number timeout = poll();
  if (deadline && clock) {
    const Number left = *deadline - (*clock)();
    if (left <= Number(0)) return Outcome::timed_out;
    timeout = smaller(timeout, left);
  }
  place.wait(timeout);
  return std::nullopt;
}

}  // namespace decision_bounds
