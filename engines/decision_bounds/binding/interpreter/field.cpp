#include "decision_bounds/binding/interpreter/field.h"

namespace decision_bounds::binding {

namespace {

struct Descriptor {
  PyObject ob_base;
  PyTypeObject* owner;
  PyObject* name;
  PyObject* fallback;
  Py_ssize_t offset;
  CompleteInstance complete;
};

Descriptor* descriptor(PyObject* self) { return reinterpret_cast<Descriptor*>(self); }

Field* field_of(Descriptor* self, PyObject* instance) {
  if (!PyObject_TypeCheck(instance, self->owner)) {
    PyErr_Format(PyExc_TypeError, "descriptor '%U' for '%s' objects doesn't apply to a '%s' object",
                 self->name, self->owner->tp_name, Py_TYPE(instance)->tp_name);
    return nullptr;
  }
  if (!self->complete(instance)) return nullptr;
  return reinterpret_cast<Field*>(reinterpret_cast<char*>(instance) + self->offset);
}

PyObject* missing(Descriptor* self, PyObject* instance) {
  const char* const format = instance == nullptr ? "type object '%U' has no attribute '%U'"
                                                 : "'%U' object has no attribute '%U'";
  const PyTypeObject* const type = instance == nullptr ? self->owner : Py_TYPE(instance);
  const Ref name = Ref::steal_or_null(PyType_GetName(const_cast<PyTypeObject*>(type)));
  if (!name) return nullptr;
  PyErr_Format(PyExc_AttributeError, format, name.get(), self->name);
  return nullptr;
}

PyObject* get(PyObject* object, PyObject* instance, PyObject*) {
  Descriptor* const self = descriptor(object);
  if (instance != nullptr) {
    const Field* const field = field_of(self, instance);
    if (field == nullptr) return nullptr;
    try {
      Ref value = field->boxed();
      if (value) return value.release();
    } catch (const PythonError&) {
      return nullptr;
    }
  }
  if (self->fallback == nullptr) return missing(self, instance);
  // A class attribute it stands for: a function among them becomes a method, as it would there.
  const descrgetfunc bind = Py_TYPE(self->fallback)->tp_descr_get;
  if (bind == nullptr) return Py_NewRef(self->fallback);
  return bind(self->fallback, instance, reinterpret_cast<PyObject*>(self->owner));
}

int set(PyObject* object, PyObject* instance, PyObject* value) {
  Descriptor* const self = descriptor(object);
  Field* const field = field_of(self, instance);
  if (field == nullptr) return -1;
  if (value != nullptr) {
    field->store(Value::borrowed(value));
    return 0;
  }
  Ref dropped;
  if (field->swap(Value(), dropped).present()) return 0;
  missing(self, instance);
  return -1;
}

int traverse(PyObject* object, visitproc visit, void* arg) {
  Descriptor* const self = descriptor(object);
  Py_VISIT(Py_TYPE(object));
  Py_VISIT(self->owner);
  Py_VISIT(self->fallback);
  return 0;
}

int clear(PyObject* object) {
  Descriptor* const self = descriptor(object);
  Py_CLEAR(self->owner);
  Py_CLEAR(self->fallback);
  return 0;
}

void dealloc(PyObject* object) {
  PyObject_GC_UnTrack(object);
  PyTypeObject* const type = Py_TYPE(object);
  clear(object);
  Py_CLEAR(descriptor(object)->name);
  type->tp_free(object);
  Py_DECREF(type);
}

PyType_Slot slots[] = {
    {Py_tp_descr_get, reinterpret_cast<void*>(get)},
    {Py_tp_descr_set, reinterpret_cast<void*>(set)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {0, nullptr},
};

}  // namespace

PyType_Spec field_descriptor_spec = {
    "korvane.engines.decision_bounds._field",
    sizeof(Descriptor),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_DISALLOW_INSTANTIATION |
        Py_TPFLAGS_IMMUTABLETYPE,
    slots,
};

Ref make_field_descriptor(PyObject* type, PyTypeObject* owner, PyObject* name, Py_ssize_t offset,
                          CompleteInstance complete, PyObject* fallback) {
  Ref made = Ref::steal(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(type), 0));
  Descriptor* const self = descriptor(made.get());
  self->owner = reinterpret_cast<PyTypeObject*>(Py_NewRef(owner));
  self->name = Py_NewRef(name);
  self->fallback = Py_XNewRef(fallback);
  self->offset = offset;
  self->complete = complete;
  return made;
}

}  // namespace decision_bounds::binding
