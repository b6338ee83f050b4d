#include "decision_bounds/binding/value.h"

namespace decision_bounds::binding {

Ref Value::boxed() const {
  switch (kind_) {
    case Kind::integer:
      return Ref::steal(PyLong_FromLongLong(integer_));
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
  return Value(Ref::borrow(object));
}

Value Value::of_object(PyObject* object) { return Value(Ref::borrow(object)); }

bool Value::is_true_object(PyObject* object) { return truth(object); }

bool Value::is_infinite_object(PyObject* object) {
  if (object == nullptr) return false;
  // What math.isinf does: __float__ or __index__, and its TypeError and OverflowError otherwise.
  const double value = guarded([&] { return PyFloat_AsDouble(object); });
  if (value == -1.0 && PyErr_Occurred() != nullptr) throw PythonError();
  return std::isinf(value);
}

bool Value::compare_objects(const Value& a, const Value& b, int operation) {
  const Ref one = a.boxed();
  const Ref other = b.boxed();
  const Deeper level;
  const int result =
      guarded([&] { return PyObject_RichCompareBool(one.get(), other.get(), operation); });
  check(result);
  return result != 0;
}

Value compute(PythonBinary operation, const Value& a, const Value& b) {
  const Ref x = a.boxed();
  const Ref y = b.boxed();
  const Deeper level;
  return Value::of(Ref::steal(guarded([&] { return operation(x.get(), y.get()); })).get());
}

}  // namespace decision_bounds::binding
