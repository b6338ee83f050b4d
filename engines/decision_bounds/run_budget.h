// The budget of one batch pass: call slots, input tokens and the stop. `Budget` is the host's (see
// host.h). Its lock is re-entrant, and every field but the limits is read and changed under it.
#pragma once

#include <optional>

#include "decision_bounds/errors.h"
#include "decision_bounds/number.h"

namespace decision_bounds {

/// Call slots count the calls in flight; tokens only what settled calls used. The lock is held.
template <class Budget>
bool exhausted_locked(const Budget& budget) {
  const auto calls = budget.calls();
  const auto started = calls + budget.in_flight();
  if (started >= budget.max_calls()) return true;
  const auto used = budget.input_tokens();
  return used >= budget.max_tokens();
}

template <class Budget>
bool exhausted(Budget& budget) {
  return budget.locked([&](auto&) { return budget.exhausted_locked(); });
}

/// What one look for room came to.
enum class Room { taken, none, exhausted };

/// Takes a call slot and `tokens` if there is room for them now. A tally that fails to take leaves
/// the slot free. The lock is held.
template <class Budget, class Number>
Room try_take(Budget& budget, const Number& tokens) {
  if (budget.exhausted_locked()) return Room::exhausted;
  const auto used = budget.input_tokens();
  auto&& tally = budget.held();
  if (!tally.admits(tokens, used, budget.max_tokens())) return Room::none;
  budget.set_in_flight(increased(budget.in_flight(), Number(1)));
  const auto take = [&] { return budget.renew(tally), tally.take(tokens), true; };
  budget.attempt(take,
                 [&] { budget.set_in_flight(larger(Number(0), budget.in_flight() - Number(1))); });
  return Room::taken;
}

/// Takes a call slot and `tokens`, waiting while the calls in flight hold the rest of the tokens.
/// Unless it admits, the budget is as it was. The stop is asked first, without the lock.
template <class Budget, class Number>
Outcome reserve(Budget& budget, const Number& tokens) {
  if (budget.stopping()) return budget.refuse(Outcome::stopped);
  return budget.locked([&](auto& changed) {
    for (;;) {
      switch (try_take(budget, tokens)) {
        case Room::taken:
          changed.accept();
          return Outcome::admitted;
        case Room::exhausted:
          return budget.refuse(Outcome::refused);
        case Room::none:
          if (const auto ended = budget.wait(changed, tokens)) return *ended;
      }
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
  budget.locked([&](auto& changed) {
    free_slot(budget, tokens);
    budget.notify_all(changed);
    return true;
  });
}

/// Holds a slot and `tokens` as a share. The share is made first and filled last, so that nothing
/// that can fail stands between taking and returning.
template <class Budget, class Number>
auto hold(Budget& budget, const Number& tokens) {
  auto share = budget.make_share();
  const Outcome outcome = budget.reserve(tokens);
  return outcome == Outcome::admitted ? share.owe(budget, tokens) : share.none(outcome);
}

/// What a result was counted as.
enum class Counted { paid, hit };

/// Counts a result: a cache hit changes nothing else; a paid one ends a reservation. A reply that
/// fails to be read leaves the steps before it applied and wakes nobody; it is read before the
/// field that it is added to, so that what it counts itself, calling back, is not lost.
template <class Budget, class Reply, class Number>
std::optional<Counted> charge(Budget& budget, const Reply& result, const Number& tokens) {
  return budget.locked([&](auto& changed) -> std::optional<Counted> {
    const auto cached = result.cached();
    if (!cached) return std::nullopt;
    if (*cached) {
      budget.set_cache_hits(increased(budget.cache_hits(), Number(1)));
      return Counted::hit;
    }
    free_slot(budget, tokens);
    budget.set_calls(increased(budget.calls(), Number(1)));
    const auto used = result.input_tokens();
    if (!used) return std::nullopt;
    budget.set_input_tokens(increased(budget.input_tokens(), Number(*used)));
    const auto cost = result.cost();
    if (!cost) return std::nullopt;
    budget.set_cost(increased(budget.cost(), Number(*cost)));
    budget.notify_all(changed);
    return Counted::paid;
  });
}

/// The give-back of a share of `tokens`; false where it failed. A cached reply is counted as a hit
/// by `charge`, which gives nothing back; the slot and the tokens then go back here, or they would
/// block the rest of the pass.
template <class Budget, class Reply, class Number>
bool give_back_share(Budget& budget, const Reply& reply, const Number& tokens) {
  if (reply.paid()) {
    const auto counted = budget.charge(reply, tokens);
    if (!counted) return false;
    if (*counted == Counted::paid) return true;
  }
  budget.release(tokens);
  return true;
}

}  // namespace decision_bounds
