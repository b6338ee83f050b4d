// The module's state, one per interpreter that imports it: its classes and the names it looks up.
#pragma once

#include <cstdint>

#include "decision_bounds/binding/interpreter/freelist.h"
#include "decision_bounds/binding/interpreter/instance.h"
#include "decision_bounds/binding/interpreter/threading.h"
#include "decision_bounds/errors.h"

namespace decision_bounds::binding {

struct ClassSpec;  // see surface.h

/// Names that are looked up at run time, interned: (member, text).
#define DECISION_BOUNDS_NAMES(X)              \
  X(add, "add")                               \
  X(cached, "cached")                         \
  X(charges_class, "_Charges")                \
  X(class_, "__class__")                      \
  X(clock, "clock")                           \
  X(cost, "cost")                             \
  X(cost_usd, "cost_usd")                     \
  X(deadline, "deadline")                     \
  X(enter, "__enter__")                       \
  X(exc_info, "exc_info")                     \
  X(exceeded_class, "DecisionBudgetExceeded") \
  X(exit, "__exit__")                         \
  X(give_back_private, "_give_back")          \
  X(held_class, "_Held")                      \
  X(input_tokens, "input_tokens")             \
  X(lock, "_lock")                            \
  X(logger, "logger")                         \
  X(never, "never")                           \
  X(notify_all, "notify_all")                 \
  X(poll_seconds, "_POLL_S")                  \
  X(qualified_name, "__qualname__")           \
  X(share, "Share")                           \
  X(stopped_class, "DecisionStopped")         \
  X(stopped_text, kStoppedText)               \
  X(timeout_class, "DecisionTimeout")         \
  X(timeout_text, kTimedOutText)              \
  X(wait, "wait")                             \
  X(wait_private, "_wait")                    \
  X(warning, "warning")

struct Names {
#define DECISION_BOUNDS_MEMBER(member, text) PyObject* member = nullptr;
  DECISION_BOUNDS_NAMES(DECISION_BOUNDS_MEMBER)
#undef DECISION_BOUNDS_MEMBER

  void intern();
  void clear();
};

struct State {
  PyObject* module = nullptr;   // borrowed: the module owns its state
  PyObject* globals = nullptr;  // borrowed: the module's dict
  Names names;
  NativeClass share, held, charges, rates, budget, spend;
  Ref condition_type;
  Ref condition_enter;  // threading.Condition's, where they do nothing but ask its `_lock`
  Ref condition_exit;
  RLockMethods rlock;
  Ref field_type;
  Threading threading;
  Ref never;  // functions of the module as they were made
  Ref wait;
  Ref give_back_maker;  // makes the function that a budget's share shows as its give-back
  Ref partial;
  Ref round;
  Ref traceback_frame;  // of the function that last raised: see add_to_traceback
  Freelist share_freelist;
  std::span<const ClassSpec> classes;  // while the surface is bound

  /// A module-level name as it is now; throws NameError where it was deleted.
  Ref global(PyObject* name) const;
  /// Leaves an error of the module's pending: an instance of the class as it is in the module now.
  /// Throws where there is none to be had.
  void set_error(PyObject* class_name, PyObject* text) const;
  /// Whether `Share` is the module's own class still, with its own methods.
  bool share_original() {
    const bool known = kSerialized && version_of(globals) == share_version_;
    return known ? share.makes_as_written() : share_original_slowly();
  }

  int traverse(visitproc visit, void* arg) const;
  /// Breaks cycles. The names stay: instances may outlive this.
  void clear();

 private:
  [[gnu::cold, gnu::noinline]] bool share_original_slowly();

  std::uint64_t share_version_ = 0;  // of the dict, when `Share` was found in it; 0 is no dict's
};

extern PyModuleDef module_definition;

inline State* state_of_module(PyObject* module) {
  return static_cast<State*>(PyModule_GetState(module));
}

}  // namespace decision_bounds::binding
