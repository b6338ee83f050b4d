// The objects that one native call keeps.
#pragma once

#include <memory>

#include "decision_bounds/binding/interpreter/reference.h"

namespace decision_bounds::binding {

/// One native call, from its begin to its return, on the stack: it owns the objects that values in
/// it stand for (see Value). It stands inside another only under the other's `guarded`, which has
/// that run again.
class CallScope {
  struct Kept {
    Kept* below;
    Ref object;
  };

 public:
  CallScope() { running_scope = this; }
  ~CallScope() {
    if (kept_ != nullptr) [[unlikely]]
      drop(nullptr);
  }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

  /// Owns `object` until the call that runs returns.
  [[gnu::cold, gnu::noinline]] static void keep(Ref object) {
    running_scope->kept_ = new Kept{running_scope->kept_, std::move(object)};
  }

  /// A point in a call that lasts, to which its rounds come back, so that what it keeps does not
  /// grow with them.
  class Checkpoint {
   public:
    /// Lets go of what the call kept since.
    void rewind() {
      if (running_scope->kept_ != kept_) [[unlikely]]
        running_scope->drop(kept_);
    }

   private:
    Kept* const kept_ = running_scope->kept_;
  };

 private:
  [[gnu::cold, gnu::noinline]] void drop(const Kept* down_to) {
    while (kept_ != down_to) {
      const std::unique_ptr<Kept> top(kept_);
      kept_ = top->below;
    }
  }

  Kept* kept_ = nullptr;
};

}  // namespace decision_bounds::binding
