// How an operation sees the instance that it works on.
#pragma once

#include <initializer_list>
#include <optional>
#include <type_traits>

#include "decision_bounds/binding/interpreter/instance.h"

namespace decision_bounds::binding {

/// What an operation of Python's answered, as the native one would.
template <class Result>
Result answer_of(Ref answer) {
  if constexpr (std::is_same_v<Result, bool>) {
    return truth(answer.get());
  } else if constexpr (std::is_same_v<Result, Value>) {
    return Value::of(std::move(answer));
  } else {
    return Result(std::move(answer));
  }
}

/// An instance with its attributes and operations. Where they are the ones that the class was made
/// with, fields are read and written in place and operations call each other natively; each other
/// one is the one that the instance has, used through the interpreter. So is all of an object that
/// is no such instance.
///
/// What stands out of line takes a copy of a view or its parts, never its address, so that the
/// compiler can hold the view of an operation in registers.
template <class T>
class View {
 public:
  using Number = Value;
  using Field = typename T::Stub::Field;
  using Operation = typename T::Stub::Operation;

  explicit View(T& self) : View(*self.base.head.made, reinterpret_cast<PyObject*>(&self)) {}
  /// Any object, borrowed, in the place of an instance of the class.
  View(NativeClass& made, PyObject* object)
      : made_(&made), object_(object), originals_(made.originals(object)), fields_(fields()) {}

  State& state() const { return *made_->state; }
  PyObject* object() const { return object_; }
  T& instance() const { return *reinterpret_cast<T*>(object_); }
  bool original(Operation operation) const {
    return originals_.operation(static_cast<std::size_t>(operation));
  }
  /// Looks again what somebody replaced, as code called in between may have.
  void recheck() {
    originals_ = made_->originals(object_);
    fields_ = fields();
  }

  /// What lies in the instance's own attribute, absent where it has its own no more.
  Value peek(Field field) const { return place(field).peek(); }
  Value get(Field field) const {
    const Value value = peek(field);
    if (value.unboxed()) [[likely]]
      return value;
    return get_slowly(*made_, object_, fields_, field);
  }
  std::optional<Value> get_or_none(Field field) const {
    const Value value = get(field);
    return value.object() == Py_None ? std::nullopt : std::optional(value);
  }
  /// An attribute that is an object to be used, rather than a number.
  Ref get_object(Field field) const {
    Ref object = place(field).reference();
    if (object) [[likely]]
      return object;
    return fetch(*made_, object_, field);
  }
  void set(Field field, Value value) const {
    if (!place(field).replace(value)) [[unlikely]]
      set_slowly(*made_, object_, fields_, field, value);
  }
  void set_object(Field field, const Ref& object) const { set(field, Value::opaque(object.get())); }

  PyObject* name(Field field) const { return name(*made_, field); }
  PyObject* name(Operation operation) const {
    return made_->operation_name(static_cast<std::size_t>(operation));
  }
  /// One of the operations that others call by name: natively, or the one that is in its place.
  template <class Native, class... Arguments>
  auto call(Operation operation, Native&& native, Arguments... arguments) {
    using Result = decltype(native());
    if (original(operation)) [[likely]]
      return native();
    if constexpr (std::is_void_v<Result>) {
      call_by_name<Result>(object_, name(operation), arguments...);
      recheck();
    } else {
      Result result = call_by_name<Result>(object_, name(operation), arguments...);
      recheck();
      return result;
    }
  }

 private:
  binding::Field* fields() const {
    return originals_.fields() ? reinterpret_cast<T*>(object_)->base.fields : absent_;
  }
  binding::Field& place(Field field) const { return fields_[static_cast<std::size_t>(field)]; }

  // An object, or an attribute that was deleted or is not the class's own.
  [[gnu::cold, gnu::noinline]] static Value get_slowly(const NativeClass& made, PyObject* self,
                                                       const binding::Field* fields, Field field) {
    const Value value = fields[static_cast<std::size_t>(field)].load();
    return value.present() ? value : Value::of(fetch(made, self, field));
  }
  [[gnu::cold, gnu::noinline]] static void set_slowly(const NativeClass& made, PyObject* self,
                                                      binding::Field* fields, Field field,
                                                      Value value) {
    if (fields != absent_) return fields[static_cast<std::size_t>(field)].store(value);
    const Ref boxed = value.boxed();
    PyObject* const attribute = name(made, field);
    check(guarded([&] { return PyObject_SetAttr(self, attribute, boxed.get()); }));
  }
  [[gnu::cold, gnu::noinline]] static Ref fetch(const NativeClass& made, PyObject* self,
                                                Field field) {
    return attribute(self, name(made, field));
  }
  template <class Result, class... Arguments>
  [[gnu::cold, gnu::noinline]] static Result call_by_name(PyObject* self, PyObject* name,
                                                          Arguments... arguments) {
    return answer_of<Result>(call_method(self, name, {arguments...}));
  }
  static PyObject* name(const NativeClass& made, Field field) {
    return made.field_name(static_cast<std::size_t>(field));
  }

  // What an instance whose fields are not its own is read from and written to: absent, all of them,
  // so that one look at a field tells both.
  static inline binding::Field absent_[decltype(T::base)::kFieldCount];

  NativeClass* made_;
  PyObject* object_;
  Originals originals_;
  binding::Field* fields_;
};

/// Sets the attributes of a new instance, as a constructor does.
template <class T>
void set_fields(PyObject* self, std::initializer_list<Ref> values) {
  const NativeClass& made = *receiver_cast<T>(self).base.head.made;
  std::size_t index = 0;
  for (const Ref& value : values) {
    PyObject* const name = made.field_name(index++);
    check(guarded([&] { return PyObject_SetAttr(self, name, value.get()); }));
  }
}

}  // namespace decision_bounds::binding
