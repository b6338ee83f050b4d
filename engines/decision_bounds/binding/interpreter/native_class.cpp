#include "decision_bounds/binding/interpreter/native_class.h"

#include <algorithm>

namespace decision_bounds::binding {

namespace {

template <class Test>
bool any_name(PyObject* dict, Test&& test) {
  bool found = false;
  Py_BEGIN_CRITICAL_SECTION(dict);
  PyObject* name = nullptr;
  Py_ssize_t position = 0;
  while (!found && PyDict_Next(dict, &position, &name, nullptr)) found = test(name);
  Py_END_CRITICAL_SECTION();
  return found;
}

// A name that is no exact text is compared by running Python.
bool is_odd(PyObject* name) { return !PyUnicode_CheckExact(name); }

// Whether the look-up of an attribute of the type could run Python.
bool has_odd_names(PyTypeObject* type) {
  const Ref bases = Ref::retain(type->tp_mro);
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(bases.get()); ++i) {
    auto* const base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(bases.get(), i));
    if (any_name(Ref::steal(PyType_GetDict(base)).get(), is_odd)) return true;
  }
  return false;
}

}  // namespace

void NativeClass::name(std::span<const char* const> fields,
                       std::span<const char* const> operations) {
  fields_ = fields.size();
  for (const auto texts : {fields, operations}) {
    for (const char* const text : texts) {
      names_.push_back(Ref::steal(PyUnicode_InternFromString(text)));
    }
  }
  names_.push_back(Ref::steal(PyUnicode_InternFromString("__new__")));
}

void NativeClass::keep_attributes() {
  const Ref all = Ref::steal(PyType_GetDict(type));
  attributes = Ref::steal(PyDict_Copy(all.get()));
}

int NativeClass::traverse(visitproc visit, void* arg) const {
  Py_VISIT(type);
  Py_VISIT(attributes.get());
  return 0;
}

void NativeClass::clear() {
  Py_CLEAR(type);
  attributes = Ref();
}

Originals NativeClass::originals_slowly(PyObject* self) {
  const Originals found = originals_of(Py_TYPE(self));
  if (found.bits() == 0 || shared_read(reinterpret_cast<InstanceHead*>(self)->dict) == nullptr)
    return found;
  return but_for(instance_dict(self).get(), found);
}

Originals NativeClass::originals_of(PyTypeObject* other) {
  const Known wanted = shared_read(other->tp_version_tag);
  for (Known& known : known_) {
    const Known kept = shared_read(known);
    if (kept >> 32 == wanted) return Originals(static_cast<std::uint32_t>(kept));
  }
  // Asked for before the look, so that a patch during it is not taken for what was looked at.
  const bool tagged = PyUnstable_Type_AssignVersionTag(other) == 1;
  const Known tag = shared_read(other->tp_version_tag);
  const Originals found = compare(other);
  if (tagged && tag != 0) {
    const std::size_t place = other == type ? 0 : oldest_;
    if (place != 0) oldest_ = oldest_ % (known_.size() - 1) + 1;
    shared_write(known_[place], tag << 32 | found.bits());
  }
  return found;
}

// An attribute that intercepts the access to others leaves nothing as it was. One that was added
// makes no difference: the interpreter does so itself for whoever asks for annotations.
Originals NativeClass::compare(PyTypeObject* other) const {
  Originals found;
  if (PyType_IsSubtype(other, type) == 0) return found;
  if (other->tp_getattro != PyObject_GenericGetAttr) return found;
  if (other->tp_setattro != PyObject_GenericSetAttr) return found;
  if (has_odd_names(other)) return found;
  const auto is_original = [&](const Ref& name) {
    const Ref now = Ref::steal_or_null(_PyType_LookupRef(other, name.get()));
    return now && now.get() == PyDict_GetItem(attributes.get(), name.get());
  };
  if (std::all_of(names_.begin(), names_.begin() + static_cast<std::ptrdiff_t>(fields_),
                  is_original))
    found.add_fields();
  if (is_original(names_.back())) found.add_made();
  for (std::size_t i = 0; i < operations(); ++i) {
    if (is_original(names_[fields_ + i])) found.add_operation(i);
  }
  return found;
}

Originals NativeClass::but_for(PyObject* dict, Originals found) const {
  const auto is_one = [&](PyObject* name) {
    return is_odd(name) || PyDict_Contains(attributes.get(), name) != 0;
  };
  if (dict == nullptr || !any_name(dict, is_one)) return found;
  const bool odd = any_name(dict, is_odd);
  for (std::size_t i = 0; i < operations(); ++i) {
    if (odd || PyDict_Contains(dict, operation_name(i)) != 0) found.remove_operation(i);
  }
  return found;
}

}  // namespace decision_bounds::binding
