// A budget as it mostly is, for the steps in which nothing of Python's runs.
#pragma once

#include <optional>
#include <string>

#include "decision_bounds/binding/condition.h"
#include "decision_bounds/binding/forecast.h"
#include "decision_bounds/binding/held.h"
#include "decision_bounds/binding/run_budget_object.h"
#include "decision_bounds/binding/share.h"
#include "decision_bounds/run_budget.h"

namespace decision_bounds::binding {

/// Something is not as it mostly is: nothing was done yet, and BudgetView is to do it.
struct Unusual {};

/// A share in the making.
class UsualShare {
 public:
  explicit UsualShare(State& state) : made_(new_share(state)) {
    if (made_) return;
    PyErr_Clear();
    throw Unusual();
  }
  template <class Budget>
  Ref owe(const Budget& budget, Unboxed amount) {
    fill_share(made_.get(), budget.object(), Value(amount));
    return std::move(made_);
  }

 private:
  Ref made_;
};

/// An unpatched budget of ours with an unpatched tally of ours and unboxed numbers; where it
/// holds for a call, one that is not exhausted and has no stop predicate of Python's. The core runs
/// on it as on a BudgetView, but nothing of Python's runs, so that what was checked at first stays
/// true.
class UsualBudget : public BudgetFields<UnboxedFields> {
 public:
  static std::optional<UsualBudget> of(State& state, RunBudgetObject& budget, Value tokens) {
    UsualBudget usual(state, budget);
    return tokens.unboxed() && usual.fits() ? std::optional(usual) : std::nullopt;
  }

  PyObject* object() const { return reinterpret_cast<PyObject*>(budget_); }
  UnboxedHeld held() const { return UnboxedHeld(held_fields()); }

  bool never_stops() const { return field(RunBudgetObject::kShouldStop).is(state_->never.get()); }
  bool stopping() const { return false; }
  bool exhausted_locked() const { return false; }
  void reserve(Unboxed tokens) const { decision_bounds::reserve(*this, tokens); }
  std::string summary_text() const { throw Unusual(); }
  std::optional<Forecast> forecast() const {
    return never_stops() ? Forecast::of(*this, held()) : std::nullopt;
  }
  UsualShare make_share() const { return UsualShare(*state_); }

  template <class Body>
  void locked(Body&& body) const {
    PyObject* const changed = field(RunBudgetObject::kChanged).object();
    Monitor* const monitor = changed == nullptr ? nullptr : native_monitor(*state_, changed);
    if (monitor == nullptr) throw Unusual();
    Lock lock(*monitor, *this);
    body(lock);
  }

 private:
  class Lock {
   public:
    Lock(Monitor& monitor, const UsualBudget& budget) : monitor_(monitor), budget_(budget) {
      if (!monitor.try_lock()) throw Unusual();
    }
    ~Lock() { monitor_.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    void wait_for_room(Unboxed) { throw Unusual(); }
    void notify_all() {
      monitor_.notify_ready([this] { return budget_.forecast(); });
    }
    void kept() {}

   private:
    Monitor& monitor_;
    const UsualBudget& budget_;
  };

  UsualBudget(State& state, RunBudgetObject& budget)
      : BudgetFields(budget.base.fields), state_(&state), budget_(&budget) {}

  bool fits() {
    if (!state_->budget.owns(object(), budget_->base.dict)) return false;
    if (!UnboxedFields::fit(std::span(budget_->base.fields).first<RunBudgetObject::kNumbers>()))
      return false;
    PyObject* const held = field(RunBudgetObject::kHeldTokens).object();
    if (held == nullptr || Py_TYPE(held) != state_->held.type) return false;
    held_ = reinterpret_cast<HeldObject*>(held);
    return state_->held.owns(held, held_->base.dict) && UnboxedFields::fit(held_fields());
  }
  const Field& field(std::size_t index) const { return budget_->base.fields[index]; }
  std::span<Field> held_fields() const { return held_->base.fields; }

  State* state_;
  RunBudgetObject* budget_;
  HeldObject* held_ = nullptr;
};

}  // namespace decision_bounds::binding
