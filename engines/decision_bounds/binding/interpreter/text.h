// Texts that are put together of parts.
#pragma once

#include <array>
#include <charconv>
#include <memory>
#include <string_view>

#include "decision_bounds/binding/interpreter/value.h"

namespace decision_bounds::binding {

/// A text in the making. `PyUnicodeWriter`, from 3.14 on, is the same in public.
class Text {
 public:
  Text() {
    _PyUnicodeWriter_Init(&writer_);
    writer_.overallocate = 1;
  }
  ~Text() { _PyUnicodeWriter_Dealloc(&writer_); }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;

  void append(PyObject* part) { check(_PyUnicodeWriter_WriteStr(&writer_, part)); }
  void append(std::string_view ascii) {
    const auto size = static_cast<Py_ssize_t>(ascii.size());
    check(_PyUnicodeWriter_WriteASCIIString(&writer_, ascii.data(), size));
  }
  /// As `repr(value)`.
  void append_repr(Value value) {
    if (!value.unboxed()) {
      const Ref object = value.boxed();
      append(Ref::steal(guarded([&] { return PyObject_Repr(object.get()); })).get());
    } else if (!value.whole()) {
      append_double(value.real(), 'r', 0, Py_DTSF_ADD_DOT_0);
    } else {
      std::array<char, 24> digits;
      const auto number = static_cast<std::int64_t>(value.real());
      append({digits.begin(), std::to_chars(digits.begin(), digits.end(), number).ptr});
    }
  }
  /// As `format(value, ".4f")`, with as many places.
  void append_fixed(Value value, int places) {
    if (value.unboxed()) [[likely]]
      return append_double(value.real(), 'f', places, 0);
    const Ref format = Ref::steal(PyUnicode_FromFormat(".%df", places));
    const Ref object = value.boxed();
    append(Ref::steal(guarded([&] { return PyObject_Format(object.get(), format.get()); })).get());
  }
  Ref finish() { return Ref::steal(_PyUnicodeWriter_Finish(&writer_)); }

 private:
  void append_double(double value, char format, int places, int flags) {
    const std::unique_ptr<char, decltype(&PyMem_Free)> digits(
        PyOS_double_to_string(value, format, places, flags, nullptr), PyMem_Free);
    if (!digits) throw PythonError();
    append(digits.get());
  }

  _PyUnicodeWriter writer_;
};

}  // namespace decision_bounds::binding
