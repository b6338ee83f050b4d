// What an instance of a data class looks like.
#pragma once

#include <utility>

#include "decision_bounds/binding/interpreter/text.h"
#include "decision_bounds/binding/interpreter/view.h"
#include "decision_bounds/binding/surface/state.h"

namespace decision_bounds::binding {

/// A data class's `__repr__`: the `__qualname__` of the class, and the fields that are shown.
template <class T>
Ref repr_of(PyObject* const* arguments) {
  View<T> self(receiver_cast<T>(arguments[0]));
  const int inside_itself = Py_ReprEnter(self.object());
  check(inside_itself);
  if (inside_itself != 0) return Ref::steal(PyUnicode_FromString("..."));
  struct Leave {
    PyObject* object;
    ~Leave() { Py_ReprLeave(object); }
  } const leave{self.object()};
  const Names& names = self.state().names;
  const Ref shown_class = attribute(self.object(), names.class_);
  const Ref name = attribute(shown_class.get(), names.qualified_name);
  self.recheck();
  Text text;
  text.append(Ref::steal(guarded([&] { return PyObject_Format(name.get(), nullptr); })).get());
  std::string_view before = "(";
  for (const auto field : T::Stub::kShown) {
    text.append(std::exchange(before, ", "));
    text.append(T::Stub::kFields[static_cast<std::size_t>(field)]);
    text.append("=");
    text.append_repr(self.get(field));
    self.recheck();
  }
  text.append(")");
  return text.finish();
}

}  // namespace decision_bounds::binding
