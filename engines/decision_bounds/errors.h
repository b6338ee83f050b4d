// The errors of the core's own, each with its one message. They carry no interpreter state: the
// host turns them into what its callers see. Whatever the host's own callables throw passes through
// the core untouched, and no algorithm here catches everything.
#pragma once

#include <stdexcept>
#include <string>

namespace decision_bounds {

/// The pass that a call belongs to has been asked to stop.
struct Stopped : std::runtime_error {
  Stopped() : std::runtime_error("the pass was asked to stop") {}
};

/// A call ran out of its deadline while it waited for room.
struct TimedOut : std::runtime_error {
  TimedOut()
      : std::runtime_error(
            "the decision call ran out of its deadline while the calls in flight held the rest of "
            "the daily cost cap") {}
};

/// Settled spend has filled a bound.
struct BudgetExceeded : std::runtime_error {
  explicit BudgetExceeded(const std::string& message) : std::runtime_error(message) {}
};

/// A thread came back for a plain mutex that it holds already, where waiting would hang it.
struct Reentered : std::runtime_error {
  Reentered()
      : std::runtime_error(
            "RequestRates was called again from inside its own learn(), cost() or tokens()") {}
};

}  // namespace decision_bounds
