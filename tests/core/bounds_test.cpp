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
  Account<TypeParam> account(400);
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
  EXPECT_EQ(account.cost(), counted * 0.5);
  EXPECT_EQ(budget.refusals, 6);
}

TYPED_TEST(BoundsTest, AWaitingCallIsWokenByWhateverGivesRoomOrTakesTheLast) {
  const typename TypeParam::Entered entered;
  Budget<TypeParam> budget(9, 100);
  Account<TypeParam> account(10);
  for (const Reply& reply : {Reply{}, paid(1, 1)}) {
    Share first = hold(budget, kInfinite).share;
    Share day = admit(account, Call{[] { return kInfinite; }}).share;
    Task<TypeParam> reserving([&] { settle(hold(budget, 50.0).share, Reply{}); });
    Task<TypeParam> admitted([&, asked = 0]() mutable {
      settle(admit(account, Call{[&] { return asked++ ? 2.0 : kInfinite; }}).share, Reply{});
      EXPECT_EQ(asked, 2) << "the bound is asked again";
    });
    await<TypeParam>([&] { return budget.changed.waiters() + account.changed.waiters() == 2; });
    settle(first, reply);
    settle(day, reply);
  }
  Share last = admit(account, Call{[] { return kInfinite; }}).share;
  {
    Task<TypeParam> refused(
        [&] { EXPECT_EQ(admit(account, Call{[] { return 1.0; }}).outcome, Outcome::refused); });
    await<TypeParam>([&] { return account.changed.waiters() == 1; });
    charge_today(account, paid(0, 9));
  }
  EXPECT_EQ(account.warnings, 1);
  settle(last, Reply{});
  EXPECT_TRUE(account.holds_nothing() && budget.holds_nothing());
}

TYPED_TEST(BoundsTest, ADayStartsOnceForAllAndRatesAreLearnedWhole) {
  const typename TypeParam::Entered entered;
  Account<TypeParam> account(100);
  Rates rates;
  std::atomic<int> read = 0, day = 0;
  account.clock_day = [&] { return std::to_string(day.load()); };
  account.ledger = [&](const std::string& since) -> std::optional<double> {
    ++read;
    return since == "1" ? std::nullopt : std::optional(7.0);
  };
  for (const double start : {7.0, 0.0, 7.0}) {
    {
      std::deque<Task<TypeParam>> tasks;
      for (int t = 0; t < 4; ++t) {
        tasks.emplace_back([&] {
          EXPECT_GE(spent(account), start);
          learn(rates, 10.0, std::string("a"), paid(50, 1));
          EXPECT_EQ(request_cost(rates, 20.0, std::string("a")), 2);
          EXPECT_EQ(request_tokens(rates, 20.0), 100);
          charge_today(account, paid(0, 0.5));
        });
      }
    }
    EXPECT_EQ(account.cost(), start + 2);
    EXPECT_EQ(read, ++day);
  }
  EXPECT_FALSE(learn(rates, 1.0, std::string("b"), unreadable()));
  EXPECT_EQ(request_cost(rates, 1.0, std::string("b")), 1) << "known all the same";
}

}  // namespace
}  // namespace decision_bounds::std_host
