// This interpreter, as the core's host for threads.
#pragma once

#include <atomic>

#include "decision_bounds/binding/interpreter/reference.h"
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
  static bool interrupted() {
    return guarded([] {
      if (watches_interrupts() && PyErr_CheckSignals() < 0) return true;
      // Only code of Python's that begins to run delivers an asynchronous exception.
      if (std::atomic_ref(PyThreadState_Get()->async_exc).load() == nullptr) [[likely]]
        return false;
      const Ref nothing =
          Ref::steal_or_null(Py_CompileString("None", "<interrupt>", Py_eval_input));
      const Ref globals = Ref::steal_or_null(PyDict_New());
      if (!nothing || !globals) return true;
      return !Ref::steal_or_null(PyEval_EvalCode(nothing.get(), globals.get(), globals.get()));
    });
  }

  /// Room for `amount` of the bound at an address, which is only compared.
  struct Wish {
    const void* bound;
    double amount;
  };
};
static_assert(ThreadHost<Interpreter>);

}  // namespace decision_bounds::binding
