#include "decision_bounds/binding/lock.h"

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

Ref special_method(PyObject* condition, PyObject* name, const char* format) {
  PyObject* found = nullptr;
  PyTypeObject* const type = Py_TYPE(condition);
  auto* const type_object = reinterpret_cast<PyObject*>(type);
  check(guarded([&] { return PyObject_GetOptionalAttr(type_object, name, &found); }));
  if (found == nullptr) {
    PyErr_Format(PyExc_TypeError, format, type->tp_name);
    throw PythonError();
  }
  Ref method = Ref::steal(found);
  const descrgetfunc bind = Py_TYPE(method.get())->tp_descr_get;
  if (bind == nullptr) return method;
  return Ref::steal(guarded([&] { return bind(method.get(), condition, type_object); }));
}

}  // namespace

ForeignCondition::ForeignCondition(const State& state, PyObject* condition)
    : state_(state),
      condition_(condition),
      enter_(special_method(condition, state.names.enter,
                            "'%.200s' object does not support the context manager protocol")),
      exit_(special_method(condition, state.names.exit,
                           "'%.200s' object does not support the context manager protocol "
                           "(missed __exit__ method)")) {}

void ForeignCondition::enter() const { call(enter_.get()); }

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
  Ref::steal(guarded([&] { return PyObject_Vectorcall(exit_.get(), arguments, 3, nullptr); }));
  if (error) PyErr_SetRaisedException(Ref(error).release());
}

}  // namespace decision_bounds::binding
