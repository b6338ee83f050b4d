// The module's functions, `never`, `_nothing` and `_wait`, and what makes the defaults of fields.

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

PyObject* wait(PyObject* module_reference, PyObject* const* arguments, Py_ssize_t count) {
  if (count != 4) {
    PyErr_SetString(PyExc_TypeError, "a native function takes all of its arguments");
    return nullptr;
  }
  return translated([&] {
    const Ref module = module_behind(module_reference);
    const State& state = *state_of_module(module.get());
    const auto stopping = [&] { return truth(call(arguments[1]).get()); };
    CallersCondition changed{state, arguments[0]};
    return wait_step(state, changed, stopping, arguments[2], arguments[3]) ? Ref() : none();
  });
}

PyObject* make_held(PyObject* module_reference, PyObject*) {
  return translated([&] {
    const Ref module = module_behind(module_reference);
    return call(reinterpret_cast<PyObject*>(state_of_module(module.get())->held.type));
  });
}

PyObject* make_condition(PyObject* module_reference, PyObject*) {
  return translated([&] {
    const Ref module = module_behind(module_reference);
    State& state = *state_of_module(module.get());
    return binding::make_condition(state, plain_condition(state));
  });
}

PyMethodDef default_factories[] = {
    {"_Held", make_held, METH_NOARGS, nullptr},
    {"Condition", make_condition, METH_NOARGS, nullptr},
};

Method methods[] = {
    method<never, 0>("never"),
    method<nothing, 1>("_nothing"),
    {{"_wait", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(wait)), METH_FASTCALL,
      nullptr},
     nullptr},
};

}  // namespace

std::span<Method> functions() { return methods; }
std::span<PyMethodDef> factories() { return default_factories; }

}  // namespace decision_bounds::binding
