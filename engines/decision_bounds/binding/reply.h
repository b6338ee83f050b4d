// A reply, as the bounds read it: each attribute by name, at the moment it is needed.
#pragma once

#include <optional>

#include "decision_bounds/binding/interpreter/value.h"
#include "decision_bounds/binding/surface/state.h"

namespace decision_bounds::binding {

/// Borrowed. What cannot be read is empty, with the error pending: a call that fails this way is
/// none of those that are worth the time of a C++ exception.
class Reply {
 public:
  using Number = Value;

  Reply(const State& state, PyObject* object) : names_(&state.names), object_(object) {}

  PyObject* object() const { return object_; }
  bool paid() const { return object_ != Py_None; }
  std::optional<bool> cached() const {
    const Ref value = read(names_->cached);
    if (!value) return std::nullopt;
    if (value.get() == Py_False) return false;
    const int truth = guarded([&] { return PyObject_IsTrue(value.get()); });
    return truth < 0 ? std::nullopt : std::optional(truth != 0);
  }
  std::optional<Value> input_tokens() const { return number(names_->input_tokens); }
  std::optional<Value> cost() const { return number(names_->cost); }

 private:
  Ref read(PyObject* name) const { return attribute_or_null(object_, name); }
  std::optional<Value> number(PyObject* name) const {
    Ref value = read(name);
    return value ? std::optional(Value::of(std::move(value))) : std::nullopt;
  }

  const Names* names_;
  PyObject* object_;
};

}  // namespace decision_bounds::binding
