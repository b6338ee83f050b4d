// The budget of a pass: its type, and how the core sees one: any budget, or one on the fast path.
#pragma once

#include <optional>
#include <span>

#include "decision_bounds/binding/forecast.h"
#include "decision_bounds/binding/held.h"
#include "decision_bounds/binding/lock.h"
#include "decision_bounds/binding/reply.h"
#include "decision_bounds/binding/share.h"
#include "decision_bounds/run_budget.h"
#include "stub.h"

namespace decision_bounds::binding {

struct RunBudgetObject : NothingMore {
  using Stub = stub::RunBudget;
  static constexpr auto kClass = &State::budget;
  Instance<Stub> base;
};

/// Any budget, in whatever state.
class BudgetView : public stub::RunBudget::Numbers<View<RunBudgetObject>> {
 public:
  using Numbers::Numbers;
  using Condition = Changed;

  Tally held() const { return Tally(state(), borrow_object(Field::held_tokens)); }

  /// Whether the stop predicate is the one that never stops: then nothing of Python's is asked.
  bool never_stops() const {
    return own() && instance().base.fields[static_cast<std::size_t>(Field::should_stop)].is(
                        state().never.get());
  }
  bool should_stop() {
    if (never_stops()) [[likely]]
      return false;
    const bool stop = truth(call(get_object(Field::should_stop).get()).get());
    look();
    return stop;
  }

  // The operations that others call, through the instance where it has its own.
  bool stopping() {
    if (own()) [[likely]]
      return should_stop();
    return truth(call_method(object(), state().names.stopping).get());
  }
  bool exhausted_locked() {
    if (own()) [[likely]]
      return decision_bounds::exhausted_locked(*this);
    return truth(call_method(object(), state().names.exhausted_locked).get());
  }
  Outcome reserve(Value tokens) {
    if (own()) [[likely]]
      return decision_bounds::reserve(*this, tokens);
    call_method(object(), state().names.reserve, {tokens});
    return Outcome::admitted;
  }
  void release(Value tokens) {
    if (own()) [[likely]]
      return decision_bounds::release(*this, tokens);
    call_method(object(), state().names.release, {tokens});
  }
  Counted charge(const Reply& reply, Value tokens) {
    if (own()) [[likely]]
      return decision_bounds::charge(*this, reply, tokens);
    return charge_through_instance(*this, reply, tokens);
  }
  /// A new dict with the six entries, in the order in which it is shown. The lock is held.
  Ref summary_locked() { return summary_of(*this); }

  /// Leaves the error of an exhausted budget pending.
  void refuse() { raise_exhausted(*this); }

  NewShare make_share() const { return NewShare(state()); }
  bool own_give_back() const { return true; }
  void take_back(Value tokens) const { release_again(*this, tokens); }

  template <class Steps>
  KeptError attempt(Steps&& steps) const {
    return KeptError::attempt(steps);
  }

  /// With a stop predicate of Python's a waiter is always woken; else whoever gives back looks for
  /// its room, in the order in which the waiters came, and promises it what there is.
  Changed::Place place(Changed& changed, Value tokens) const {
    if (!never_stops() || !tokens.unboxed()) return changed.place();
    return changed.place(Wish{object(), tokens.number()});
  }

  std::optional<Outcome> wait(Changed::Place& place);

  void notify_all(Changed& changed) const {
    changed.notify_ready([this] { return forecast_of(*this); });
  }

  /// From here on the lock is taken even where Ctrl-C comes while it blocks: a share that settles
  /// is given back already, and nothing would give back what it holds.
  void settle_share() { interruptible_ = false; }

  template <class Body>
  auto locked(Body&& body) {
    return with_lock(state(), get_object(Field::changed), interruptible_, body);
  }

 private:
  // What is rare stands out of line and takes a copy.
  [[gnu::cold, gnu::noinline]] static Counted charge_through_instance(BudgetView budget,
                                                                      Reply reply, Value tokens);
  [[gnu::cold, gnu::noinline]] static Ref summary_of(BudgetView budget);
  [[gnu::cold, gnu::noinline]] static void raise_exhausted(BudgetView budget);
  [[gnu::cold, gnu::noinline]] static void release_again(BudgetView budget, Value tokens);
  [[gnu::cold, gnu::noinline]] static std::optional<Forecast> forecast_of(BudgetView budget);

  bool interruptible_ = true;
};

/// The fast path's view: an unpatched budget of ours with an unpatched tally of ours, all of whose
/// numbers are unboxed. Nothing of Python's runs while it is in use, so that what was found at
/// first stays true. Saves 9% of a settlement, 5% of a guarded call.
class FastBudget : public stub::RunBudget::Numbers<UnboxedFields> {
  using Field = stub::RunBudget::Field;

 public:
  static std::optional<FastBudget> of(State& state, RunBudgetObject& budget, Value tokens) {
    FastBudget fast(state, budget);
    return tokens.unboxed() && fast.fits() ? std::optional(fast) : std::nullopt;
  }

  PyObject* object() const { return reinterpret_cast<PyObject*>(budget_); }
  UnboxedHeld held() const { return held_; }
  bool never_stops() const { return field(Field::should_stop).is(state_->never.get()); }
  /// For whoever waits, where none of them has a stop predicate of Python's to ask.
  std::optional<Forecast> forecast() const {
    return never_stops() ? std::optional(Forecast(*this)) : std::nullopt;
  }
  bool exhausted_locked() const { return decision_bounds::exhausted_locked(*this); }
  template <class Steps>
  NoError attempt(Steps&& steps) const {
    steps();
    return {};
  }

  /// The lock, if it is of our own kind and can be had at once.
  class Lock {
   public:
    explicit Lock(const FastBudget& budget) {
      PyObject* const changed = budget.field(Field::changed).object();
      Monitor* const monitor =
          changed == nullptr ? nullptr : native_monitor(*budget.state_, changed);
      if (monitor != nullptr && monitor->try_lock()) monitor_ = monitor;
    }
    ~Lock() {
      if (monitor_ != nullptr) monitor_->unlock();
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    explicit operator bool() const { return monitor_ != nullptr; }
    Monitor& monitor() const { return *monitor_; }

   private:
    Monitor* monitor_ = nullptr;
  };

 private:
  FastBudget(State& state, RunBudgetObject& budget)
      : Numbers(budget.base.fields), state_(&state), budget_(&budget) {}

  bool fits() {
    if (!state_->budget.owns(object(), budget_->base.dict)) return false;
    const std::span<const binding::Field> fields(budget_->base.fields);
    if (!UnboxedFields::fit(fields.first<stub::RunBudget::kNumbers.size()>())) return false;
    held_ = UnboxedHeld::of(*state_, field(Field::held_tokens).object());
    return static_cast<bool>(held_);
  }
  const binding::Field& field(Field index) const {
    return budget_->base.fields[static_cast<std::size_t>(index)];
  }

  State* state_;
  RunBudgetObject* budget_;
  UnboxedHeld held_;
};

}  // namespace decision_bounds::binding
