// The account of a day: its type, and how the core sees one.
#pragma once

#include "decision_bounds/binding/held.h"
#include "decision_bounds/binding/reply.h"
#include "decision_bounds/binding/share.h"
#include "decision_bounds/binding/wait.h"
#include "decision_bounds/daily_spend.h"

namespace decision_bounds::binding {

struct DailySpendObject : NothingMore {
  static constexpr auto kClass = &State::spend;
  static constexpr const char* kName = "korvane.engines.decision_bounds.DailySpend";
  enum Index : std::size_t { kCap, kToday, kLedger, kChanged, kHeld, kDay, kCost, kCapped, kCount };
  Instance<kCount> base;
};

/// What a call that asks for admission brings along; borrowed.
struct Admission {
  PyObject* cost_bound;
  PyObject* deadline;
  PyObject* clock;
  PyObject* stopping;

  Value bound() const { return Value::of(call(cost_bound).get()); }
};

class SpendView : public View<DailySpendObject> {
 public:
  using View::View;

  const Value& cap() const { return get(DailySpendObject::kCap); }
  const Value& cost() const { return get(DailySpendObject::kCost); }
  void set_cost(Value value) const { set(DailySpendObject::kCost, std::move(value)); }
  Tally held() const { return Tally(state(), get_object(DailySpendObject::kHeld)); }

  Ref today();
  bool is_another_day(const Ref& today) const;
  void start_day(Ref today, Value cost);
  bool has_ledger() const { return get(DailySpendObject::kLedger).object() != Py_None; }
  /// None, with the failure logged, where the ledger or its figure fails.
  [[gnu::noinline]] std::optional<Value> read_ledger(const Ref& day);

  // The operations that others call, through the instance where it has its own.
  Value today_locked();
  Value spent_since(const Ref& day);

  /// Records that the cap was reached; whether that is the first time today.
  bool mark_capped();
  void warn_capped(const Value& cost) const;
  [[noreturn]] void refuse(const Value& cost) const;

  NewShare make_share() const { return NewShare(state()); }
  bool own_give_back() const { return own(); }
  Ref make_give_back(const Value& held) const;
  /// The lock is held: the share could not be made.
  void take_back(const Value& amount) { held().give_back(amount); }

  template <class Steps>
  KeptError attempt(Steps&& steps) const {
    return KeptError::attempt(std::forward<Steps>(steps));
  }

  /// One wait step with `changed` held, by `lock` where it is the module's own condition.
  [[gnu::noinline]] void wait_for_room(PyObject* changed, Locked& lock, const Admission& call);
  [[gnu::cold, gnu::noinline]] void wait_through_module(PyObject* changed, const Admission& call);

  /// From here on the lock is taken even where Ctrl-C comes while it blocks: a share that settles
  /// is given back already, and nothing would give back what it holds.
  void settle_share() { interruptible_ = false; }

  template <class Body>
  auto locked(Body&& body) {
    return with_lock(*this, get_object(DailySpendObject::kChanged), interruptible_, body);
  }

 private:
  bool interruptible_ = true;
};

/// The partial application that an account's share shows as its give-back.
Ref spend_give_back(State& state, PyObject* account, const Value& held);

/// Settles a share of `account` that holds `held`.
void settle_spend_share(State& state, PyObject* account, const Value& held, PyObject* reply);

}  // namespace decision_bounds::binding
