// The module's own condition: what `_changed` of a budget or an account is.
#pragma once

#include "decision_bounds/binding/interpreter/error.h"
#include "decision_bounds/binding/interpreter/interpreter.h"
#include "decision_bounds/binding/interpreter/value.h"
#include "decision_bounds/binding/surface/state.h"
#include "decision_bounds/sync/monitor.h"

namespace decision_bounds::binding {

using Monitor = decision_bounds::Monitor<Interpreter>;
using Wish = Interpreter::Wish;

extern PyType_Spec condition_spec;

/// A condition as `condition_class` makes one: of the module's own kind, if that is the class it is
/// made to stand for and `threading` has the interpreter's own locks.
Ref make_condition(State& state, PyObject* condition_class);
/// The class that the module's own kind stands for.
PyObject* plain_condition(const State& state);

/// The monitor of a condition of the module's own whose methods nobody has replaced; null for any
/// other object, which is to be used through its methods.
Monitor* native_monitor(const State& state, PyObject* condition);

/// Leaves pending what says that this thread does not hold the lock.
void set_unowned_error(const char* what);

/// Seconds as the interpreter's locks take them, none for None; throws their errors.
std::optional<Duration> to_timeout(Value seconds);

}  // namespace decision_bounds::binding
