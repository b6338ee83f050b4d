// What the core asks of its host, the interpreter's binding. Every operation of a bound is a
// template over a handle of the host's, which has these members besides the bound's numbers
// (`calls()`, `set_calls(n)`, ...; an empty optional where a number may be none and is). An
// operation that others call by name (`stopping`, `reserve`, `today_locked`, ...) may be the host's
// override of it.
//
// Errors. What a callable of the caller's raises leaves the core as the host's exception, which the
// core does not catch. Where a failure is ordinary, that of a reply that is read, an empty optional
// or a plain false tells of it instead, and the host knows why. What is the core's own is an
// Outcome: `refuse` makes the host's error of it where it is decided. What a failure leaves applied
// stands at each operation.
//
//   Number            a number with the meaning that the host's callers give it, and what number.h
//                     names; any step may throw
//   locked(body)      runs `body(condition)` with the bound's lock held, which is re-entrant, and
//                     gives its result; the lock is released on every way out
//   condition         notify_all(); wait(timeout), for at most so many seconds and without the
//                     lock; accept(), when the room that a waiter was promised is taken
//   attempt(steps, otherwise)
//                     runs steps that answer whether they went well; where they did not, or threw,
//                     `otherwise` runs before the failure goes on as it came
//   held()            the tally, with the operations of held.h; renew(tally) makes it what held()
//                     gives by now
//   make_share()      a share, before anything is taken; owe(bound, amount) fills it and cannot
//                     fail, unless somebody has replaced what a share is: then what was taken is
//                     given back first; none(outcome) instead of it
//   refuse(outcome)   of a budget: shows the counters, with the lock held but for a first stop
//   wait(condition, ...)
//                     the wait step of wait.h: how the admission ends, or nothing
//   reply             paid(): whether there is one; cached(), input_tokens(), cost(): optionals
//
// Of a day: today(), is_another_day(day), start_day(day, cost), has_ledger(), read_ledger(day);
// bound(call); first_refusal() marks that the cap was reached and answers whether that is the first
// time today; warn(cost) and refuse(cost) come after the lock is released. Of the rates: their lock
// is a plain mutex, and coming back for it is the host's error; cost() and tokens() are records;
// knows(feature), knows_any(), add(feature), and unknown(), the infinite bound.
#pragma once
