// A reply, as the bounds read it: each attribute by name, at the moment it is needed.
#pragma once

#include "decision_bounds/binding/interpreter/state.h"
#include "decision_bounds/binding/interpreter/value.h"

namespace decision_bounds::binding {

class Reply {
 public:
  Reply(const State& state, PyObject* object) : state_(state), object_(object) {}
  bool cached() const { return truth(attribute(object_, state_.names.cached).get()); }
  Value input_tokens() const { return Value::of(attribute(object_, state_.names.input_tokens)); }
  Value cost() const { return Value::of(attribute(object_, state_.names.cost)); }
  /// Whether there is one: the call was paid.
  explicit operator bool() const { return object_ != Py_None; }
  PyObject* object() const { return object_; }

 private:
  const State& state_;
  PyObject* object_;
};

}  // namespace decision_bounds::binding
