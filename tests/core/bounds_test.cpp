// The bounds without an interpreter: many threads on one of them, for the sanitizers to look on.
// What each operation comes to is the Python tests' matter.
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "std_host.h"

namespace decision_bounds::std_host {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();

template <class Host>
struct RacingTest : testing::Test {};
using Hosts = testing::Types<Threads<false>, Threads<true>>;
TYPED_TEST_SUITE(RacingTest, Hosts);

// Each sleep would last a minute: a lost notification hangs the test.
TYPED_TEST(RacingTest, ThreadsNeverOverrunTheBoundAndLeaveNothingHeld) {
  const typename TypeParam::Entered entered;
  Budget<TypeParam> budget(400, 100);
  std::atomic<int> running = 0, alone = 0, admitted = 0;
  {
    std::deque<Task<TypeParam>> tasks;
    for (int t = 0; t < 6; ++t) {
      tasks.emplace_back([&, t] {
        try {
          for (int i = t;; ++i) {
            const bool unbounded = i % 7 == 0;
            Share share = hold(budget, unbounded ? kInfinite : 40.0);
            EXPECT_LE(++running, unbounded ? 1 : 3);
            EXPECT_LE(alone += unbounded, unbounded ? 1 : 0);
            {
              const typename TypeParam::Unlocked unlocked;
              std::this_thread::yield();
            }
            alone -= unbounded, --running;
            const bool counts = i % 5 != 0;
            admitted += counts;
            settle(share, counts ? paid(0, 0.5) : Reply{});
            settle(share, paid(9, 9));
          }
        } catch (const BudgetExceeded&) {
        }
      });
    }
  }
  EXPECT_TRUE(budget.holds_nothing() && budget.in_flight() == 0);
  EXPECT_EQ(budget.calls(), admitted);
  EXPECT_LE(budget.calls(), 400);
  EXPECT_EQ(budget.cost(), budget.calls() * 0.5);
}

TYPED_TEST(RacingTest, AWaitingReservationIsWokenByAReleaseAndByAPaidCharge) {
  const typename TypeParam::Entered entered;
  Budget<TypeParam> budget(9, 100);
  for (const Reply& reply : {Reply{}, paid(1, 0)}) {
    Share first = hold(budget, kInfinite);
    Task<TypeParam> waiting([&] {
      Share second = hold(budget, 50.0);
      EXPECT_EQ(budget.tally.amount(), 50);
      settle(second, Reply{});
    });
    await<TypeParam>([&] { return budget.changed.waiters() == 1; });
    settle(first, reply);
  }
  EXPECT_TRUE(budget.holds_nothing());
}

TYPED_TEST(RacingTest, AWaitingAdmissionIsWokenToRoomToAFullCapAndByAFailedReply) {
  const typename TypeParam::Entered entered;
  Account<TypeParam> account(10);
  const auto wait_and = [&](auto then) {
    Share first = admit(account, Call{[] { return kInfinite; }});
    std::string end;
    {
      Task<TypeParam> waiting([&, asked = 0]() mutable {
        try {
          Share share = admit(account, Call{[&] { return asked++ ? 2.0 : kInfinite; }});
          end = account.tally.amount() == 2 ? "admitted, the bound asked again" : "admitted";
          settle(share, Reply{});
        } catch (const BudgetExceeded& error) {
          end = error.what();
        }
      });
      await<TypeParam>([&] { return account.changed.waiters() == 1; });
      then(first);
    }
    settle(first, Reply{});
    EXPECT_TRUE(account.holds_nothing() && !account.changed.owned());
    return end;
  };
  const auto settles = [](Share& first) { settle(first, paid(0, 1)); };
  EXPECT_EQ(wait_and(settles), "admitted, the bound asked again");
  const auto fails = [](Share& first) {
    EXPECT_THROW(settle(first, Reply{0, []() -> double { throw std::domain_error("unreadable"); }}),
                 std::domain_error);
  };
  EXPECT_EQ(wait_and(fails), "admitted, the bound asked again");
  const auto charges = [&](Share&) { charge_today(account, paid(0, 9)); };
  EXPECT_EQ(wait_and(charges), "the cap is reached");
}

}  // namespace
}  // namespace decision_bounds::std_host
