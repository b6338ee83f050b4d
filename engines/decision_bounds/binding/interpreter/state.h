// The module's state, one per interpreter that imports it: its classes, the names it looks up, and
// what tells an unpatched object from one whose methods somebody replaced.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "decision_bounds/binding/interpreter/freelist.h"
#include "decision_bounds/binding/interpreter/reference.h"
#include "decision_bounds/binding/interpreter/threading.h"
#include "decision_bounds/errors.h"

namespace decision_bounds::binding {

/// A number that other threads may change at any time, and that no lock guards.
template <class Number>
Number shared_read(Number& number) {
#ifdef Py_GIL_DISABLED
  return std::atomic_ref(number).load(std::memory_order_relaxed);
#else
  return number;
#endif
}

template <class Number>
void shared_write(Number& number, Number value) {
#ifdef Py_GIL_DISABLED
  std::atomic_ref(number).store(value, std::memory_order_relaxed);
#else
  number = value;
#endif
}

class Value;
struct State;
struct Units;

/// What a share asks of the bound that admitted its call.
struct BoundOperations {
  /// Settles a share that holds `amount`; false, with the error pending, where that failed.
  bool (*settle)(State& state, PyObject* bound, Value amount, PyObject* reply);
  /// The callable that such a share shows as its give-back.
  Ref (*make_give_back)(State& state, PyObject* bound, Value amount);
};

/// The `__dict__` of `self`, which is in `dict` and may be replaced at any time; or none.
inline Ref instance_dict([[maybe_unused]] PyObject* self, PyObject*& dict) {
  Ref kept;
  Py_BEGIN_CRITICAL_SECTION(self);
  kept = Ref::borrow(dict);
  Py_END_CRITICAL_SECTION();
  return kept;
}

/// One of the module's native classes, as it was made.
struct Class {
  const BoundOperations* bound = nullptr;  // of a class that admits calls
  PyTypeObject* type = nullptr;            // owned
  Ref attributes;                          // dict: every attribute the class was made with
  std::vector<Ref> fields;                 // interned names of the instance's fields, in order
  // The type's version tag under which `attributes` still stand.
  unsigned version = kNoVersion;

  /// Whether the type's attributes are the ones it was made with.
  bool unpatched() {
    return shared_read(type->tp_version_tag) == shared_read(version) || unpatched_slowly();
  }
  /// Whether `self`, whose `__dict__` is in `dict`, is of exactly this class and finds exactly its
  /// methods: then an operation that calls another may go straight to the native one. Nothing of
  /// Python's runs to find out.
  bool owns(PyObject* self, PyObject*& dict) {
    // No two types have the same tag.
    const bool usual = shared_read(Py_TYPE(self)->tp_version_tag) == shared_read(version);
    return (usual || (Py_TYPE(self) == type && unpatched_slowly())) &&
           (shared_read(dict) == nullptr || !shadowed_by(instance_dict(self, dict).get()));
  }

 private:
  static constexpr auto kNoVersion = ~0U;  // no tag of any type
  bool unpatched_slowly();
  bool shadowed_by(PyObject* dict) const;
};

/// Names that are looked up at run time, interned: (member, text).
#define DECISION_BOUNDS_NAMES(X)              \
  X(add, "add")                               \
  X(admits, "admits")                         \
  X(bound, "bound")                           \
  X(cached, "cached")                         \
  X(charge, "charge")                         \
  X(charges_class, "_Charges")                \
  X(class_, "__class__")                      \
  X(clock, "clock")                           \
  X(cost, "cost")                             \
  X(cost_usd, "cost_usd")                     \
  X(deadline, "deadline")                     \
  X(enter, "__enter__")                       \
  X(exc_info, "exc_info")                     \
  X(exhausted_locked, "_exhausted_locked")    \
  X(exceeded_class, "DecisionBudgetExceeded") \
  X(exit, "__exit__")                         \
  X(give_back, "give_back")                   \
  X(give_back_private, "_give_back")          \
  X(held_class, "_Held")                      \
  X(input_tokens, "input_tokens")             \
  X(learn, "learn")                           \
  X(logger, "logger")                         \
  X(never, "never")                           \
  X(notify_all, "notify_all")                 \
  X(poll_seconds, "_POLL_S")                  \
  X(qualified_name, "__qualname__")           \
  X(release, "release")                       \
  X(reserve, "reserve")                       \
  X(settle, "settle")                         \
  X(share, "Share")                           \
  X(spent_since, "_spent_since")              \
  X(stopped_class, "DecisionStopped")         \
  X(stopped_text, kStoppedText)               \
  X(stopping, "stopping")                     \
  X(summary_locked, "_summary_locked")        \
  X(take, "take")                             \
  X(timeout_class, "DecisionTimeout")         \
  X(timeout_text, kTimedOutText)              \
  X(today_locked, "_today_locked")            \
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
  Class share, held, charges, rates, budget, spend;
  Ref condition_type;
  Ref field_type;
  Threading threading;
  Ref never;  // functions of the module as they were made
  Ref wait;
  Ref give_back_maker;  // makes the function that a budget's share shows as its give-back
  Ref partial;
  Ref round;
  Ref traceback_frame;  // of the function that last raised: see add_to_traceback
  Freelist share_freelist;
  const Units* units = nullptr;  // while the surface is bound

  /// A module-level name as it is now; throws NameError where it was deleted.
  Ref global(PyObject* name) const;
  /// What a share asks of `bound`, an instance of one of the two classes that admit calls.
  const BoundOperations& operations_of(PyObject* bound) const {
    const bool is_spend = Py_TYPE(bound) == spend.type || !PyObject_TypeCheck(bound, budget.type);
    return is_spend ? *spend.bound : *budget.bound;
  }
  /// Whether `Share` is the module's own class still, with its own methods.
  bool makes_own_shares() {
    const bool known = kSerialized && version_of(globals) == share_version_;
    return known ? share.unpatched() : makes_own_shares_slowly();
  }

  int traverse(visitproc visit, void* arg) const;
  /// Breaks cycles. The names stay: instances may outlive this.
  void clear();

 private:
  [[gnu::cold, gnu::noinline]] bool makes_own_shares_slowly();

  std::uint64_t share_version_ = 0;  // of the dict, when `Share` was found in it; 0 is no dict's
};

extern PyModuleDef module_definition;

/// The state of the module whose class, or a subclass of whose class, `self` is of; none, with a
/// TypeError pending, for any other object.
State* state_of(PyObject* self);

inline State* state_of_module(PyObject* module) {
  return static_cast<State*>(PyModule_GetState(module));
}

}  // namespace decision_bounds::binding
