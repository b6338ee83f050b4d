// How an admission ends, and what it is told. An outcome is a value: the host turns one that is not
// an admission into the error its callers see. What the host's own callables throw passes through
// the core untouched, and no algorithm here catches it.
#pragma once

namespace decision_bounds {

enum class Outcome {
  admitted,
  refused,    // what was settled fills the bound
  stopped,    // the pass was asked to stop
  timed_out,  // the deadline passed while the calls in flight held the rest
};

inline constexpr char kStoppedText[] = "the pass was asked to stop";
inline constexpr char kTimedOutText[] =
    "the decision call ran out of its deadline while the calls in flight held the rest of the "
    "daily cost cap";

}  // namespace decision_bounds
