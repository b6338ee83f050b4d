// The account of a day: its type, and how the core sees one.
#pragma once

#include "decision_bounds/binding/held.h"
#include "decision_bounds/binding/reply.h"
#include "decision_bounds/binding/share.h"
#include "decision_bounds/daily_spend.h"
#include "stub.h"

namespace decision_bounds::binding {

using DailySpendObject = PlainObject<stub::DailySpend, &State::spend>;

/// What `admit` was called with, borrowed.
struct AdmitArguments {
  PyObject* bound;
  PyObject* deadline;
  PyObject* clock;
  PyObject* stopping;
};

class SpendView : public BoundView<DailySpendObject> {
 public:
  using BoundView::BoundView;
  using Day = Ref;
  using Call = AdmitArguments;

  HeldView held() const { return {state(), get_object(Field::held)}; }
  void renew(HeldView& tally) const { tally.renew(*this, Field::held); }

  Ref today() {
    Ref today = binding::call(get_object(Field::today).get());
    recheck();
    return today;
  }
  Value bound(const Call& asked) {
    const Value bound = Value::of(binding::call(asked.bound));
    recheck();
    return bound;
  }
  bool is_another_day(const Ref& today) const {
    const Ref day = get_object(Field::day);
    if (day.get() == today.get() && PyUnicode_CheckExact(day.get())) [[likely]]
      return false;
    return differ(today, day);
  }
  void start_day(const Ref& today, Value cost) {
    set_object(Field::day, today);
    set_cost(cost);
    set_object(Field::capped, Ref::retain(Py_False));
  }
  bool has_ledger() const { return get_object(Field::ledger).get() != Py_None; }
  /// None, with the failure logged, where the ledger or its figure fails.
  std::optional<Value> read_ledger(const Ref& day) {
    const std::optional<Value> spent = ask_ledger(*this, day.get());
    recheck();
    return spent;
  }

  Value today_locked() {
    return call(Operation::today_locked, [&] { return decision_bounds::today_locked(*this); });
  }
  Value spent_since(const Ref& day) {
    const auto native = [&] { return decision_bounds::spent_since(*this, day); };
    return call(Operation::spent_since, native, Value::opaque(day.get()));
  }

  bool first_refusal() const;
  void warn(Value cost) const { warn_of_cap(*this, cost); }
  /// Leaves the error of a reached cap pending.
  void refuse(Value cost) const { raise_at_cap(*this, cost); }

  bool give_back_original() const { return original(Operation::give_back); }
  /// The lock is held: the share could not be made.
  void take_back(Value amount) const { held().give_back(amount); }

  /// Its tests are callables of the client's: a waiter is always woken to make them itself.
  std::optional<Outcome> wait(Lock& changed, const Call& asked) {
    const std::optional<Outcome> ended = wait_in(*this, changed, asked);
    changed.rewind();
    recheck();
    return ended;
  }

 private:
  // What is rare stands out of line and takes a copy.
  [[gnu::cold, gnu::noinline]] static bool differ(const Ref& day, const Ref& other);
  [[gnu::cold, gnu::noinline]] static std::optional<Value> ask_ledger(SpendView account,
                                                                      PyObject* day);
  [[gnu::cold, gnu::noinline]] static void warn_of_cap(SpendView account, Value cost);
  [[gnu::cold, gnu::noinline]] static void raise_at_cap(SpendView account, Value cost);
  [[gnu::noinline]] static std::optional<Outcome> wait_in(SpendView account, Lock& changed,
                                                          Call asked);
};

}  // namespace decision_bounds::binding
