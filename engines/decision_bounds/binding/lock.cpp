#include "decision_bounds/binding/lock.h"

namespace decision_bounds::binding {

void Lock::wait(Value timeout) {
  if (monitor_ == nullptr) return foreign_->wait(timeout);
  const std::optional<Duration> limit = to_timeout(timeout);
  if (!monitor_->owned()) {
    set_unowned_error("wait on");
    throw PythonError();
  }
  if (!place_) place_.emplace(*monitor_, wish_);
  if (monitor_->sleep(*place_, limit, WayBack::at_once) != Wake::interrupted) return;
  held_ = monitor_->owned();
  throw PythonError();
}

void Lock::exit_slowly() const {
  if (monitor_ == nullptr) return foreign_->exit();
  Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  if (error && !held_) return PyErr_SetRaisedException(error.release());
  set_unowned_error("release");
  if (error) {
    Ref refusal = Ref::steal_or_null(PyErr_GetRaisedException());
    PyException_SetContext(refusal.get(), error.release());
    PyErr_SetRaisedException(refusal.release());
  }
  throw PythonError();
}

// A special method as a `with` statement finds it: of the type, bound or not.
static Ref special_method(PyObject* condition, PyObject* name, const char* missing) {
  PyTypeObject* const type = Py_TYPE(condition);
  Ref found = Ref::steal_or_null(guarded([&] { return _PyType_LookupRef(type, name); }));
  if (found) return found;
  PyErr_Format(PyExc_TypeError, missing, type->tp_name);
  throw PythonError();
}

static Ref bound(const Ref& method, PyObject* condition) {
  const descrgetfunc bind = Py_TYPE(method.get())->tp_descr_get;
  if (bind == nullptr) return method;
  auto* const type = reinterpret_cast<PyObject*>(Py_TYPE(condition));
  return Ref::steal(guarded([&] { return bind(method.get(), condition, type); }));
}

ForeignCondition::ForeignCondition(const State& state, PyObject* condition)
    : state_(state), condition_(condition) {
  constexpr const char* kMissingEnter =
      "'%.200s' object does not support the context manager protocol";
  constexpr const char* kMissingExit =
      "'%.200s' object does not support the context manager protocol (missed __exit__ method)";
  const Ref enter = special_method(condition, state.names.enter, kMissingEnter);
  const Ref exit = special_method(condition, state.names.exit, kMissingExit);
  if (enter.get() == state.condition_enter.get() && exit.get() == state.condition_exit.get())
    return;
  enter_ = bound(enter, condition);
  exit_ = bound(exit, condition);
}

void ForeignCondition::enter() const {
  if (enter_) {
    call(enter_.get());
    return;
  }
  const Ref lock = attribute(condition_, state_.names.lock);
  PyObject* const arguments[] = {lock.get()};
  if (state_.rlock.made(lock.get())) {
    call_with_flags(state_.rlock.acquire.get(), arguments, 1);
  } else {
    call_method(state_.names.enter, arguments);
  }
}

void ForeignCondition::wait(Value timeout) const {
  call_method(condition_, state_.names.wait, {timeout});
}

void ForeignCondition::notify_all() const {
  PyObject* const arguments[] = {condition_};
  call_method(state_.names.notify_all, arguments);
}

void ForeignCondition::exit() const {
  const Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
  PyObject* arguments[] = {nullptr, Py_None, Py_None, Py_None};
  Ref traceback;
  if (error) {
    traceback = Ref::steal_or_null(PyException_GetTraceback(error.get()));
    arguments[1] = reinterpret_cast<PyObject*>(Py_TYPE(error.get()));
    arguments[2] = error.get();
    if (traceback) arguments[3] = traceback.get();
  }
  if (exit_) {
    call(exit_.get(), arguments + 1, 3);
  } else {
    const Ref lock = attribute(condition_, state_.names.lock);
    arguments[0] = lock.get();
    if (state_.rlock.made(lock.get())) {
      call_with_flags(state_.rlock.release.get(), arguments, 1);
    } else {
      call_method(state_.names.exit, arguments);
    }
  }
  if (error) PyErr_SetRaisedException(Ref(error).release());
}

}  // namespace decision_bounds::binding
