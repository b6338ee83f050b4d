// The account of what the paid calls of one UTC day cost against the cap.
//
// `account` is the host's object. It gives the fields and their setters, `held()` (the tally of
// USD), the callables `today()` and `read_ledger(day)`, and the operations that others call
// (`today_locked`, `spent_since`), which may be the host's overrides. `locked(body)` runs
// `body(lock)` with the account's lock held and releases it on every way out. All callables run
// under that lock; the tally, the day and its spend are read and changed under it only.
#pragma once

#include <optional>
#include <utility>

#include "decision_bounds/number.h"

namespace decision_bounds {

/// Today's settled spend. A changed date text starts a new day from the ledger's figure; the shares
/// of the calls in flight stay held. A failure before the ledger's answer leaves the old day
/// standing.
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
template <class Account, class Day>
auto spent_since(Account& account, const Day& day) {
  using Number = typename Account::Number;
  if (!account.has_ledger()) return Number(0.0);
  std::optional<Number> spent = account.read_ledger(day);
  return spent ? *std::move(spent) : Number(0.0);
}

template <class Account>
auto spent(Account& account) {
  return account.locked([&](auto&) { return account.today_locked(); });
}

/// Holds what a paid call may cost, waiting while the calls in flight hold the rest of the cap. The
/// bound is asked again in every round. The share is made first and filled under the lock. Refuses
/// once today's settled spend has reached the cap: the first refusal of a day is decided under the
/// lock, warned of and thrown after it is released. Any failure leaves nothing held.
template <class Account, class Call>
auto admit(Account& account, const Call& call) {
  using Number = typename Account::Number;
  auto share = account.make_share();
  std::optional<Number> reached;
  bool first = false;
  auto admitted = account.locked([&](auto& lock) {
    for (;;) {
      Number cost = account.today_locked();
      if (!(cost < account.cap())) {
        first = account.mark_capped();
        reached = std::move(cost);
        return share.none();
      }
      const Number held = call.bound();
      if (account.held().admits(held, cost, account.cap())) {
        account.held().take(held);
        return share.owe(account, held);
      }
      lock.wait_for_room(call);
    }
  });
  if (reached) {
    if (first) account.warn_capped(*reached);
    account.refuse(*reached);
  }
  return admitted;
}

/// Adds what a reply cost to today's spend. It is read before the field that it is added to, so
/// that what it counts itself, calling back, is not lost. The lock is held.
template <class Account, class Reply>
void count_today(Account& account, const Reply& reply) {
  account.today_locked();
  const typename Account::Number cost = reply.cost();
  account.set_cost(increased(account.cost(), cost));
}

/// Counts what a reply cost today without a share.
template <class Account, class Reply>
void charge_today(Account& account, const Reply& reply) {
  account.locked([&](auto& lock) {
    count_today(account, reply);
    lock.notify_all();
  });
}

/// The give-back of a share made by `admit`. The amount goes back and the waiters are woken even
/// when counting the reply fails: an amount held for ever would block the day.
template <class Account, class Reply, class Number>
void give_back_held(Account& account, const Number& held, const Reply& reply) {
  account.locked([&](auto& lock) {
    const auto counting = account.attempt([&] {
      if (reply) count_today(account, reply);
    });
    account.held().give_back(held);
    lock.notify_all();
    counting.rethrow();
  });
}

}  // namespace decision_bounds
