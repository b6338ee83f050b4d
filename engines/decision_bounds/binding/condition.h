// The module's own condition: what `_changed` of a budget or an account is, and how one that is not
// ours is used instead.
#pragma once

#include "decision_bounds/binding/interpreter/state.h"
#include "decision_bounds/binding/interpreter/translate.h"
#include "decision_bounds/binding/interpreter/value.h"
#include "decision_bounds/sync/locked.h"

namespace decision_bounds::binding {

using Monitor = decision_bounds::Monitor<Interpreter>;
using Locked = decision_bounds::Locked<Interpreter>;

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
