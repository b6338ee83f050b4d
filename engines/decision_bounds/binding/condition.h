// The module's own condition: what `_changed` of a budget or an account is, and how one that is not
// ours is used instead.
#pragma once

#include "decision_bounds/binding/state.h"
#include "decision_bounds/binding/value.h"
#include "decision_bounds/locked.h"

namespace decision_bounds::binding {

using Monitor = decision_bounds::Monitor<Interpreter>;
using Locked = decision_bounds::Locked<Interpreter>;

extern PyType_Spec condition_spec;

/// The monitor of a condition of the module's own whose methods nobody has replaced; null for any
/// other object, which is to be used through its methods.
Monitor* native_monitor(const State& state, PyObject* condition);

/// Seconds as the interpreter's locks take them, none for None; throws their errors.
std::optional<Duration> to_timeout(const Value& seconds);

/// Calls `condition.__exit__` with the pending error and leaves that pending.
void leave_with_error(const State& state, PyObject* condition);

/// A condition of somebody else's, held through its methods. The error that ended the body is handed
/// to its __exit__, as a `with` statement does.
template <class Body>
auto with_foreign_condition(const State& state, PyObject* condition, Body&& body) {
  call_method(condition, state.names.enter);
  const auto leave = [&] { call_method(condition, state.names.exit, {Py_None, Py_None, Py_None}); };
  try {
    if constexpr (std::is_void_v<decltype(body())>) {
      body();
      leave();
    } else {
      auto result = body();
      leave();
      return result;
    }
  } catch (const PythonError&) {
    leave_with_error(state, condition);
    throw;
  } catch (const std::runtime_error&) {
    leave();
    throw;
  }
}

}  // namespace decision_bounds::binding
