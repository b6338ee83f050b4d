// What stands around every call that may run Python code.
//
// A daemon thread that asks for the interpreter while it finalises is ended by pthread_exit, which
// unwinds the C++ frames below it: destructors would then touch objects without the interpreter,
// and the first noexcept one would abort the process. Every call that can lead there stands under
// `guarded`, which parks such a thread for good instead. No handler catches every exception: it
// would catch that one too.
#pragma once

#include <Python.h>

#include <chrono>
#include <thread>

namespace decision_bounds::binding {

/// Whether one global lock orders all that the interpreter's threads do.
#ifdef Py_GIL_DISABLED
inline constexpr bool kSerialized = false;
#else
inline constexpr bool kSerialized = true;
#endif

/// An error is pending in the interpreter.
struct PythonError {};

/// Out of line, so that what may fail stays small.
[[noreturn, gnu::cold, gnu::noinline]] inline void throw_pending() { throw PythonError(); }

/// Turns the forced unwinding of a thread that the interpreter ends into a sleep without end.
class ParkIfEnded {
 public:
  ParkIfEnded() = default;
  ParkIfEnded(const ParkIfEnded&) = delete;
  ParkIfEnded& operator=(const ParkIfEnded&) = delete;
  ~ParkIfEnded() {
    while (armed_) std::this_thread::sleep_for(std::chrono::hours(24));
  }
  void passed() { armed_ = false; }

 private:
  bool armed_ = true;
};

class CallScope;
/// The scope of the native call that runs on this thread. While Python code runs it may be any
/// other's, also of a stack that a greenlet switched out: `guarded` puts it right again.
inline constinit thread_local CallScope* running_scope = nullptr;

/// Runs a call into the interpreter that may run Python code.
template <class Call>
auto guarded(Call&& call) {
  CallScope* const scope = running_scope;
  ParkIfEnded guard;
  auto result = call();
  guard.passed();
  running_scope = scope;
  return result;
}

}  // namespace decision_bounds::binding
