// A share: what one admitted call holds of one bound, given back exactly once.
#pragma once

#include <utility>

namespace decision_bounds {

/// Gives the share back, counting `reply` (none: the call was not paid). `exchange()` takes what is
/// owed out of the share and leaves nothing, in one step that no other thread can come between; so
/// of two settles that race one gives back, and a give-back that fails is not tried again.
template <class Share, class Reply>
void settle(Share&& share, const Reply& reply) {
  if (auto owed = share.exchange()) std::move (*owed)(reply);
}

}  // namespace decision_bounds
