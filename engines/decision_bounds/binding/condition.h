// The module's own condition: what `_changed` of a budget or an account is, and how one that is not
// ours is used instead.
#pragma once

#include "decision_bounds/binding/state.h"
#include "decision_bounds/binding/translate.h"
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

/// `condition.__enter__()` and `__exit__(...)`, looked up on the type as a `with` statement does.
/// `leave_with_error` hands over the pending error and leaves that pending.
void enter(const State& state, PyObject* condition);
void leave(const State& state, PyObject* condition);
void leave_with_error(const State& state, PyObject* condition);

/// Runs `body` with a condition of somebody else's held, as a `with` statement does.
template <class Body>
[[gnu::cold, gnu::noinline]] auto with_foreign_condition(const State& state, PyObject* condition, Body&& body) {
  if constexpr (std::is_void_v<decltype(body())>) {
    with_foreign_condition(state, condition, [&] {
      body();
      return true;
    });
  } else {
    enter(state, condition);
    std::optional<decltype(body())> result;
    try {
      result = body();
    } catch (const PythonError&) {
      leave_with_error(state, condition);
      throw;
    } catch (const std::exception&) {
      raise_caught(state.globals);
      leave_with_error(state, condition);
      throw PythonError();
    }
    leave(state, condition);
    return *std::move(result);
  }
}

}  // namespace decision_bounds::binding
