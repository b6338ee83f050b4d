// The scope of one native call.
#pragma once

#include "decision_bounds/binding/interpreter/reference.h"

namespace decision_bounds::binding {

/// One native call, from its begin to its return, on the stack. It owns the objects that values in
/// it stand for (see Value). And it bounds how deep native calls stand inside each other, since
/// callables may lead back here without a frame of Python's between: as deep as Python's own calls
/// go by default, by the interpreter's account of its native stack, which greenlets have one each
/// of. A scope stands inside another only under the other's `guarded`, which has it run again.
class CallScope {
  struct Kept;

 public:
  CallScope() {
    if (thread_->c_recursion_remaining <= kWeight) [[unlikely]]
      refuse();
    thread_->c_recursion_remaining -= kWeight;
    running_scope = this;
  }
  ~CallScope() {
    thread_->c_recursion_remaining += kWeight;
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
  static constexpr int kWeight = Py_C_RECURSION_LIMIT < 2000 ? 1 : Py_C_RECURSION_LIMIT / 1000;
  [[noreturn]] static void refuse();
  [[gnu::cold, gnu::noinline]] void drop(Kept* down_to);

  PyThreadState* const thread_ = PyThreadState_GetUnchecked();
  Kept* kept_ = nullptr;
};

}  // namespace decision_bounds::binding
