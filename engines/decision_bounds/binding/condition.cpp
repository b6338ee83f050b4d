// The type behind `_changed`: a threading.Condition to whoever uses it from outside, with the
// core's monitor for its lock and its waiters.

#include "decision_bounds/binding/condition.h"

#include <cmath>

namespace decision_bounds::binding {

namespace {

struct Condition {
  PyObject ob_base;
  [[no_unique_address]] Monitor monitor;  // the next lies in its padding
  bool replaced;  // somebody assigned an attribute of the instance, so go through its methods
};

Condition* condition(PyObject* self) { return reinterpret_cast<Condition*>(self); }
Monitor& monitor(PyObject* self) { return condition(self)->monitor; }

PyObject* create(PyTypeObject* type, PyObject*, PyObject*) {
  PyObject* const self = PyType_GenericAlloc(type, 0);
  if (self == nullptr) return nullptr;
  condition(self)->replaced = false;
  new (&condition(self)->monitor) Monitor;
  return self;
}

int initialise(PyObject*, PyObject* arguments, PyObject* keywords) {
  static const char* const names[] = {nullptr};
  return PyArg_ParseTupleAndKeywords(arguments, keywords, ":Condition", names) != 0 ? 0 : -1;
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  return PyObject_VisitManagedDict(self, visit, arg);
}

int clear(PyObject* self) {
  PyObject_ClearManagedDict(self);
  return 0;
}

void dealloc(PyObject* self) {
  PyTypeObject* const type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  PyObject_ClearWeakRefs(self);
  clear(self);
  monitor(self).~Monitor();
  type->tp_free(self);
  Py_DECREF(type);
}

int set_attribute(PyObject* self, PyObject* name, PyObject* value) {
  condition(self)->replaced = true;
  return PyObject_GenericSetAttr(self, name, value);
}

[[noreturn]] void refuse(PyObject* error, const char* message) {
  PyErr_SetString(error, message);
  throw PythonError();
}

/// What a float is in whole nanoseconds, rounded up as the interpreter's locks do.
Duration from_double(double seconds) {
  if (std::isnan(seconds)) refuse(PyExc_ValueError, "Invalid value NaN (not a number)");
  const double exact = seconds * 1e9;
  const double rounded = exact >= 0 ? std::ceil(exact) : std::floor(exact);
  constexpr double kEnd = 0x1p63;
  if (!(rounded >= -kEnd && rounded < kEnd)) {
    refuse(PyExc_OverflowError, "timestamp out of range for platform time_t");
  }
  return Duration(static_cast<std::int64_t>(rounded));
}

/// Seconds as the interpreter's locks take them: any float, or whatever has an index; with their
/// errors.
Duration to_duration(PyObject* seconds) {
  if (PyFloat_Check(seconds)) return from_double(PyFloat_AsDouble(seconds));
  const Ref index = Ref::steal(guarded([&] { return PyNumber_Index(seconds); }));
  int overflow = 0;
  const long long whole = PyLong_AsLongLongAndOverflow(index.get(), &overflow);
  std::int64_t nanoseconds = 0;
  if (overflow != 0 || __builtin_mul_overflow(whole, std::int64_t{1000000000}, &nanoseconds)) {
    refuse(PyExc_OverflowError, "timestamp too large to convert to C PyTime_t");
  }
  return Duration(nanoseconds);
}

bool require_owned(PyObject* self, const char* what) {
  if (!monitor(self).owned()) set_unowned_error(what);
  return monitor(self).owned();
}

PyObject* enter_method(PyObject* self, PyObject*) {
  if (!monitor(self).lock()) return nullptr;
  Py_RETURN_TRUE;
}

PyObject* exit_method(PyObject* self, PyObject* const*, Py_ssize_t) {
  if (!require_owned(self, "release")) return nullptr;
  monitor(self).unlock();
  Py_RETURN_NONE;
}

PyObject* acquire(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static const char* const names[] = {"blocking", "timeout", nullptr};
  int blocking = 1;
  PyObject* seconds = nullptr;
  if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "|pO:acquire", names, &blocking, &seconds))
    return nullptr;
  return translated([&] {
    const Duration forever = std::chrono::seconds(-1);
    const Duration timeout = seconds == nullptr ? forever : to_duration(seconds);
    if (!blocking && timeout != forever) {
      refuse(PyExc_ValueError, "can't specify a timeout for a non-blocking call");
    }
    if (timeout < Duration(0) && timeout != forever) {
      refuse(PyExc_ValueError, "timeout value must be a non-negative number");
    }
    if (blocking && timeout == forever) {
      if (!monitor(self).lock()) throw PythonError();
      return Ref::retain(Py_True);
    }
    const Wake wake = monitor(self).lock_for(blocking ? timeout : Duration(0));
    if (wake == Wake::interrupted) throw PythonError();
    return Ref::retain(wake == Wake::notified ? Py_True : Py_False);
  });
}

