// The one wait step of every admission that finds no room.
#pragma once

#include <optional>

#include "decision_bounds/errors.h"
#include "decision_bounds/number.h"

namespace decision_bounds {

/// Sleeps in the `condition`, which the calling thread holds before and after, until it is called,
/// for at most `call.poll()` seconds, and no longer than the call's deadline leaves on its clock
/// where it has both. Answers how the admission ends, before any sleep: stopped, then timed out; or
/// nothing, and the caller looks for room again. After the sleep neither is looked at.
template <class Call, class Condition>
std::optional<Outcome> wait(Call& call, Condition& condition) {
  if (call.stopping()) return call.refuse(Outcome::stopped);
  auto timeout = call.poll();
  if (const auto deadline = call.deadline()) {
    using Number = decltype(timeout);
    const Number left = *deadline - call.now();
    if (left <= Number(0)) return call.refuse(Outcome::timed_out);
    timeout = smaller(timeout, left);
  }
  condition.wait(timeout);
  return std::nullopt;
}

}  // namespace decision_bounds
