// How deep native calls stand inside each other.
#pragma once

#include "decision_bounds/binding/interpreter/guarded.h"

namespace decision_bounds::binding {

/// Counts a native call to the end of the scope. Callables may lead back here without a frame of
/// Python's between: as deep as Python's own calls go by default, which a thread's stack allows.
/// Calls of greenlets that wait count among their thread's, though their part of the stack is put
/// away: beyond that depth the interpreter's own account decides, of which each greenlet has one.
class RecursionGuard {
 public:
  RecursionGuard() {
    if (depth_ >= kFreeDepth) [[unlikely]]
      charge();
    ++depth_;
  }
  ~RecursionGuard() {
    --depth_;
    if (charged_ != nullptr) [[unlikely]]
      charged_->c_recursion_remaining += kWeight;
  }
  RecursionGuard(const RecursionGuard&) = delete;
  RecursionGuard& operator=(const RecursionGuard&) = delete;

 private:
  static constexpr int kFreeDepth = 1000;
  // What a deeper call takes of the interpreter's account: 500 of them use it up.
  static constexpr int kWeight = Py_C_RECURSION_LIMIT < 1000 ? 1 : Py_C_RECURSION_LIMIT / 500;

  [[gnu::cold, gnu::noinline]] void charge() {
    PyThreadState* const thread = PyThreadState_Get();
    if (thread->c_recursion_remaining <= kWeight) {
      PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
      throw PythonError();
    }
    thread->c_recursion_remaining -= kWeight;
    charged_ = thread;
  }

  static inline constinit thread_local int depth_ = 0;
  PyThreadState* charged_ = nullptr;  // whose account a deeper call has charged
};

}  // namespace decision_bounds::binding
