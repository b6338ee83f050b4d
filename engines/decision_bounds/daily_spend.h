// The account of what the paid calls of one UTC day cost against the cap. `Account` is the host's
// (see host.h). All of the caller's callables run under its lock; the tally, the day and its spend
// are read and changed under it only.
#pragma once

#include <optional>
#include <utility>

#include "decision_bounds/errors.h"
#include "decision_bounds/number.h"

namespace decision_bounds {

/// Today's settled spend. A changed date text starts a new day from the ledger's figure; the shares
/// of the calls in flight stay held. A failure before the ledger's answer leaves the old day
/// standing. The lock is held.
template <class Account>
auto today_locked(Account& account) {
  auto today = account.today();
  if (account.is_another_day(today)) {
    auto start = account.spent_since(today);
    account.start_day(std::move(today), std::move(start));
  }
  return account.cost();
}

/// What the paid calls since `day` cost: 0.0 without a ledger, and with a warning where it fails.
template <class Account>
auto spent_since(Account& account, const typename Account::Day& day) {
  using Number = typename Account::Number;
  if (!account.has_ledger()) return Number(0.0);
  return account.read_ledger(day).value_or(Number(0.0));
}

template <class Account>
auto spent(Account& account) {
  return account.locked([&](auto&) { return account.today_locked(); });
}

/// Takes `held` if the calls in flight leave room for it now, where `cost` is spent today. The lock
/// is held.
template <class Account, class Number>
bool try_take(Account& account, const Number& held, const Number& cost) {
  auto&& tally = account.held();
  if (!tally.admits(held, cost, account.cap())) return false;
  account.renew(tally);
  tally.take(held);
  return true;
}

/// Holds what a paid call may cost, waiting while the calls in flight hold the rest of the cap. The
/// bound is asked again in every round. Refuses once today's settled spend has reached the cap: the
/// first refusal of a day is decided under the lock, warned of and told after it is released.
/// Unless it admits, nothing is held.
template <class Account>
auto admit(Account& account, const typename Account::Call& call) {
  using Number = typename Account::Number;
  auto share = account.make_share();
  Number reached(0);
  bool first = false;
  auto admission = account.locked([&](auto& changed) {
    for (;;) {
      const Number cost = account.today_locked();
      if (!(cost < account.cap())) [[unlikely]] {
        first = account.first_refusal();
        reached = cost;
        return share.none(Outcome::refused);
      }
      const Number held = account.bound(call);
      if (try_take(account, held, cost)) [[likely]] {
        changed.accept();
        return share.owe(account, held);
      }
      if (const auto ended = account.wait(changed, call)) return share.none(*ended);
    }
  });
  if (admission.outcome == Outcome::refused) {
    if (first) account.warn(reached);
    account.refuse(reached);
  }
  return admission;
}

/// Adds what a reply cost to today's spend; false where it cannot be read, with nothing added. It
/// is read before the field that it is added to, so that what it counts itself, calling back, is
/// not lost. The lock is held.
template <class Account, class Reply>
bool count_today(Account& account, const Reply& reply) {
  account.today_locked();
  const auto cost = reply.cost();
  if (!cost) return false;
  account.set_cost(increased(account.cost(), *cost));
  return true;
}

/// Counts what a reply cost today without a share; false where it failed, which wakes nobody.
template <class Account, class Reply>
bool charge_today(Account& account, const Reply& reply) {
  return account.locked([&](auto& changed) {
    const bool counted = count_today(account, reply);
    if (counted) changed.notify_all();
    return counted;
  });
}

/// The give-back of a share made by `admit`; false where the reply could not be read. The amount
/// goes back and the waiters are woken even when counting the reply fails: an amount held for ever
/// would block the day.
template <class Account, class Reply>
bool give_back_held(Account& account, const typename Account::Number& held, const Reply& reply) {
  return account.locked([&](auto& changed) {
    const auto give_back = [&] {
      account.held().give_back(held);
      changed.notify_all();
    };
    const auto count = [&] { return !reply.paid() || count_today(account, reply); };
    if (!account.attempt(count, give_back)) return false;
    give_back();
    return true;
  });
}

}  // namespace decision_bounds
