// The bounds on a host of doubles: figures, the order of steps, and what a failure leaves.
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <vector>

#include "std_host.h"

namespace decision_bounds::std_host {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();
using Plain = Threads<false>;

template <class Result>
Result fail() {
  throw std::runtime_error("a callable of the caller's");
}
std::function<double()> always(double value) {
  return [=] { return value; };
}

TEST(RequestRatesTest, LearnsTheMostOfEachMeasureAndKeepsWhatCameBeforeAFailure) {
  Rates rates;
  EXPECT_EQ(request_tokens(rates, 1.0), kInfinite);
  learn(rates, 200.0, "a", paid(50, 0.04));
  EXPECT_EQ(request_cost(rates, 100.0, "a"), 0.04);
  EXPECT_EQ(request_cost(rates, 400.0, "a"), 0.08);
  EXPECT_EQ(request_tokens(rates, 400.0), 100);
  learn(rates, 10.0, "a", paid(1, 0.01));
  EXPECT_EQ(request_cost(rates, 100.0, "a"), 0.1);
  EXPECT_EQ(request_cost(rates, 1.0, "b"), kInfinite);
  EXPECT_THROW(learn(rates, 1.0, "b", Reply{always(500), fail<double>}), std::runtime_error);
  EXPECT_EQ(request_cost(rates, 1.0, "b"), 0.04) << "known, and the lock is free";
  EXPECT_THROW(learn(rates, 0.0, "c", Reply{fail<double>, always(3)}), std::runtime_error);
  EXPECT_EQ(request_cost(rates, 2.0, "c"), 6) << "the cost is learned first";
  EXPECT_EQ(request_tokens(rates, 100.0), 50);
}

TEST(RunBudgetTest, RefusesInOrderAndGivesBackOnce) {
  Budget<Plain> budget(2, 800);
  Share first = hold(budget, 300.0), second = hold(budget, 400.0);
  EXPECT_THROW(budget.reserve(0), BudgetExceeded) << "a call slot is not waited for";
  settle(first, Reply{});
  settle(first, paid(9, 9));
  EXPECT_TRUE(budget.tally.is(1, 400, 0));
  settle(second, paid(790, 0.5));
  Share third = hold(budget, kInfinite);
  Reply hit = paid(9, 9);
  hit.cached = [] { return true; };
  settle(third, hit);
  budget.charge(hit, 50);
  EXPECT_EQ(budget.cache_hits(), 2);
  EXPECT_TRUE(budget.tally.is(0, 0, 0) && budget.in_flight() == 0) << "or it would block the pass";
  EXPECT_FALSE(exhausted(budget));
  budget.charge(paid(10, 0.25), 0);
  EXPECT_EQ(budget.cost(), 0.75);
  budget.set_max_calls(3);
  try {
    budget.reserve(0);
    ADD_FAILURE() << "no token is left";
  } catch (const BudgetExceeded& error) {
    EXPECT_STREQ(error.what(), "decision budget exhausted: 2.000000 calls, locked");
  }
  budget.should_stop = [] { return true; };
  EXPECT_THROW(budget.reserve(0), Stopped) << "the stop comes first";
}

TEST(RunBudgetTest, AFailureLeavesTheStepsBeforeItAndTheLockFree) {
  Budget<Plain> budget(10, 100);
  for (int i = 0; i < 3; ++i) budget.reserve(30);
  Reply unreadable = paid(1, 1);
  unreadable.cached = fail<bool>;
  EXPECT_THROW(budget.charge(unreadable, 30), std::runtime_error);
  EXPECT_EQ(budget.in_flight(), 3);
  EXPECT_THROW(budget.charge(Reply{fail<double>, always(1)}, 30), std::runtime_error);
  EXPECT_TRUE(budget.calls() == 1 && budget.input_tokens() == 0 && budget.cost() == 0);
  EXPECT_THROW(budget.charge(Reply{always(20), fail<double>}, 30), std::runtime_error);
  EXPECT_TRUE(budget.calls() == 2 && budget.input_tokens() == 20 && budget.cost() == 0);
  int asked = 0;
  budget.should_stop = [&] { return ++asked == 2 && (exhausted(budget) || fail<bool>()); };
  EXPECT_THROW(hold(budget, kInfinite), std::runtime_error) << "inside the wait";
  asked = 0;
  budget.should_stop = [&] { return ++asked == 2; };
  EXPECT_THROW(hold(budget, kInfinite), Stopped);
  EXPECT_TRUE(budget.tally.is(1, 30, 0) && budget.in_flight() == 1 && !budget.changed.owned());
}

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
          }
        } catch (const BudgetExceeded&) {
        }
      });
    }
  }
  EXPECT_TRUE(budget.tally.is(0, 0, 0) && budget.in_flight() == 0);
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
      EXPECT_TRUE(budget.tally.is(1, 50, 0));
      settle(second, Reply{});
    });
    await<TypeParam>([&] { return budget.changed.waiters() == 1; });
    settle(first, reply);
  }
}