PyObject* release(PyObject* self, PyObject*) { return exit_method(self, nullptr, 0); }

PyObject* recursion_count(PyObject* self, PyObject*) {
  return PyLong_FromUnsignedLong(monitor(self).owned() ? monitor(self).hold().depth : 0);
}

// Frees the lock, whoever holds it. Waiters that a fork left behind are forgotten anyway.
PyObject* reinitialise_at_fork(PyObject* self, PyObject*) {
  if (monitor(self).hold().depth != 0) monitor(self).unlock_all();
  Py_RETURN_NONE;
}

PyObject* is_owned(PyObject* self, PyObject*) { return PyBool_FromLong(monitor(self).owned()); }

PyObject* wait(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static const char* const names[] = {"timeout", nullptr};
  PyObject* seconds = Py_None;
  if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "|O:wait", names, &seconds)) return nullptr;
  return translated([&] {
    const std::optional<Duration> timeout = to_timeout(Value::borrowed(seconds));
    if (!require_owned(self, "wait on")) throw PythonError();
    Monitor::Place place(monitor(self));
    // Whoever called holds the lock around this and releases it: take it back whatever happened.
    const Wake wake = monitor(self).sleep(place, timeout, WayBack::with_lock);
    if (wake == Wake::interrupted) throw PythonError();
    return Ref::retain(wake == Wake::notified ? Py_True : Py_False);
  });
}

// However odd the number is, it is compared and counted down only while somebody waits.
PyObject* notify(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static const char* const names[] = {"n", nullptr};
  PyObject* number = nullptr;
  if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "|O:notify", names, &number))
    return nullptr;
  return translated([&] {
    if (!require_owned(self, "notify on")) throw PythonError();
    Value count = number == nullptr ? Value(1) : Value::borrowed(number);
    for (; monitor(self).waiters() != 0 && count > Value(0); count = count - Value(1)) {
      monitor(self).notify(1);
    }
    return none();
  });
}

PyObject* notify_all(PyObject* self, PyObject*) {
  if (!require_owned(self, "notify on")) return nullptr;
  monitor(self).notify_all();
  Py_RETURN_NONE;
}

// What threading.Condition asks of the lock that it is made with, so that host code can make
// another condition on this one's lock.
PyObject* release_save(PyObject* self, PyObject*) {
  if (!require_owned(self, "release")) return nullptr;
  return PyLong_FromUnsignedLong(monitor(self).unlock_all());
}

PyObject* acquire_restore(PyObject* self, PyObject* saved) {
  const unsigned long depth = PyLong_AsUnsignedLong(saved);
  if (depth == static_cast<unsigned long>(-1) && PyErr_Occurred() != nullptr) return nullptr;
  if (depth == 0) {
    PyErr_SetString(PyExc_ValueError, "a lock is held at least once");
    return nullptr;
  }
  monitor(self).lock_again(static_cast<unsigned>(depth), false);
  Py_RETURN_NONE;
}

