// The bounds without an interpreter: many threads on them, for the sanitizers to look on. What each
// operation comes to is the Python tests' matter.
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "std_host.h"

namespace decision_bounds::std_host {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();

double unreadable() { throw std::domain_error("a reply of the caller's"); }

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
    Share day = admit(account, Call{[=] { return cost_known ? 1.0 : kInfinite; }});
    EXPECT_LE(++paying, cost_known ? 6 : 1);
    try {
      Share pass = hold(budget, bounded ? 40.0 : kInfinite);
      EXPECT_LE(++running, bounded ? 3 : 1);
      EXPECT_LE(alone += !bounded, bounded ? 0 : 1);
      {
        const typename TypeParam::Unlocked unlocked;
        std::this_thread::yield();
      }
      alone -= !bounded, --running, counted += read;
      for (int twice = 0; twice < 2; ++twice) settle(pass, read ? paid(0, 0.5) : Reply{});
    } catch (const BudgetExceeded&) {
      --paying;
      settle(day, Reply{});
      return false;
    }
    --paying;
    if (i % 10 == 0) {
      EXPECT_THROW(settle(day, Reply{0, unreadable}), std::domain_error);
    }
    for (int twice = 0; twice < 2; ++twice) settle(day, read ? paid(0, 0.5) : Reply{});
    return true;
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
}

TYPED_TEST(BoundsTest, AWaitingCallIsWokenByWhateverGivesRoomOrTakesTheLast) {
  const typename TypeParam::Entered entered;
  Budget<TypeParam> budget(9, 100);
  Account<TypeParam> account(10);
  for (const Reply& reply : {Reply{}, paid(1, 1)}) {
    Share first = hold(budget, kInfinite), day = admit(account, Call{[] { return kInfinite; }});
    Task<TypeParam> reserving([&] { settle(hold(budget, 50.0), Reply{}); });
    Task<TypeParam> admitted([&, asked = 0]() mutable {
      settle(admit(account, Call{[&] { return asked++ ? 2.0 : kInfinite; }}), Reply{});
      EXPECT_EQ(asked, 2) << "the bound is asked again";
    });
    await<TypeParam>([&] { return budget.changed.waiters() + account.changed.waiters() == 2; });
    settle(first, reply);
    settle(day, reply);
  }
  Share last = admit(account, Call{[] { return kInfinite; }});
  {
    Task<TypeParam> refused(
        [&] { EXPECT_THROW(admit(account, Call{[] { return 1.0; }}), BudgetExceeded); });
    await<TypeParam>([&] { return account.changed.waiters() == 1; });
    charge_today(account, paid(0, 9));
  }
  settle(last, Reply{});
  EXPECT_TRUE(account.holds_nothing() && budget.holds_nothing());
}

}  // namespace
}  // namespace decision_bounds::std_host
