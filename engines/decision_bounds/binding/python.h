// The interpreter as the rest of the binding meets it: owned references, errors as C++ exceptions,
// and the scopes for its global lock.
//
// A daemon thread that asks for the interpreter while it finalises is ended by pthread_exit, which
// unwinds the C++ frames below it: destructors would then touch objects without the interpreter,
// and the first noexcept one would abort the process. Every call that can lead there stands under
// `StayPut`, which parks such a thread for good instead; nothing catches everything.
#pragma once

#include <Python.h>

#include <atomic>
#include <chrono>
#include <initializer_list>
#include <thread>
#include <utility>

namespace decision_bounds::binding {

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

/// Runs a call into the interpreter that may run Python code.
template <class Call>
auto guarded(Call&& call) {
  StayPut guard;
  auto result = call();
  guard.passed();
  return result;
}

/// Gives up a reference that may be the last one: what goes away may run anything.
[[gnu::noinline]] inline void let_go_of_last(PyObject* object) {
  StayPut guard;
  Py_DECREF(object);
  guard.passed();
}

inline void let_go(PyObject* object) {
#ifndef Py_GIL_DISABLED
  if (Py_REFCNT(object) > 1) [[likely]] {
    Py_DECREF(object);
    return;
  }
#endif
  let_go_of_last(object);
}

/// An owned reference, or none. Made only by `steal`, `maybe` and `borrow`.
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
    if (object_ != nullptr) let_go(object_);
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
  static Ref maybe(PyObject* object) { return Ref(object); }
  static Ref borrow(PyObject* object) { return Ref(Py_XNewRef(object)); }

 private:
  explicit Ref(PyObject* object) : object_(object) {}
  PyObject* object_ = nullptr;
};

inline void check(int status) {
  if (status < 0) throw PythonError();
}

/// One level of calls from native code into callables, which may come back here without a frame of
/// Python's between: as deep as Python's own calls go by default, which a thread's stack allows.
class Deeper {
 public:
  Deeper() {
    if (depth_ >= kMost) [[unlikely]]
      refuse();
    ++depth_;
  }
  ~Deeper() { --depth_; }
  Deeper(const Deeper&) = delete;
  Deeper& operator=(const Deeper&) = delete;

 private:
  static constexpr int kMost = 1000;
  [[noreturn]] static void refuse();
  static inline constinit thread_local int depth_ = 0;
};

inline bool truth(PyObject* object) {
  if (object == Py_True) return true;
  if (object == Py_False) return false;
  const Deeper level;
  const int result = guarded([&] { return PyObject_IsTrue(object); });
  check(result);
  return result != 0;
}

inline Ref call(PyObject* callable) {
  const Deeper level;
  return Ref::steal(guarded([&] { return PyObject_CallNoArgs(callable); }));
}

inline Ref call(PyObject* callable, PyObject* argument) {
  const Deeper level;
  return Ref::steal(guarded([&] { return PyObject_CallOneArg(callable, argument); }));
}

inline Ref call_method(PyObject* self, PyObject* name, std::initializer_list<PyObject*> more = {}) {
  PyObject* arguments[4] = {self};
  std::size_t count = 1;
  for (PyObject* argument : more) arguments[count++] = argument;
  const Deeper level;
  return Ref::steal(guarded([&] {
    return PyObject_VectorcallMethod(name, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                     nullptr);
  }));
}

inline Ref attribute(PyObject* self, PyObject* name) {
  const Deeper level;
  return Ref::steal(guarded([&] { return PyObject_GetAttr(self, name); }));
}

/// The core's host for blocking: this interpreter.
struct Interpreter {
#ifdef Py_GIL_DISABLED
  static constexpr bool kSerialized = false;
#else
  static constexpr bool kSerialized = true;
#endif

  class Unlocked {
   public:
    Unlocked() : thread_(PyEval_SaveThread()) {}
    ~Unlocked() noexcept(false) {
      StayPut guard;
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
  static bool interrupted() {
    return guarded([] { return PyErr_CheckSignals(); }) < 0;
  }
  [[noreturn]] static void throw_interrupt() { throw PythonError(); }
};

/// An error that was pending, kept while other steps run.
class KeptError {
 public:
  template <class Steps>
  static KeptError attempt(Steps&& steps) {
    KeptError kept;
    try {
      steps();
    } catch (const PythonError&) {
      kept.error_ = Ref::steal(PyErr_GetRaisedException());
    }
    return kept;
  }
  void rethrow() const {
    if (!error_) return;
    PyErr_SetRaisedException(Ref(error_).release());
    throw PythonError();
  }

 private:
  Ref error_;
};

}  // namespace decision_bounds::binding
