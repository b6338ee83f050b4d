// The extension module: its functions, its definition and its life in one interpreter.

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/condition.h"
#include "decision_bounds/binding/interpreter/interpreter.h"
#include "decision_bounds/binding/wait.h"
#include "decision_bounds/sync/thread.h"
#include "stub.h"

namespace decision_bounds::binding {

namespace {

/// The condition that the caller holds: used through its methods, whosever it is.
struct CallersCondition {
  const State& state;
  PyObject* condition;
  void wait(Value timeout) const { call_method(condition, state.names.wait, {timeout}); }
};

PyObject* after_fork(PyObject*, PyObject*) {
  note_fork();
  Interpreter::main_thread = PyThread_get_thread_ident();
  Py_RETURN_NONE;
}

PyMethodDef fork_hook = {"_after_fork", after_fork, METH_NOARGS, nullptr};

// The process's, whichever interpreter asks, and in whichever thread it runs.
void find_main_thread() {
  const Ref ident = call(import_attribute("_thread", "_get_main_thread_ident").get());
  const unsigned long id = PyLong_AsUnsignedLong(ident.get());
  if (PyErr_Occurred() != nullptr) throw PythonError();
  Interpreter::main_thread = id;
}

void watch_forks() {
  const Ref os = Ref::steal(PyImport_ImportModule("os"));
  const Ref registrar = Ref::steal_or_null(PyObject_GetAttrString(os.get(), "register_at_fork"));
  if (!registrar) {
    PyErr_Clear();  // a platform that does not fork
    return;
  }
  const Ref hook = Ref::steal(PyCFunction_New(&fork_hook, nullptr));
  const Ref keywords = Ref::steal(Py_BuildValue("{s:O}", "after_in_child", hook.get()));
  const Ref none = Ref::steal(PyTuple_New(0));
  Ref::steal(PyObject_Call(registrar.get(), none.get(), keywords.get()));
}

// A method of threading.Condition's that only calls the same of `_lock`, as its code tells; none
// where somebody has put another in its place.
Ref asks_lock(PyObject* condition, const char* name) {
  Ref method = Ref::steal(PyObject_GetAttrString(condition, name));
  if (!PyFunction_Check(method.get())) return Ref();
  const Ref names =
      Ref::steal(PyObject_GetAttrString(PyFunction_GET_CODE(method.get()), "co_names"));
  const Ref expected = Ref::steal(Py_BuildValue("(ss)", "_lock", name));
  const int same = PyObject_RichCompareBool(names.get(), expected.get(), Py_EQ);
  check(same);
  return same != 0 ? method : Ref();
}

int execute(PyObject* module) {
  State& state = *new (PyModule_GetState(module)) State();
  state.module = module;
  state.globals = PyModule_GetDict(module);
  const Ref done = Ref::steal_or_null(translated([&] {
    state.names.intern();
    state.field_type =
        Ref::steal(PyType_FromModuleAndSpec(module, &field_descriptor_spec, nullptr));
    state.threading.import();
    const Ref base = state.threading.get("Condition");
    state.condition_type =
        Ref::steal(PyType_FromModuleAndSpec(module, &condition_spec, base.get()));
    state.condition_enter = asks_lock(base.get(), "__enter__");
    state.condition_exit = asks_lock(base.get(), "__exit__");
    state.rlock.find();
    state.partial = import_attribute("functools", "partial");
    state.round = import_attribute("builtins", "round");
    const ClassSpec classes[] = {share_class(), held_class(),   charges_class(),
                                 rates_class(), budget_class(), spend_class()};
    bind_surface(state, classes, stub::Functions::methods());
    state.never = state.global(state.names.never);
    state.wait = state.global(state.names.wait_private);
    find_main_thread();
    watch_forks();
    return none();
  }));
  return done ? 0 : -1;
}

int traverse(PyObject* module, visitproc visit, void* arg) {
  State* const state = state_of_module(module);
  return state == nullptr ? 0 : state->traverse(visit, arg);
}

int clear(PyObject* module) {
  if (State* const state = state_of_module(module)) state->clear();
  return 0;
}

void free(void* module) {
  auto* const object = static_cast<PyObject*>(module);
  State* const state = state_of_module(object);
  if (state == nullptr || state->module == nullptr) return;
  state->clear();
  state->names.clear();
  state->~State();
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {Py_mod_gil, Py_MOD_GIL_NOT_USED},
    {0, nullptr},
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

PyModuleDef module_definition = {
    PyModuleDef_HEAD_INIT,
    "korvane.engines.decision_bounds",
    nullptr,
    sizeof(State),
    nullptr,
    slots,
    traverse,
    clear,
    free,
};

}  // namespace decision_bounds::binding

PyMODINIT_FUNC PyInit_decision_bounds() {
  return PyModuleDef_Init(&decision_bounds::binding::module_definition);
}
