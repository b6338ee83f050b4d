// How an operation sees the instance that it works on.
#pragma once

#include <algorithm>
#include <span>

#include "decision_bounds/binding/interpreter/instance.h"

namespace decision_bounds::binding {

/// An instance with its attributes. Where the instance finds its class's own methods (`own`), they
/// are read and written in place and operations call each other natively; otherwise through the
/// interpreter, so that a subclass's, a patched or an instance's attribute is the one used.
///
/// What stands out of line takes a copy of a view or its parts, never its address, so that the
/// compiler can hold the view of an operation in registers.
template <class T>
class View {
 public:
  using Number = Value;
  using Field = typename T::Stub::Field;

  explicit View(const Receiver<T>& self) : state_(&self.state), self_(&self.instance) { look(); }

  State& state() const { return *state_; }
  PyObject* object() const { return object_of(*self_); }
  T& instance() const { return *self_; }
  bool own() const { return fields_ == self_->base.fields; }
  /// Looks again whether somebody replaced a method, as code called in between may have.
  void look() {
    const bool own = (state_->*T::kClass).owns(object(), self_->base.dict);
    fields_ = own ? self_->base.fields : none_;
  }

 protected:
  /// What lies in the instance's own attribute, absent where it has its own no more.
  Value peek(Field field) const { return lies(field).peek(); }
  Value get(Field field) const {
    const Value value = peek(field);
    if (value.unboxed()) [[likely]]
      return value;
    return get_slowly(*state_, *self_, lies(field), field);
  }
  /// An attribute that is an object to be used, rather than a number.
  Ref get_object(Field field) const {
    Ref object = lies(field).reference();
    if (object) [[likely]]
      return object;
    return fetch(*state_, *self_, field);
  }
  /// The same, borrowed until something of Python's runs.
  PyObject* borrow_object(Field field) const {
    if constexpr (kSerialized) {
      PyObject* const object = lies(field).object();
      if (object != nullptr) [[likely]]
        return object;
    }
    return CallScope::keep(get_object(field));
  }
  void set(Field field, Value value) const {
    if (!lies(field).replace(value)) [[unlikely]]
      set_slowly(*state_, *self_, own() ? &lies(field) : nullptr, field, value);
  }
  void set_object(Field field, const Ref& object) const { set(field, Value::opaque(object.get())); }

 private:
  binding::Field& lies(Field field) const { return fields_[static_cast<std::size_t>(field)]; }

  // An object, or an attribute that was deleted or is not the class's own.
  [[gnu::cold, gnu::noinline]] static Value get_slowly(State& state, T& self,
                                                       const binding::Field& place, Field field) {
    const Value value = place.load();
    return value.present() ? value : Value::of(fetch(state, self, field));
  }
  [[gnu::cold, gnu::noinline]] static void set_slowly(State& state, T& self, binding::Field* own,
                                                      Field field, Value value) {
    if (own != nullptr) return own->store(value);
    const Ref boxed = value.boxed();
    PyObject* const attribute = name(state, field);
    check(guarded([&] { return PyObject_SetAttr(object_of(self), attribute, boxed.get()); }));
  }

  [[gnu::cold, gnu::noinline]] static Ref fetch(State& state, T& self, Field field) {
    return attribute(object_of(self), name(state, field));
  }

  static PyObject* object_of(T& self) { return reinterpret_cast<PyObject*>(&self); }
  static PyObject* name(State& state, Field field) {
    return (state.*T::kClass).fields[static_cast<std::size_t>(field)].get();
  }

  // What an instance that is not its own is read from and written to: absent, all of them, so that
  // one look at a field tells both.
  static inline binding::Field none_[decltype(T::base)::kFieldCount];

  State* state_;
  T* self_;
  binding::Field* fields_ = nullptr;
};

/// Sets the attributes of a new instance, as a constructor does.
template <class T>
void set_fields(PyObject* self, std::initializer_list<Ref> values) {
  const State& state = receiver_cast<T>(self).state;
  auto name = (state.*T::kClass).fields.begin();
  for (const Ref& value : values) {
    check(guarded([&] { return PyObject_SetAttr(self, name->get(), value.get()); }));
    ++name;
  }
}

/// The fields of an own instance that all hold unboxed numbers, for steps in which nothing of
/// Python's runs; or none.
class UnboxedFields {
 public:
  using Number = Unboxed;

  UnboxedFields() = default;
  explicit UnboxedFields(std::span<Field> fields) : fields_(fields.data()) {}
  explicit operator bool() const { return fields_ != nullptr; }
  /// Without a global lock any field may change at any time.
  static bool fit(std::span<const Field> fields) {
    Value::Kinds kinds;
    for (const Field& field : fields) kinds.add(field.peek());
    return kSerialized && kinds.all_unboxed();
  }

 protected:
  template <class Index>
  Unboxed get(Index field) const {
    return fields_[static_cast<std::size_t>(field)].peek().number();
  }
  template <class Index>
  void set(Index field, Unboxed value) const {
    fields_[static_cast<std::size_t>(field)].put(Value(value));
  }

 private:
  Field* fields_ = nullptr;
};

}  // namespace decision_bounds::binding
