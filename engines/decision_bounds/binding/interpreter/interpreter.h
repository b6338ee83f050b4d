// This interpreter, as the core's host for threads.
#pragma once

#include <atomic>

#include "decision_bounds/binding/interpreter/guarded.h"
#include "decision_bounds/sync/host.h"

namespace decision_bounds::binding {

/// The core's host for blocking: this interpreter.
struct Interpreter : SystemThreads {
  static constexpr bool kSerialized = binding::kSerialized;

  class Unlocked {
   public:
    Unlocked() : thread_(PyEval_SaveThread()) {}
    ~Unlocked() noexcept(false) {
      ParkIfEnded guard;
      PyEval_RestoreThread(thread_);
      guard.passed();
    }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

   private:
    PyThreadState* thread_;
  };

  /// Signals are delivered to the main thread.
  static bool watches_interrupts() { return PyThread_get_thread_ident() == main_thread; }
  static inline std::atomic<unsigned long> main_thread{0};
  /// Delivers what is pending for this thread, signals and asynchronous exceptions; true leaves an
  /// error pending. None is pending before.
  static bool interrupted();

  /// Room for `amount` of the bound at an address, which is only compared.
  struct Wish {
    const void* bound;
    double amount;
  };
};
static_assert(ThreadHost<Interpreter>);

}  // namespace decision_bounds::binding
