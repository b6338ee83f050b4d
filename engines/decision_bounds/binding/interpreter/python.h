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
#include <new>
#include <thread>
#include <utility>

#include "decision_bounds/binding/interpreter/unboxed.h"
#include "decision_bounds/sync/host.h"

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
  if (Py_REFCNT(object) > 1) [[likely]] {
    Py_DECREF(object);
    return;
  }
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

/// One native call, from its begin to its return, on the stack. It owns the objects that values in
/// it stand for (see Value). And it bounds how deep native calls stand inside each other on their
/// thread, since callables may lead back here without a frame of Python's between: as deep as
/// Python's own calls go by default, which a thread's stack allows. A scope stands inside another
/// only under the other's `guarded`, which has it run again.
class CallScope {
  struct Kept;

 public:
  CallScope() {
    if (depth_ >= kMaxDepth) [[unlikely]]
      refuse();
    ++depth_;
    running_scope = this;
  }
  ~CallScope() {
    --depth_;
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
  static constexpr int kMaxDepth = 1000;
  [[noreturn]] static void refuse();
  [[gnu::cold, gnu::noinline]] void drop(Kept* down_to);
  static inline constinit thread_local int depth_ = 0;

  Kept* kept_ = nullptr;
};

inline bool truth(PyObject* object) {
  if (object == Py_True) return true;
  if (object == Py_False) return false;
  const int result = guarded([&] { return PyObject_IsTrue(object); });
  check(result);
  return result != 0;
}

/// Calls with `count` arguments, before the first of which there is room for one more. A function
/// of Python's is called as it is, without the checks that any other callable's result needs.
inline Ref call(PyObject* callable, PyObject* const* arguments, std::size_t count) {
  const std::size_t flags = count | PY_VECTORCALL_ARGUMENTS_OFFSET;
  return Ref::steal(guarded([&] {
    if (PyFunction_Check(callable)) [[likely]] {
      const vectorcallfunc function = reinterpret_cast<PyFunctionObject*>(callable)->vectorcall;
      return function(callable, arguments, flags, nullptr);
    }
    return PyObject_Vectorcall(callable, arguments, flags, nullptr);
  }));
}

inline Ref call(PyObject* callable) {
  PyObject* const arguments[] = {nullptr};
  return call(callable, arguments + 1, 0);
}

inline Ref call(PyObject* callable, PyObject* argument) {
  PyObject* const arguments[] = {nullptr, argument};
  return call(callable, arguments + 1, 1);
}

/// None, with the error pending, where that fails.
inline Ref attribute_or_null(PyObject* self, PyObject* name) {
  return Ref::steal_or_null(guarded([&] {
    // All that PyObject_GetAttr would add to this is one more call.
    if (Py_TYPE(self)->tp_getattro == PyObject_GenericGetAttr) [[likely]]
      return PyObject_GenericGetAttr(self, name);
    return PyObject_GetAttr(self, name);
  }));
}

inline Ref attribute(PyObject* self, PyObject* name) {
  return Ref::steal(attribute_or_null(self, name).release());
}

/// The core's host for blocking: this interpreter.
struct Interpreter : SystemThreads {
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
  /// Delivers what is pending for this thread, signals and asynchronous exceptions; true leaves an
  /// error pending. None is pending before.
  static bool interrupted();

  /// Room for `amount` of the bound at an address, which is only compared.
  struct Wish {
    const void* bound;
    Unboxed amount;
  };
};
static_assert(ThreadHost<Interpreter>);

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
