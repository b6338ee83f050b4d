// The module's own condition: what `_changed` of a budget or an account is, and how one that is not
// ours is used instead.
#pragma once

#include "decision_bounds/binding/interpreter/state.h"
#include "decision_bounds/binding/interpreter/translate.h"
#include "decision_bounds/binding/interpreter/value.h"
#include "decision_bounds/sync/monitor.h"

namespace decision_bounds::binding {

using Monitor = decision_bounds::Monitor<Interpreter>;

/// One hold of a monitor's lock, released on every way out. An interrupt that ends a blocked wait
/// is thrown; one that ends the sleep of the only hold leaves without the lock.
class Locked {
 public:
  explicit Locked(Monitor& monitor, bool interruptible = true) : monitor_(monitor) {
    if (!monitor.lock(interruptible)) throw PythonError();
  }
  ~Locked() { monitor_.unlock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

  void sleep(Monitor::Place& place, std::optional<Duration> timeout) {
    if (monitor_.sleep(place, timeout, WayBack::at_once) == Wake::interrupted) throw PythonError();
  }
  Monitor& monitor() { return monitor_; }

 private:
  Monitor& monitor_;
};

extern PyType_Spec condition_spec;

/// The monitor of a condition of the module's own whose methods nobody has replaced; null for any
/// other object, which is to be used through its methods.
Monitor* native_monitor(const State& state, PyObject* condition);

/// Seconds as the interpreter's locks take them, none for None; throws their errors.
std::optional<Duration> to_timeout(Value seconds);

/// A condition of somebody else's, entered and left as a `with` statement does it: both methods are
/// looked up on its type before the first is called.
class Foreign {
 public:
  Foreign(const State& state, PyObject* condition);
  void enter() const { call(enter_.get()); }
  void exit() const { exit_with(Py_None, Py_None, Py_None); }
  /// Hands over the pending error and leaves that pending.
  void exit_with_error() const;

 private:
  void exit_with(PyObject* type, PyObject* error, PyObject* traceback) const;

  Ref enter_;
  Ref exit_;
};

/// Runs `body` with a condition of somebody else's held.
template <class Body>
[[gnu::cold, gnu::noinline]] auto with_foreign_condition(const State& state, PyObject* condition,
                                                         Body&& body) {
  if constexpr (std::is_void_v<decltype(body())>) {
    with_foreign_condition(state, condition, [&] {
      body();
      return true;
    });
  } else {
    const Foreign foreign(state, condition);
    foreign.enter();
    std::optional<decltype(body())> result;
    try {
      result = body();
    } catch (const PythonError&) {
      foreign.exit_with_error();
      throw;
    } catch (const std::exception& error) {
      raise_for(error, state.globals);
      foreign.exit_with_error();
      throw PythonError();
    }
    foreign.exit();
    return *std::move(result);
  }
}

}  // namespace decision_bounds::binding
