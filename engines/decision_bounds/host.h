// What the core asks of its host, by name: the interpreter's binding, the plain one of the core's
// tests. Every operation of a bound is a template over one of these, which each host asserts of its
// own (inside a host's class they cannot be asked yet). An operation that others call by name
// (`stopping`, `reserve`, `today_locked` ...) may be the host's override of it.
//
// A callable of the caller's that fails leaves the core as the host's own exception, or, where it
// is a reply that is read, as an empty optional, since that is the ordinary way in which a call
// fails; what a failure leaves applied stands at each operation.
#pragma once

#include <concepts>
#include <optional>
#include <utility>

#include "decision_bounds/errors.h"
#include "decision_bounds/number.h"

namespace decision_bounds {

/// A number with the meaning that the host's callers give it. Any step may throw the host's error.
template <class N>
concept NumberHost = std::constructible_from<N, int> && std::constructible_from<N, double> &&
                     requires(const N a, const N b) {
                       { a + b } -> std::convertible_to<N>;
                       { a - b } -> std::convertible_to<N>;
                       { a < b } -> std::same_as<bool>;
                       { a <= b } -> std::same_as<bool>;
                       { a > b } -> std::same_as<bool>;
                       { a >= b } -> std::same_as<bool>;
                       { increased(a, b) } -> std::convertible_to<N>;  // what `a += b` leaves in a
                       { is_true(a) } -> std::same_as<bool>;
                       { is_infinite(a) } -> std::same_as<bool>;
                     };

/// A handle of the tally of what a bound's calls hold. The bound's lock is held around every call.
template <class T, class N>
concept TallyHost = requires(T tally, const N number) {
  { tally.admits(number, number, number) } -> std::same_as<bool>;  // share, used, limit
  tally.take(number);
  tally.give_back(number);
};

/// What may be there: tested and dereferenced, as an optional is.
template <class M, class T>
concept MaybeHost = requires(const M maybe) {
  static_cast<bool>(maybe);
  { *maybe } -> std::convertible_to<T>;
};

/// A reply, or none. What is read of it is empty where reading it failed, which ends the operation;
/// the host knows why.
template <class R>
concept ReplyHost = requires(const R reply) {
  { reply.paid() } -> std::same_as<bool>;  // whether there is one
  { reply.cached() } -> MaybeHost<bool>;
  { reply.input_tokens() } -> MaybeHost<typename R::Number>;
  { reply.cost() } -> MaybeHost<typename R::Number>;
};

/// What both bounds have. `locked(body)` runs `body(condition)` with the bound's lock held and
/// releases it on every way out. `attempt(steps, otherwise)` runs steps that answer whether they
/// went well; where they did not, or threw, `otherwise` runs before the failure goes on as it came.
/// `make_share()` gives the share before anything is taken, so that `owe`, which fills it, need not
/// fail.
template <class B>
concept BoundHost = NumberHost<typename B::Number> && requires(B bound, typename B::Number number) {
  { bound.held() } -> TallyHost<typename B::Number>;
  std::declval<typename B::Condition&>().notify_all();
  {
    bound.locked([](auto&) { return true; })
  } -> std::same_as<bool>;
  {
    bound.attempt([] { return true; }, [] {})
  } -> std::same_as<bool>;
  bound.make_share().owe(bound, number);
  bound.make_share().none(Outcome::refused);
};

/// The budget of one pass. `wait(condition, tokens)` is the wait step: it answers how the admission
/// ends, or nothing. `refuse(outcome)` makes the host's error of it, and is called where that is
/// decided, under the lock but for a stop at the very beginning.
template <class B>
concept BudgetHost = BoundHost<B> && requires(B budget, typename B::Number number,
                                              typename B::Condition& condition) {
  { budget.max_calls() } -> std::convertible_to<typename B::Number>;
  { budget.max_tokens() } -> std::convertible_to<typename B::Number>;
  { budget.calls() } -> std::convertible_to<typename B::Number>;
  { budget.input_tokens() } -> std::convertible_to<typename B::Number>;
  { budget.cost() } -> std::convertible_to<typename B::Number>;
  { budget.cache_hits() } -> std::convertible_to<typename B::Number>;
  { budget.in_flight() } -> std::convertible_to<typename B::Number>;
  budget.set_calls(number);
  budget.set_input_tokens(number);
  budget.set_cost(number);
  budget.set_cache_hits(number);
  budget.set_in_flight(number);
  { budget.stopping() } -> std::same_as<bool>;
  { budget.exhausted_locked() } -> std::same_as<bool>;
  { budget.reserve(number) } -> std::same_as<Outcome>;
  budget.release(number);
  { budget.refuse(Outcome::refused) } -> std::same_as<Outcome>;
  { budget.wait(condition, number) } -> std::same_as<std::optional<Outcome>>;
  budget.notify_all(condition);  // or those alone who find room
};

/// The account of a day. `Day` is its date text, `Call` what a call that asks for admission brings
/// along: its cost bound, its deadline and its stop. `first_refusal()`
/// marks that the cap was reached and answers whether that is the first time today; `warn(cost)`
/// and `refuse(cost)` come after the lock is released. All callables of the caller's run under the
/// lock.
template <class A>
concept AccountHost =
    BoundHost<A> && requires(A account, typename A::Number number, typename A::Day day,
                             typename A::Call call, typename A::Condition& condition) {
      { account.cap() } -> std::convertible_to<typename A::Number>;
      { account.cost() } -> std::convertible_to<typename A::Number>;
      account.set_cost(number);
      { account.today() } -> std::convertible_to<typename A::Day>;
      { account.is_another_day(day) } -> std::same_as<bool>;
      account.start_day(day, number);
      { account.has_ledger() } -> std::same_as<bool>;
      { account.read_ledger(day) } -> std::same_as<std::optional<typename A::Number>>;
      { account.today_locked() } -> std::convertible_to<typename A::Number>;
      { account.spent_since(day) } -> std::convertible_to<typename A::Number>;
      { account.first_refusal() } -> std::same_as<bool>;
      account.warn(number);
      account.refuse(number);
      { account.bound(call) } -> std::convertible_to<typename A::Number>;
      { account.wait(condition, call) } -> std::same_as<std::optional<Outcome>>;
    };

/// A record of the most that one measure of the paid replies came to.
template <class R>
concept ChargesHost = NumberHost<typename R::Number> && requires(R record, typename R::Number n) {
  { record.per_byte() } -> std::convertible_to<typename R::Number>;
  { record.per_call() } -> std::convertible_to<typename R::Number>;
  record.set_per_byte(n);
  record.set_per_call(n);
};

/// The learned rates: two records, and the features that had a paid reply. `locked(body)` runs
/// `body` with the plain mutex that guards them; coming back for it is the host's error.
template <class R>
concept RatesHost = requires(R rates, typename R::Number number, typename R::Feature feature) {
  {
    rates.locked([] { return true; })
  } -> std::same_as<bool>;
  { rates.cost().bound(number) } -> std::same_as<typename R::Number>;
  { rates.tokens().bound(number) } -> std::same_as<typename R::Number>;
  rates.cost().learn(number, number);
  rates.tokens().learn(number, number);
  { rates.knows(feature) } -> std::same_as<bool>;
  { rates.knows_any() } -> std::same_as<bool>;
  { rates.unknown() } -> std::same_as<typename R::Number>;  // the infinite bound
  rates.add(feature);
};

}  // namespace decision_bounds
