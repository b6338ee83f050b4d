// What a request may cost and how many input tokens it may use, learned from the paid replies.
//
// `Rates` is the host's (see host.h). Its plain mutex is held for the whole of each operation and
// taken last: no other lock is taken inside; an account's lock may be held around it, never the
// reverse.
#pragma once

#include "decision_bounds/number.h"

namespace decision_bounds {

/// The most a request of `size` bytes may come to: never less than the dearest call seen.
template <class Record, class Number>
Number charge_bound(const Record& record, const Number& size) {
  const Number by_size = record.per_byte() * size;
  return larger(by_size, record.per_call());
}

/// Raises the maxima to a paid reply's `charge`; a request below one byte counts as one.
template <class Record, class Number>
void learn_charge(Record& record, const Number& size, const Number& charge) {
  const Number per_byte = record.per_byte();
  record.set_per_byte(larger(per_byte, charge / larger(size, Number(1))));
  record.set_per_call(larger(record.per_call(), charge));
}

/// USD that a request may cost; infinite while its own feature has had no paid reply.
template <class Rates, class Size, class Feature>
auto request_cost(Rates& rates, const Size& size, const Feature& feature) {
  return rates.locked(
      [&] { return rates.knows(feature) ? rates.cost().bound(size) : rates.unknown(); });
}

/// Input tokens that a request may use; infinite until the first paid reply of any feature.
template <class Rates, class Size>
auto request_tokens(Rates& rates, const Size& size) {
  return rates.locked(
      [&] { return rates.knows_any() ? rates.tokens().bound(size) : rates.unknown(); });
}

/// Learns from a paid reply; false where it could not be read. What stands before a step that fails
/// stays: the feature is known even when the reply's numbers are not.
template <class Rates, class Size, class Feature, class Reply>
bool learn(Rates& rates, const Size& size, const Feature& feature, const Reply& reply) {
  return rates.locked([&] {
    rates.add(feature);
    const auto cost = reply.cost();
    if (!cost) return false;
    rates.cost().learn(size, *cost);
    const auto used = reply.input_tokens();
    if (!used) return false;
    rates.tokens().learn(size, *used);
    return true;
  });
}

}  // namespace decision_bounds
