// The budget of one batch pass: call slots, input tokens and the stop.
//
// `budget` is the host's object. It gives the fields and their setters, `held()` (the tally of
// tokens: `admits`, `take`, `give_back`), `should_stop()`, `summary_text()`, and the operations
// that others call (`stopping`, `exhausted_locked`, `reserve`, `release`, `charge`), which may be
// the host's overrides. `locked(body)` runs `body(lock)` with the budget's lock held and releases
// it on every way out; `lock.wait_for_room(...)` is the wait step, `lock.kept()` tells that the
// room was taken, and `lock.notify_all()` wakes the waiters. The lock is re-entrant, and every
// field but the limits is read and changed under it.
#pragma once

#include "decision_bounds/errors.h"
#include "decision_bounds/number.h"

namespace decision_bounds {

/// Call slots count the calls in flight; tokens only what settled calls used. The lock is held.
template <class Budget>
bool exhausted_locked(Budget& budget) {
  const auto& calls = budget.calls();
  const auto started = calls + budget.in_flight();
  if (started >= budget.max_calls()) return true;
  const auto& used = budget.input_tokens();
  return used >= budget.max_tokens();
}

/// Whether the pass has been asked to stop. No lock is taken.
template <class Budget>
bool stopping(Budget& budget) {
  return budget.should_stop();
}

template <class Budget>
bool exhausted(Budget& budget) {
  return budget.locked([&](auto&) { return budget.exhausted_locked(); });
}

/// Fills a new summary, in the order in which it is shown. The lock is held.
template <class Budget>
auto summary_locked(Budget& budget) {
  auto summary = budget.new_summary();
  summary.add("calls", budget.calls());
  summary.add("cache_hits", budget.cache_hits());
  summary.add("input_tokens", budget.input_tokens());
  summary.add("cost_usd", budget.rounded(budget.cost(), 6));
  summary.add("max_calls", budget.max_calls());
  summary.add("max_tokens", budget.max_tokens());
  return summary;
}

template <class Budget>
auto summary(Budget& budget) {
  return budget.locked([&](auto&) { return budget.summary_locked(); });
}

/// What an exhausted budget answers. The lock is held.
template <class Budget>
BudgetExceeded refusal(Budget& budget) {
  return BudgetExceeded("decision budget exhausted: " + budget.summary_text());
}

/// Takes a call slot and `tokens`, waiting while the calls in flight hold the rest of the tokens.
/// Throws Stopped or BudgetExceeded; every failure leaves the budget as it was.
template <class Budget, class Number>
void reserve(Budget& budget, const Number& tokens) {
  if (budget.stopping()) throw Stopped();
  budget.locked([&](auto& lock) {
    for (;;) {
      if (budget.exhausted_locked()) throw refusal(budget);
      const auto& used = budget.input_tokens();
      if (budget.held().admits(tokens, used, budget.max_tokens())) {
        budget.set_in_flight(increased(budget.in_flight(), Number(1)));
        budget.held().take(tokens);
        lock.kept();
        return;
      }
      lock.wait_for_room(tokens);
    }
  });
}

/// Takes one call slot and its tokens back. The lock is held.
template <class Budget, class Number>
void free_slot(Budget& budget, const Number& tokens) {
  budget.set_in_flight(larger(Number(0), budget.in_flight() - Number(1)));
  budget.held().give_back(tokens);
}

/// Ends a reservation whose call was not paid.
template <class Budget, class Number>
void release(Budget& budget, const Number& tokens) {
  budget.locked([&](auto& lock) {
    free_slot(budget, tokens);
    lock.notify_all();
  });
}

/// Counts a result: a cache hit changes nothing else; a paid one ends a reservation. A reply that
/// fails to be read leaves the steps before it applied and wakes nobody; it is read before the
/// field that it is added to, so that what it counts itself, calling back, is not lost. Returns
/// whether it was a cache hit.
template <class Budget, class Reply, class Number>
bool charge(Budget& budget, const Reply& result, const Number& tokens) {
  return budget.locked([&](auto& lock) {
    if (result.cached()) {
      budget.set_cache_hits(increased(budget.cache_hits(), Number(1)));
      return true;
    }
    free_slot(budget, tokens);
    budget.set_calls(increased(budget.calls(), Number(1)));
    const Number used = result.input_tokens();
    budget.set_input_tokens(increased(budget.input_tokens(), used));
    const Number cost = result.cost();
    budget.set_cost(increased(budget.cost(), cost));
    lock.notify_all();
    return false;
  });
}

/// Holds a slot and `tokens` as a share. The share is made first and filled last, so that nothing
/// that can fail stands between taking and returning.
template <class Budget, class Number>
auto hold(Budget& budget, const Number& tokens) {
  auto share = budget.make_share();
  budget.reserve(tokens);
  return share.owe(budget, tokens);
}

/// The give-back of a share made by `hold`. A cached reply is counted as a hit by `charge`, which
/// gives nothing back; the slot and the tokens then go back here, or they would block the rest of
/// the pass.
template <class Budget, class Reply, class Number>
void give_back_share(Budget& budget, const Reply& reply, const Number& tokens) {
  if (!reply) {
    budget.release(tokens);
  } else if (budget.charge(reply, tokens)) {
    budget.release(tokens);
  }
}

}  // namespace decision_bounds
