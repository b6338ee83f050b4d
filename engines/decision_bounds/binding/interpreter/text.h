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

/// An instance of a class with such a `__qualname__`, and its first fields.
template <class T>
class Shown : public View<T> {
 public:
  using View<T>::View;

  Ref with_fields(std::size_t count) {
    std::string text;
    append(text, qualified_name().get());
    for (std::size_t i = 0; i < count; ++i) {
      text += i == 0 ? '(' : ',';
      if (i != 0) text += ' ';
      append(text, (this->state().*T::kClass).fields[i].get());
      text += '=';
      append_repr(text, this->get(i));
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

/// A data class's `__repr__`, which shows the first `kShown` fields.
template <class T, std::size_t kShown>
Ref repr(PyObject* const* arguments) {
  Shown<T> self(receiver_cast<T>(arguments[0]));
  const int inside_itself = Py_ReprEnter(self.object());
  check(inside_itself);
  if (inside_itself != 0) return decoded("...");
  struct Leave {
    PyObject* object;
    ~Leave() { Py_ReprLeave(object); }
  } const leave{self.object()};
  return self.with_fields(kShown);
}

}  // namespace decision_bounds::binding
