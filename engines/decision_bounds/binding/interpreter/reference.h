// Owned references, the interpreter's errors as C++ exceptions, and what stands around every call
// that may run Python code.
//
// A daemon thread that asks for the interpreter while it finalises is ended by pthread_exit, which
// unwinds the C++ frames below it: destructors would then touch objects without the interpreter,
// and the first noexcept one would abort the process. Every call that can lead there stands under
// `StayPut`, which parks such a thread for good instead. No handler catches every exception: it
// would catch that one too.
#pragma once

#include <Python.h>

#include <chrono>
#include <cstdint>
#include <new>
#include <thread>
#include <utility>

namespace decision_bounds::binding {

/// Whether one global lock orders all that the interpreter's threads do.
#ifdef Py_GIL_DISABLED
inline constexpr bool kSerialized = false;
#else
inline constexpr bool kSerialized = true;
#endif

/// An error is pending in the interpreter.
struct PythonError {};

/// Turns the forced unwinding of a thread that the interpreter ends into a sleep without end.
class StayPut {
 public:
  StayPut() = default;
  StayPut(const StayPut&) = delete;
  StayPut& operator=(const StayPut&) = delete;
  ~StayPut() {
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
  StayPut guard;
  auto result = call();
  guard.passed();
  running_scope = scope;
  return result;
}

/// Gives up a reference that may be the last one: what goes away may run anything.
[[gnu::noinline]] inline void decref_last(PyObject* object) {
  guarded([&] {
    Py_DECREF(object);
    return true;
  });
}

inline void decref(PyObject* object) {
#ifndef Py_GIL_DISABLED
  // In 32 bits, that of an object which is never counted is below zero.
  const auto count = static_cast<std::int32_t>(Py_REFCNT(object));
  if (count > 1) [[likely]]
    return Py_DECREF(object);
  if (count < 0) return;
#endif
  decref_last(object);
}

/// An owned reference, or none. Made only by `steal`, `steal_or_null` and `borrow`.
class Ref {
 public:
  Ref() = default;
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Ref(const Ref& other) noexcept : object_(Py_XNewRef(other.object_)) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Ref() {
    if (object_ != nullptr) decref(object_);
  }

  PyObject* get() const { return object_; }
  PyObject* release() { return std::exchange(object_, nullptr); }
  explicit operator bool() const { return object_ != nullptr; }

  /// Owns what a call gave; throws where it gave an error.
  static Ref steal(PyObject* object) {
    if (object == nullptr) throw PythonError();
    return Ref(object);
  }
  /// Owns what a call gave, an error's null included.
  static Ref steal_or_null(PyObject* object) { return Ref(object); }
  static Ref borrow(PyObject* object) { return Ref(Py_XNewRef(object)); }

 private:
  explicit Ref(PyObject* object) : object_(object) {}
  PyObject* object_ = nullptr;
};

/// None, which is never counted.
inline Ref none() { return Ref::steal(Py_None); }

inline void check(int status) {
  if (status < 0) throw PythonError();
}

/// The error of some steps, kept while others run.
class KeptError {
 public:
  /// Runs `steps`, which throw, or answer false with the error pending.
  template <class Steps>
  static KeptError attempt(Steps&& steps) {
    KeptError kept;
    try {
      if (steps()) [[likely]]
        return kept;
    } catch (const PythonError&) {
      kept.thrown_ = true;
    } catch (const std::bad_alloc&) {
      PyErr_NoMemory();
      kept.thrown_ = true;
    }
    kept.error_ = Ref::steal_or_null(PyErr_GetRaisedException());
    return kept;
  }
  bool failed() const { return static_cast<bool>(error_); }
  /// Leaves the error pending, and throws where the steps did.
  void rethrow() const {
    PyErr_SetRaisedException(Ref(error_).release());
    if (thrown_) throw PythonError();
  }

 private:
  Ref error_;
  bool thrown_ = false;
};

}  // namespace decision_bounds::binding
