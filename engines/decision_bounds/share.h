// A share: what one admitted call holds of one bound, given back exactly once.
#pragma once

#include <utility>

#include "decision_bounds/errors.h"

namespace decision_bounds {

/// What an admission came to, with its share where it admitted.
template <class Share>
struct Admission {
  Outcome outcome;
  Share share;
};

/// Gives the share back, counting `reply` (none: the call was not paid). `exchange()` takes the
/// give-back out of the share and leaves nothing, in one step that no other thread can come
/// between; so of two settles that race one gives back, and a give-back that fails is not tried
/// again. False where the give-back failed.
template <class Share, class Reply>
bool settle(Share&& share, const Reply& reply) {
  auto give_back = share.exchange();
  return !give_back || std::move(*give_back)(reply);
}

}  // namespace decision_bounds
