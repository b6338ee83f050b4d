#include "decision_bounds/binding/interpreter/value.h"

#include <array>
#include <compare>

namespace decision_bounds::binding {

Ref Value::boxed() const {
  switch (kind_) {
    case Kind::integer:
    case Kind::wide:
      return Ref::steal(PyLong_FromLongLong(integer()));
    case Kind::real:
      return Ref::steal(PyFloat_FromDouble(real_));
    case Kind::object:
      return Ref::borrow(object_);
    case Kind::absent:
      break;
  }
  PyErr_SetString(PyExc_SystemError, "decision_bounds: an absent value was used");
  throw PythonError();
}

Value Value::of_long(PyObject* object) {
  int overflow = 0;
  const long long value = PyLong_AsLongLongAndOverflow(object, &overflow);
  if (overflow == 0) return Value(static_cast<std::int64_t>(value));
  return opaque(object);
}

bool Value::is_true_slowly(Value value) { return value.whole() || truth(value.object_); }

bool Value::is_infinite_slowly(Value value) {
  if (value.whole()) return false;
  // What math.isinf does: __float__ or __index__, and its TypeError and OverflowError otherwise.
  const double real = guarded([&] { return PyFloat_AsDouble(value.object_); });
  if (real == -1.0 && PyErr_Occurred() != nullptr) throw PythonError();
  return std::isinf(real);
}

bool Value::compare_slowly(Value a, Value b, int operation) {
  if (a.whole() && b.whole()) {
    const auto order = a.integer() <=> b.integer();
    switch (operation) {
      case Py_LT:
        return order < 0;
      case Py_LE:
        return order <= 0;
      case Py_GT:
        return order > 0;
      default:
        return order >= 0;
    }
  }
  const Ref one = a.boxed();
  const Ref other = b.boxed();
  const int result =
      guarded([&] { return PyObject_RichCompareBool(one.get(), other.get(), operation); });
  check(result);
  return result != 0;
}

Value Value::add_slowly(Value a, Value b, PythonBinary operation) {
  std::int64_t sum = 0;
  if (a.whole() && b.whole() && !__builtin_add_overflow(a.integer(), b.integer(), &sum)) {
    return Value(sum);
  }
  return compute(operation, a, b);
}

Value Value::subtract_slowly(Value a, Value b) {
  std::int64_t difference = 0;
  if (a.whole() && b.whole() && !__builtin_sub_overflow(a.integer(), b.integer(), &difference)) {
    return Value(difference);
  }
  return compute(PyNumber_Subtract, a, b);
}

Value Value::multiply_slowly(Value a, Value b) {
  std::int64_t product = 0;
  if (a.whole() && b.whole() && !__builtin_mul_overflow(a.integer(), b.integer(), &product)) {
    return Value(product);
  }
  return compute(PyNumber_Multiply, a, b);
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
