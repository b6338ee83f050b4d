// The scope of one native call.
#pragma once

#include "decision_bounds/binding/interpreter/reference.h"

namespace decision_bounds::binding {

/// One native call, from its begin to its return, on the stack. It owns the objects that values in
/// it stand for (see Value). And it bounds how deep native calls stand inside each other, since
/// callables may lead back here without a frame of Python's between: as deep as Python's own calls
/// go by default, which a thread's stack allows. Those of greenlets that wait count among their
/// thread's, though their part of the stack is put away: beyond that depth the interpreter's own
/// account decides, of which each greenlet has one. A scope stands inside another only under the
/// other's `guarded`, which has it run again.
class CallScope {
  struct Kept;

 public:
  CallScope() {
    if (depth_ >= kFreeDepth) [[unlikely]]
      charge();
    ++depth_;
    running_scope = this;
  }
  ~CallScope() {
    --depth_;
    if (charged_ != nullptr) [[unlikely]]
      charged_->c_recursion_remaining += kWeight;
    if (kept_ != nullptr) [[unlikely]]
      drop(nullptr);
  }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

  /// Owns `object` until the call that runs returns; gives it back borrowed.
  [[gnu::cold, gnu::noinline]] static PyObject* keep(Ref object);

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
  static constexpr int kFreeDepth = 1000;
  // What a deeper call takes of the interpreter's account: 500 of them use it up.
  static constexpr int kWeight = Py_C_RECURSION_LIMIT < 1000 ? 1 : Py_C_RECURSION_LIMIT / 500;
  [[gnu::cold, gnu::noinline]] void charge();
  [[gnu::cold, gnu::noinline]] void drop(Kept* down_to);
  static inline constinit thread_local int depth_ = 0;

  PyThreadState* charged_ = nullptr;  // whose account a deeper call has charged
  Kept* kept_ = nullptr;
};

}  // namespace decision_bounds::binding
