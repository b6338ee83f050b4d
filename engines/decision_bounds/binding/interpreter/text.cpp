#include "decision_bounds/binding/interpreter/text.h"

#include <array>
#include <charconv>
#include <memory>

namespace decision_bounds::binding {

namespace {

constexpr const char* kSurrogates = "surrogatepass";

void append_double(std::string& text, double value, char format, int places, int flags) {
  const std::unique_ptr<char, decltype(&PyMem_Free)> digits(
      PyOS_double_to_string(value, format, places, flags, nullptr), PyMem_Free);
  if (!digits) throw PythonError();
  text += digits.get();
}

}  // namespace

void append(std::string& text, PyObject* part) {
  if (PyUnicode_IS_COMPACT_ASCII(part)) [[likely]] {
    text.append(static_cast<const char*>(PyUnicode_DATA(part)),
                static_cast<std::size_t>(PyUnicode_GET_LENGTH(part)));
    return;
  }
  const Ref bytes = Ref::steal(PyUnicode_AsEncodedString(part, "utf-8", kSurrogates));
  text.append(PyBytes_AS_STRING(bytes.get()),
              static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
}

void append_repr(std::string& text, Value value) {
  if (!value.unboxed()) {
    const Ref object = value.boxed();
    return append(text, Ref::steal(guarded([&] { return PyObject_Repr(object.get()); })).get());
  }
  if (!value.whole()) return append_double(text, value.real(), 'r', 0, Py_DTSF_ADD_DOT_0);
  std::array<char, 24> digits;
  const auto number = static_cast<std::int64_t>(value.real());
  const auto end = std::to_chars(digits.begin(), digits.end(), number);
  text.append(digits.begin(), end.ptr);
}

void append_fixed(std::string& text, Value value, int places) {
  if (value.unboxed()) [[likely]]
    return append_double(text, value.real(), 'f', places, 0);
  const Ref format = Ref::steal(PyUnicode_FromFormat(".%df", places));
  const Ref object = value.boxed();
  append(text,
         Ref::steal(guarded([&] { return PyObject_Format(object.get(), format.get()); })).get());
}

Ref decoded(const std::string& text) {
  const auto size = static_cast<Py_ssize_t>(text.size());
  return Ref::steal(PyUnicode_DecodeUTF8(text.data(), size, kSurrogates));
}

}  // namespace decision_bounds::binding