// As a threading.Condition shows itself: its lock, and how many wait.
PyObject* represent(PyObject* self) {
  const auto [owner, depth] = monitor(self).hold();
  return PyUnicode_FromFormat("<Condition(<%s %s object owner=%llu count=%u at %p>, %zd)>",
                              depth == 0 ? "unlocked" : "locked", Py_TYPE(self)->tp_name,
                              static_cast<unsigned long long>(owner), depth, self,
                              static_cast<Py_ssize_t>(monitor(self).waiters()));
}

// The two attributes of a threading.Condition that others look at: its lock, which here is the
// condition itself, and how many wait.
PyObject* get_lock(PyObject* self, void*) { return Py_NewRef(self); }

PyObject* get_waiters(PyObject* self, void*) {
  return translated([&] {
    const auto count = static_cast<Py_ssize_t>(monitor(self).waiters());
    Ref waiters = Ref::steal(PyTuple_New(count));
    for (Py_ssize_t i = 0; i < count; ++i) PyTuple_SET_ITEM(waiters.get(), i, Py_None);
    return waiters;
  });
}

PyGetSetDef getset[] = {
    {"_lock", get_lock, nullptr, nullptr, nullptr},
    {"_waiters", get_waiters, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyCFunction with_keywords(PyCFunctionWithKeywords function) {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef methods[] = {
    {"__enter__", enter_method, METH_NOARGS, nullptr},
    {"__exit__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(exit_method)),
     METH_FASTCALL, nullptr},
    {"acquire", with_keywords(acquire), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("Take the lock, once more if this thread holds it.")},
    {"release", release, METH_NOARGS, PyDoc_STR("Release the lock once.")},
    {"wait", with_keywords(wait), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("Sleep until notified, or until a timeout in seconds is over.")},
    {"notify", with_keywords(notify), METH_VARARGS | METH_KEYWORDS,
     PyDoc_STR("Wake n of the threads that wait.")},
    {"notify_all", notify_all, METH_NOARGS, PyDoc_STR("Wake all of the threads that wait.")},
    {"_is_owned", is_owned, METH_NOARGS, nullptr},
    {"_recursion_count", recursion_count, METH_NOARGS, nullptr},
    {"_at_fork_reinit", reinitialise_at_fork, METH_NOARGS, nullptr},
    {"_release_save", release_save, METH_NOARGS, nullptr},
    {"_acquire_restore", acquire_restore, METH_O, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(create)},
    {Py_tp_init, reinterpret_cast<void*>(initialise)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {Py_tp_setattro, reinterpret_cast<void*>(set_attribute)},
    {Py_tp_repr, reinterpret_cast<void*>(represent)},
    {Py_tp_methods, methods},
    {Py_tp_getset, getset},
    {0, nullptr},
};

}  // namespace

PyType_Spec condition_spec = {
    "korvane.engines.decision_bounds._Condition",
    sizeof(Condition),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_BASETYPE,
    slots,
};

PyObject* plain_condition(const State& state) {
  auto* const type = reinterpret_cast<PyTypeObject*>(state.condition_type.get());
  return reinterpret_cast<PyObject*>(type->tp_base);
}

Ref make_condition(State& state, PyObject* condition_class) {
  const bool native = condition_class == plain_condition(state) && state.threading.native();
  return call(native ? state.condition_type.get() : condition_class);
}

Monitor* native_monitor(const State& state, PyObject* object) {
  if (Py_TYPE(object) != reinterpret_cast<PyTypeObject*>(state.condition_type.get()))
    return nullptr;
  Condition* const self = condition(object);
  return self->replaced ? nullptr : &self->monitor;
}

void set_unowned_error(const char* what) {
  PyErr_Format(PyExc_RuntimeError, "cannot %s un-acquired lock", what);
}

std::optional<Duration> to_timeout(Value seconds) {
  if (seconds.object() == Py_None) return std::nullopt;
  if (!(seconds > Value(0))) return Duration(0);
  return to_duration(seconds.boxed().get());
}

}  // namespace decision_bounds::binding
