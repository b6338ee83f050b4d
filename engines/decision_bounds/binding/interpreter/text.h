// Texts that are put together of parts: of errors, and what an instance looks like. In UTF-8, with
// lone surrogates as they are.
#pragma once

#include <string>

#include "decision_bounds/binding/interpreter/view.h"

namespace decision_bounds::binding {

void append(std::string& text, PyObject* part);
/// As `repr(value)`.
void append_repr(std::string& text, Value value);
/// As `format(value, ".4f")`, with as many places.
void append_fixed(std::string& text, Value value, int places);
Ref decoded(const std::string& text);

/// An instance of a class with such a `__qualname__`, and the fields that are shown.
template <class T>
class Shown : public View<T> {
 public:
  using View<T>::View;

  Ref with_fields() {
    std::string text;
    append(text, qualified_name().get());
    const char* before = "(";
    for (const auto field : T::Stub::kShown) {
      text += std::exchange(before, ", ");
      text += T::Stub::kFields[static_cast<std::size_t>(field)];
      text += '=';
      append_repr(text, this->get(field));
      this->look();
    }
    text += ')';
    return decoded(text);
  }

 private:
  Ref qualified_name() const {
    if (this->own()) [[likely]]
      return Ref::steal(PyType_GetQualName(Py_TYPE(this->object())));
    const Ref own_class = attribute(this->object(), this->state().names.class_);
    const Ref name = attribute(own_class.get(), this->state().names.qualified_name);
    return Ref::steal(guarded([&] { return PyObject_Format(name.get(), nullptr); }));
  }
};

/// A data class's `__repr__`.
template <class T>
Ref repr(PyObject* const* arguments) {
  Shown<T> self(receiver_cast<T>(arguments[0]));
  const int inside_itself = Py_ReprEnter(self.object());
  check(inside_itself);
  if (inside_itself != 0) return decoded("...");
  struct Leave {
    PyObject* object;
    ~Leave() { Py_ReprLeave(object); }
  } const leave{self.object()};
  return self.with_fields();
}

}  // namespace decision_bounds::binding
