#include "decision_bounds/binding/interpreter/value.h"

#include <array>

namespace decision_bounds::binding {

Ref Value::boxed() const {
  switch (kind_) {
    case Kind::integer:
      return Ref::steal(PyLong_FromLongLong(static_cast<long long>(real_)));
    case Kind::real:
      return Ref::steal(PyFloat_FromDouble(real_));
    case Kind::object:
      return Ref::retain(object_);
    case Kind::absent:
      break;
  }
  PyErr_SetString(PyExc_SystemError, "decision_bounds: an absent value was used");
  throw PythonError();
}

Value Value::of_long(PyObject* object) {
  int overflow = 0;
  const auto value = static_cast<double>(PyLong_AsLongLongAndOverflow(object, &overflow));
  if (overflow != 0 || !(std::fabs(value) < kEnd)) return opaque(object);
  Value whole(value);
  whole.kind_ = Kind::integer;
  return whole;
}

bool Value::is_infinite_object(PyObject* object) {
  // What math.isinf does: __float__ or __index__, and its TypeError and OverflowError otherwise.
  const double real = guarded([&] { return PyFloat_AsDouble(object); });
  if (real == -1.0 && PyErr_Occurred() != nullptr) throw PythonError();
  return std::isinf(real);
}

bool Value::compare(Value a, Value b, int operation) {
  const Ref one = a.boxed();
  const Ref other = b.boxed();
  const int result =
      guarded([&] { return PyObject_RichCompareBool(one.get(), other.get(), operation); });
  check(result);
  return result != 0;
}

Value Value::compute(PythonBinary operation, Value a, Value b) {
  const Ref x = a.boxed();
  const Ref y = b.boxed();
  return Value::of(Ref::steal(guarded([&] { return operation(x.get(), y.get()); })));
}

Ref call_method(PyObject* self, PyObject* name, std::initializer_list<Value> arguments) {
  constexpr std::size_t kMaxArguments = 3;
  std::array<Ref, kMaxArguments> owned;
  std::array<PyObject*, 1 + kMaxArguments> all{self};
  std::size_t count = 0;
  for (const Value argument : arguments) {
    owned[count] = argument.boxed();
    all[count + 1] = owned[count].get();
    ++count;
  }
  return Ref::steal(
      guarded([&] { return PyObject_VectorcallMethod(name, all.data(), 1 + count, nullptr); }));
}

}  // namespace decision_bounds::binding
