// The bounds without an interpreter: many threads on them, for the sanitizers to look on. What each
// operation comes to is the Python tests' matter.
#include <gtest/gtest.h>

#include "std_bounds.h"

namespace decision_bounds::std_host {
namespace {

template <class Host>
struct BoundsTest : testing::Test {};
using Hosts = testing::Types<Threads<false>, Threads<true>>;
TYPED_TEST_SUITE(BoundsTest, Hosts);

// Each sleep would last a minute: a lost notification hangs the test.
TYPED_TEST(BoundsTest, ThreadsNeverOverrunThemAndLeaveNothingHeld) {
  const typename TypeParam::Entered entered;
  Budget<TypeParam> budget(400, 100);
  Account<TypeParam> account(407);
  account.ledger = [](const std::string&) { return std::optional(7.0); };
  Rates rates;
  std::atomic<int> paying = 0, running = 0, alone = 0, counted = 0;
  const auto make_call = [&](int i) {
    const bool cost_known = i % 9 != 0, bounded = i % 7 != 0, read = i % 5 != 0;
    auto [admitted, day] = admit(account, Call{[=] { return cost_known ? 1.0 : kInfinite; }});
    EXPECT_EQ(admitted, Outcome::admitted);
    EXPECT_LE(++paying, cost_known ? 6 : 1);
    auto [outcome, pass] = hold(budget, bounded ? 40.0 : kInfinite);
    if (outcome == Outcome::admitted) {
      EXPECT_LE(++running, bounded ? 3 : 1);
      EXPECT_LE(alone += !bounded, bounded ? 0 : 1);
      {
        const typename TypeParam::Unlocked unlocked;
        std::this_thread::yield();
      }
      alone -= !bounded, --running, counted += read;
      for (int twice = 0; twice < 2; ++twice) settle(pass, read ? paid(0, 0.5) : Reply{});
    }
    learn(rates, 10.0, std::string("a"), paid(50, 1));
    EXPECT_EQ(request_cost(rates, 20.0, std::string("a")), 2);
    EXPECT_EQ(request_tokens(rates, 20.0), 100);
    --paying;
    if (i % 10 == 0) {
      EXPECT_FALSE(settle(day, unreadable()));
    }
    const bool pays = read && outcome == Outcome::admitted;
    for (int twice = 0; twice < 2; ++twice) settle(day, pays ? paid(0, 0.5) : Reply{});
    return outcome == Outcome::admitted;
  };
  {
    std::deque<Task<TypeParam>> tasks;
    for (int t = 0; t < 6; ++t) {
      tasks.emplace_back([&, i = t]() mutable {
        while (make_call(i)) ++i;
      });
    }
  }
  EXPECT_TRUE(account.holds_nothing() && budget.holds_nothing() && budget.in_flight() == 0);
  EXPECT_EQ(budget.calls(), counted);
  EXPECT_EQ(budget.cost(), counted * 0.5);
  EXPECT_TRUE(charge_today(account, paid(0, 1)));
  EXPECT_EQ(spent(account), 8 + counted * 0.5) << "the day started once";
  EXPECT_TRUE(exhausted(budget));
  EXPECT_EQ(budget.refusals, 6);
}

}  // namespace
}  // namespace decision_bounds::std_host