TYPED_TEST(RacingTest, AWaitingAdmissionIsWokenToRoomToAFullCapAndByAFailedReply) {
  const typename TypeParam::Entered entered;
  Account<TypeParam> account(10, [] { return "D"; }, [](auto&) { return 0.0; });
  const auto wait_and = [&](auto then, auto check) {
    Share first = admit(account, Call{always(kInfinite)});
    int asked = 0;
    {
      Task<TypeParam> waiting([&] { check(Call{[&] { return asked++ ? 2.0 : kInfinite; }}); });
      await<TypeParam>([&] { return account.changed.waiters() == 1; });
      then(first);
    }
    settle(first, Reply{});
    EXPECT_TRUE(account.tally.is(0, 0, 0));
    return asked;
  };
  const auto admitted = [&](const Call& call) {
    Share share = admit(account, call);
    EXPECT_TRUE(account.tally.is(1, 2, 0)) << "the bound is asked again";
    settle(share, Reply{});
  };
  EXPECT_EQ(wait_and([](Share& first) { settle(first, paid(0, 1)); }, admitted), 2);
  const auto fails = [](Share& first) {
    EXPECT_THROW(settle(first, Reply{{}, fail<double>}), std::runtime_error);
  };
  EXPECT_EQ(wait_and(fails, admitted), 2);
  const auto refused = [&](const Call& call) {
    EXPECT_THROW(admit(account, call), BudgetExceeded);
  };
  EXPECT_EQ(wait_and([&](Share&) { charge_today(account, paid(0, 9)); }, refused), 1);
  EXPECT_EQ(account.cost(), 10);
}

TEST(DailySpendTest, SharesStayHeldAcrossMidnightAndCountOnTheDayTheySettle) {
  std::string date = "D";
  Account<Plain> account(
      10, [&] { return date; }, [](auto& day) { return day == "D" ? 9.0 : 0.0; });
  Share a = admit(account, Call{always(0.5)}), b = admit(account, Call{always(0.5)});
  account.poll = 0;
  const auto midnight = [&] { return date = "D+1", false; };
  Share c = admit(account, Call{always(0.5), midnight});
  EXPECT_TRUE(account.tally.is(3, 1.5, 0));
  settle(a, paid(0, 0.7));
  settle(b, Reply{});
  EXPECT_EQ(spent(account), 0.7);
  date = "D";
  settle(c, paid(0, 0.5));
  EXPECT_EQ(account.cost(), 9.5) << "a day that comes again starts from the ledger";
  EXPECT_TRUE(account.tally.is(0, 0, 0));
}

TEST(DailySpendTest, AFailureHoldsNothingAndADayStartsOnlyWithTheLedgersAnswer) {
  std::string date = "D";
  int reads = 0;
  Account<Plain> account(10, fail<std::string>, [&](auto&) -> double {
    if (++reads == 1) throw Interrupt();
    return fail<double>();
  });
  const Call call{always(1)}, failing{fail<double>};
  EXPECT_THROW(admit(account, call), std::runtime_error);
  account.today = [&] { return date; };
  EXPECT_THROW(admit(account, call), Interrupt);
  EXPECT_EQ(account.day, "");
  EXPECT_THROW(admit(account, failing), std::runtime_error);
  EXPECT_EQ(account.day, "D");
  EXPECT_EQ(spent(account), 0.0);
  EXPECT_EQ(reads, 2) << "a failed read is not tried again";
  EXPECT_TRUE(account.tally.is(0, 0, 0) && !account.changed.owned());
  charge_today(account, paid(0, 10));
  for (const char* day : {"D", "D", "E", "E"}) {
    date = day;
    if (spent(account) == 0) charge_today(account, paid(0, 11));
    EXPECT_THROW(admit(account, failing), BudgetExceeded) << "before the bound is asked";
  }
  EXPECT_EQ(account.warnings, 2) << "one a day, outside the lock";
}

TEST(DailySpendTest, TheStopAndTheDeadlineCountOnlyWhereThereIsNoRoom) {
  Account<Plain> account(10, [] { return "D"; }, nullptr);
  const auto late = [](bool stop) {
    return Call{always(10), [=] { return stop; }, 5.0, always(6)};
  };
  Share share = admit(account, late(true));
  EXPECT_THROW(admit(account, late(true)), Stopped);
  EXPECT_THROW(admit(account, late(false)), TimedOut);
  EXPECT_TRUE(account.tally.is(1, 10, 0) && !account.changed.owned());
}

}  // namespace
}  // namespace decision_bounds::std_host
