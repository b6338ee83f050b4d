#include "decision_bounds/binding/lock.h"

#include <algorithm>
#include <array>

namespace decision_bounds::binding {

void Lock::wait(Value timeout) {
  if (monitor_ == nullptr) return foreign_->wait(timeout);
  const std::optional<Duration> limit = to_timeout(timeout);
  if (!monitor_->owned()) refuse("wait on");
  if (!place_) place_.emplace(*monitor_, wish_);
  if (monitor_->sleep(*place_, limit, WayBack::at_once) != Wake::interrupted) return;
  held_ = monitor_->owned();
  throw PythonError();
}

void Lock::refuse(const char* what) {
  PyErr_Format(PyExc_RuntimeError, "cannot %s un-acquired lock", what);
  throw PythonError();
}

void Lock::exit_slowly() const {
  if (monitor_ == nullptr) return foreign_->exit();
  Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  if (error && !held_) return PyErr_SetRaisedException(error.release());
  const bool refused = !completes([] { refuse("release"); });
  if (error && refused) {
    Ref refusal = Ref::steal_or_null(PyErr_GetRaisedException());
    PyException_SetContext(refusal.get(), error.release());
    PyErr_SetRaisedException(refusal.release());
  }
  throw PythonError();
}

namespace {

// As a `with` statement finds it: of the type, and not bound yet.
Ref special_method(PyObject* condition, PyObject* name, const char* format) {
  PyTypeObject* const type = Py_TYPE(condition);
  const Ref bases = Ref::retain(type->tp_mro);
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(bases.get()); ++i) {
    auto* const base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(bases.get(), i));
    const Ref attributes = Ref::steal(PyType_GetDict(base));
    PyObject* found = nullptr;
    check(guarded([&] { return PyDict_GetItemRef(attributes.get(), name, &found); }));
    if (found != nullptr) return Ref::steal(found);
  }
  PyErr_Format(PyExc_TypeError, format, type->tp_name);
  throw PythonError();
}

void call_special(PyObject* method, PyObject* condition, PyObject* const* arguments,
                  std::size_t count) {
  std::array<PyObject*, 4> all{condition};
  std::copy_n(arguments, count, all.begin() + 1);
  const bool takes_self = PyType_HasFeature(Py_TYPE(method), Py_TPFLAGS_METHOD_DESCRIPTOR);
  const descrgetfunc bind = Py_TYPE(method)->tp_descr_get;
  if (takes_self || bind == nullptr) {
    const std::size_t from = takes_self ? 0 : 1;
    call_with_flags(method, all.data() + from, 1 + count - from);
    return;
  }
  auto* const type = reinterpret_cast<PyObject*>(Py_TYPE(condition));
  const Ref bound = Ref::steal(guarded([&] { return bind(method, condition, type); }));
  call_with_flags(bound.get(), all.data() + 1, count);
}

}  // namespace

ForeignCondition::ForeignCondition(const State& state, PyObject* condition)
    : state_(state),
      condition_(condition),
      enter_(special_method(condition, state.names.enter,
                            "'%.200s' object does not support the context manager protocol")),
      exit_(special_method(condition, state.names.exit,
                           "'%.200s' object does not support the context manager protocol "
                           "(missed __exit__ method)")),
      by_lock_(enter_.get() == state.condition_enter.get() &&
               exit_.get() == state.condition_exit.get()) {}

void ForeignCondition::enter() const {
  if (by_lock_) {
    call_method(attribute(condition_, state_.names.lock).get(), state_.names.enter);
  } else {
    call_special(enter_.get(), condition_, nullptr, 0);
  }
}

void ForeignCondition::wait(Value timeout) const {
  call_method(condition_, state_.names.wait, {timeout});
}

void ForeignCondition::notify_all() const { call_method(condition_, state_.names.notify_all); }

void ForeignCondition::exit() const {
  const Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  PyObject* arguments[] = {Py_None, Py_None, Py_None};
  Ref traceback;
  if (error) {
    traceback = Ref::steal_or_null(PyException_GetTraceback(error.get()));
    arguments[0] = reinterpret_cast<PyObject*>(Py_TYPE(error.get()));
    arguments[1] = error.get();
    if (traceback) arguments[2] = traceback.get();
  }
  if (by_lock_) {
    const Ref lock = attribute(condition_, state_.names.lock);
    call_method(
        lock.get(), state_.names.exit,
        {Value::opaque(arguments[0]), Value::opaque(arguments[1]), Value::opaque(arguments[2])});
  } else {
    call_special(exit_.get(), condition_, arguments, 3);
  }
  if (error) PyErr_SetRaisedException(Ref(error).release());
}

}  // namespace decision_bounds::binding
