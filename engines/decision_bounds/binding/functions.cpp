// The module's functions: `never`, `_nothing` and `_wait`.

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

namespace {

Ref never(PyObject* const*) noexcept { return Ref::borrow(Py_False); }

Ref nothing(PyObject* const*) noexcept { return none(); }

/// The condition that the caller holds: used through its methods, whosever it is.
struct CallersCondition {
  const State& state;
  PyObject* condition;
  void wait(Value timeout) const { call_method(condition, state.names.wait, {timeout}); }
};

PyObject* wait(PyObject* module, PyObject* const* arguments, Py_ssize_t count) {
  if (count != 4) {
    PyErr_SetString(PyExc_TypeError, "a native function takes all of its arguments");
    return nullptr;
  }
  const State& state = *state_of_module(module);
  return translated([&] {
    const auto stopping = [&] { return truth(call(arguments[1]).get()); };
    CallersCondition changed{state, arguments[0]};
    return wait_step(state, changed, stopping, arguments[2], arguments[3]) ? Ref() : none();
  });
}

Method methods[] = {
    method<never, 0>("never"),
    method<nothing, 1>("_nothing"),
    {{"_wait", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(wait)), METH_FASTCALL,
      nullptr},
     nullptr},
};

}  // namespace

std::span<Method> functions() { return methods; }

}  // namespace decision_bounds::binding
