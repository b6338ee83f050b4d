// The type behind `_changed`: a threading.Condition to whoever uses it from outside, with the
// core's monitor for its lock and its waiters.

#include "decision_bounds/binding/condition.h"

namespace decision_bounds::binding {

namespace {

struct Condition {
  PyObject ob_base;
  bool replaced;  // somebody assigned an attribute of the instance, so go through its methods
  Monitor monitor;
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
  static const char* names[] = {nullptr};
  return PyArg_ParseTupleAndKeywords(arguments, keywords, ":Condition", const_cast<char**>(names))
             ? 0
             : -1;
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

bool require_owned(PyObject* self, const char* what) {
  if (monitor(self).owned()) return true;
  PyErr_Format(PyExc_RuntimeError, "cannot %s un-acquired lock", what);
  return false;
}

PyObject* enter_method(PyObject* self, PyObject*) {
  if (!monitor(self).lock()) return nullptr;
  Py_RETURN_TRUE;
}

PyObject* exit_method(PyObject* self, PyObject* const*, Py_ssize_t) {
  if (!monitor(self).unlock()) {
    PyErr_SetString(PyExc_RuntimeError, "cannot release un-acquired lock");
    return nullptr;
  }
  Py_RETURN_NONE;
}

PyObject* acquire(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static const char* names[] = {"blocking", "timeout", nullptr};
  int blocking = 1;
  PyObject* seconds = nullptr;
  if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "|pO:acquire", const_cast<char**>(names),
                                   &blocking, &seconds)) {
    return nullptr;
  }
  return translated([&] {
    const Value timeout = seconds == nullptr ? Value(-1) : Value::borrowed(seconds);
    const bool forever = timeout.real() == -1.0;
    if (!forever && timeout < Value(0)) {
      PyErr_SetString(PyExc_ValueError, "timeout value must be a non-negative number");
      throw PythonError();
    }
    if (!blocking && !forever) {
      PyErr_SetString(PyExc_ValueError, "can't specify a timeout for a non-blocking call");
      throw PythonError();
    }
    if (blocking && forever) {
      if (!monitor(self).lock()) throw PythonError();
      return Ref::borrow(Py_True);
    }
    const Duration limit = blocking ? to_timeout(timeout).value_or(Duration(0)) : Duration(0);
    const Wake wake = monitor(self).lock_for(limit);
    if (wake == Wake::interrupted) throw PythonError();
    return Ref::borrow(wake == Wake::notified ? Py_True : Py_False);
  });
}

PyObject* release(PyObject* self, PyObject*) { return exit_method(self, nullptr, 0); }

PyObject* is_owned(PyObject* self, PyObject*) { return PyBool_FromLong(monitor(self).owned()); }

PyObject* wait(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static const char* names[] = {"timeout", nullptr};
  PyObject* seconds = Py_None;
  if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "|O:wait", const_cast<char**>(names),
                                   &seconds)) {
    return nullptr;
  }
  if (!require_owned(self, "wait on")) return nullptr;
  return translated([&] {
    Monitor::Place place(monitor(self));
    // Whoever called holds the lock around this and releases it: take it back whatever happened.
    const Wake wake =
        monitor(self).sleep(place, to_timeout(Value::borrowed(seconds)), WayBack::with_lock);
    if (wake == Wake::interrupted) throw PythonError();
    return Ref::borrow(wake == Wake::notified ? Py_True : Py_False);
  });
}

PyObject* notify(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static const char* names[] = {"n", nullptr};
  Py_ssize_t count = 1;
  if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "|n:notify", const_cast<char**>(names),
                                   &count)) {
    return nullptr;
  }
  if (!require_owned(self, "notify on")) return nullptr;
  if (count > 0) monitor(self).notify(static_cast<std::size_t>(count));
  Py_RETURN_NONE;
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

PyObject* represent(PyObject* self) {
  return PyUnicode_FromFormat("<Condition(%s, %zd)>", monitor(self).owned() ? "owned" : "not owned",
                              static_cast<Py_ssize_t>(monitor(self).waiters()));
}

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

Monitor* native_monitor(const State& state, PyObject* object) {
  if (Py_TYPE(object) != reinterpret_cast<PyTypeObject*>(state.condition_type.get()))
    return nullptr;
  Condition* const self = condition(object);
  return self->replaced ? nullptr : &self->monitor;
}

std::optional<Duration> to_timeout(Value seconds) {
  constexpr double kMaxTimeout = 9223372036.0;  // threading.TIMEOUT_MAX
  if (seconds.object() == Py_None) return std::nullopt;
  if (!(seconds > Value(0))) return Duration(0);
  const std::optional<double> plain = seconds.real();
  if (!plain) {
    PyErr_Format(PyExc_TypeError, "'%.200s' object cannot be interpreted as an integer",
                 Py_TYPE(seconds.object())->tp_name);
    throw PythonError();
  }
  if (*plain > kMaxTimeout) {
    PyErr_SetString(PyExc_OverflowError, "timeout value is too large");
    throw PythonError();
  }
  return std::chrono::ceil<Duration>(std::chrono::duration<double>(*plain));
}

}  // namespace decision_bounds::binding
