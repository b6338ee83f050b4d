#include "decision_bounds/binding/interpreter/interpreter.h"

#include "decision_bounds/binding/interpreter/reference.h"

namespace decision_bounds::binding {

bool Interpreter::interrupted() {
  return guarded([] {
    if (watches_interrupts() && PyErr_CheckSignals() < 0) return true;
    // Only code of Python's that begins to run delivers an asynchronous exception.
    if (std::atomic_ref(PyThreadState_Get()->async_exc).load() == nullptr) [[likely]]
      return false;
    const Ref nothing = Ref::steal_or_null(Py_CompileString("None", "<interrupt>", Py_eval_input));
    const Ref globals = Ref::steal_or_null(PyDict_New());
    if (!nothing || !globals) return true;
    return !Ref::steal_or_null(PyEval_EvalCode(nothing.get(), globals.get(), globals.get()));
  });
}

}  // namespace decision_bounds::binding
