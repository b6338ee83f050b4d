// The module's functions: `never`, `_nothing` and `_wait`.

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/wait.h"

namespace decision_bounds::binding {

namespace {

Ref never(PyObject* const*) noexcept { return Ref::borrow(Py_False); }

Ref nothing(PyObject* const*) noexcept { return none(); }

// The condition is the caller's to hold: it is used through its methods, whosever it is.
PyObject* wait(PyObject* module, PyObject* const* arguments, Py_ssize_t count) {
  if (count != 4) {
    PyErr_SetString(PyExc_TypeError, "a native function takes all of its arguments");
    return nullptr;
  }
  const State& state = *state_of_module(module);
  return translated(state.globals, [&] {
    const auto stopping = [&] { return truth(call(arguments[1]).get()); };
    wait_step(state, ForeignCondition{state, arguments[0]}, stopping, arguments[2], arguments[3]);
    return none();
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
