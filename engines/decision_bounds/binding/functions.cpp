// The module's functions, and what makes the defaults of fields.

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/wait.h"
#include "stub.h"

namespace decision_bounds::binding {

namespace {

/// The condition that the caller holds: used through its methods, whosever it is.
struct CallersCondition {
  const State& state;
  PyObject* condition;
  void wait(Value timeout) const { call_method(condition, state.names.wait, {timeout}); }
};

}  // namespace

Ref stub::Functions::never(State&, PyObject* const*) { return Ref::retain(Py_False); }

Ref stub::Functions::nothing(State&, PyObject* const*) { return none(); }

Ref stub::Functions::wait(State& state, PyObject* const* arguments) {
  const auto stopping = [&] { return truth(call(arguments[1]).get()); };
  Waiting waiting(state, stopping, arguments[2], arguments[3]);
  CallersCondition changed{state, arguments[0]};
  return decision_bounds::wait(waiting, changed) ? Ref() : none();
}

Ref stub::Functions::make_Held(State& state, PyObject* const*) {
  return call(reinterpret_cast<PyObject*>(state.held.type));
}

Ref stub::Functions::make_Condition(State& state, PyObject* const*) {
  return make_condition(state, plain_condition(state));
}

std::span<Method> functions() { return stub::Functions::methods(); }

}  // namespace decision_bounds::binding
