// The lock: its depth, its waiters, interrupts, and what a fork leaves of them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "std_host.h"

namespace decision_bounds::std_host {
namespace {

struct Counted final : Waiter {
  bool room = true;
  std::atomic<int> asked = 0, backs = 0;
  bool ready() noexcept override { return ++asked, room; }
  void back() noexcept override { ++backs; }
};

/// A monitor, and threads that sleep on it one after the other.
template <class Host>
struct Scene {
  typename Host::Entered entered;
  Monitor<Host> monitor;
  std::deque<Counted> waiters;
  std::deque<Task<Host>> tasks;

  /// One more thread, which has its turn once it is called. It is asleep when this returns.
  void add(std::function<void(Locked<Host>&)> turn = [](auto&) {}, bool room = true) {
    Counted& waiter = waiters.emplace_back();
    waiter.room = room;
    const std::size_t before = monitor.waiters();
    tasks.emplace_back([this, &waiter, turn = std::move(turn)] {
      Locked<Host> held(monitor);
      held.sleep(waiter, std::nullopt);
      turn(held);
    });
    await_waiters(before + 1);
  }
  /// Whether another thread could take the lock now.
  bool free() {
    bool taken = false;
    Task<Host>([&] {
      taken = monitor.try_lock();
      if (taken) monitor.unlock();
    });
    return taken;
  }
  int backs() const {
    int sum = 0;
    for (const Counted& waiter : waiters) sum += waiter.backs;
    return sum;
  }
  void await_waiters(std::size_t count) {
    await<Host>([&] { return monitor.waiters() == count; });
  }
  void await_back(std::size_t i) {
    await<Host>([&] { return waiters[i].backs == 1; });
  }
  void await_time(Duration time) {
    const auto end = std::chrono::steady_clock::now() + time;
    await<Host>([&] { return std::chrono::steady_clock::now() > end; });
  }
  void notify_all() { Locked<Host>(monitor).notify_all(); }
  void sleep(Waiter& waiter) { Locked<Host>(monitor).sleep(waiter, std::nullopt); }
};

template <class Host>
struct MonitorTest : testing::Test {};
using Hosts = testing::Types<Threads<false>, Threads<true>>;
TYPED_TEST_SUITE(MonitorTest, Hosts);

TYPED_TEST(MonitorTest, AWaitGivesUpTheWholeDepthAndTakesItBack) {
  Scene<TypeParam> scene;
  Task<TypeParam> sleeper([&] {
    Counted waiter;
    const Locked<TypeParam> outer(scene.monitor);
    scene.sleep(waiter);
    EXPECT_FALSE(scene.free());
  });
  scene.await_waiters(1);
  scene.notify_all();
  await<TypeParam>([&] { return sleeper.done(); });
  EXPECT_TRUE(scene.free());
}

TYPED_TEST(MonitorTest, TimeOutsEndAWaitInTimeAndNoSooner) {
  Scene<TypeParam> scene;
  auto& monitor = scene.monitor;
  monitor.lock();
  EXPECT_EQ(monitor.lock_for(0s), Wake::notified) << "one's own";
  monitor.unlock();
  std::atomic<bool> blocked = false;
  Task<TypeParam> patient([&] {
    EXPECT_EQ(monitor.lock_for(0s), Wake::timed_out);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(monitor.lock_for(20ms), Wake::timed_out);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    interrupts = [&] { return blocked = true, false; };
    ASSERT_EQ(monitor.lock_for(Duration::max()), Wake::notified);
    Counted brief, endless;
    unsigned depth = 0;
    EXPECT_EQ(monitor.sleep(brief, 20ms, depth), Wake::timed_out);
    EXPECT_EQ(brief.backs, 1);
    EXPECT_TRUE(monitor.lock_again(depth, false));
    blocked = false;
    EXPECT_EQ(monitor.sleep(endless, Duration::max(), depth), Wake::notified);
  });
  await<TypeParam>([&] { return blocked || patient.done(); });
  monitor.unlock();
  await<TypeParam>([&] { return (!blocked && monitor.waiters() == 1) || patient.done(); });
  scene.notify_all();
}

TYPED_TEST(MonitorTest, NotifyWakesTheLongestSleepersAndNotifyAllThoseThatAreReady) {
  Scene<TypeParam> scene;
  for (int i = 0; i < 5; ++i) scene.add([](auto&) {}, i == 3);
  const auto notify = [&](std::size_t count, std::initializer_list<std::size_t> gone) {
    {
      Locked<TypeParam> held(scene.monitor);
      count == 0 ? held.notify_all() : scene.monitor.notify(count);
    }
    for (const std::size_t i : gone) scene.await_back(i);
    EXPECT_EQ(scene.backs(), static_cast<int>(gone.size()));
    scene.await_waiters(5 - gone.size());
  };
  notify(2, {0, 1});
  notify(0, {0, 1, 3});
  notify(0, {0, 1, 3});
  notify(1, {0, 1, 2, 3});
  notify(9, {0, 1, 2, 3, 4});
  const int asked[] = {0, 0, 2, 1, 2};
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(scene.waiters[i].asked, asked[i]) << i;
}

TYPED_TEST(MonitorTest, AnInterruptLeavesTheLockReleasedOrWithItsOuterHold) {
  Scene<TypeParam> scene;
  auto& monitor = scene.monitor;
  for (const bool outer : {false, true}) {
    for (const bool notified : {false, true}) {
      Counted waiter;
      std::atomic<bool> interrupt = false, out = false;
      Task<TypeParam> task([&] {
        interrupts = [&] { return interrupt.load(); };
        if (outer) monitor.lock();
        EXPECT_THROW(scene.sleep(waiter), Interrupt);
        out = true;
        EXPECT_EQ(monitor.owned(), outer);
        if (outer) return monitor.unlock();
        EXPECT_THROW((Locked<TypeParam>(monitor)), Interrupt) << "blocked on the lock";
        EXPECT_FALSE(monitor.owned());
      });
      scene.await_waiters(1);
      monitor.lock();
      if (notified && !outer) monitor.notify_all();
      interrupt = true;
      // Alone it leaves without the lock; an outer hold it has to take back first.
      await<TypeParam>([&] { return outer ? waiter.backs == 1 : task.done(); });
      EXPECT_EQ(out, !outer);
      EXPECT_EQ(waiter.backs, 1);
      monitor.unlock();
    }
    EXPECT_TRUE(scene.free());
  }
}

TYPED_TEST(MonitorTest, CalledWaitersComeOneAfterTheOtherHoweverATurnEnds) {
  constexpr int kRounds = 20;
  int alone = 0;
  for (int round = 0; round < kRounds; ++round) {
    Scene<TypeParam> scene;
    for (const bool again : {true, false, false}) {
      scene.add([&, again](auto& held) {
        scene.await_time(500us);
        alone += scene.backs() == 1;
        Counted waiter;
        if (again) held.sleep(waiter, std::nullopt);
        held.notify_all();
      });
    }
    scene.notify_all();
    await<TypeParam>([&] { return scene.tasks[1].done() && scene.tasks[2].done(); });
    await<TypeParam>([&] { return scene.tasks[0].done() || scene.monitor.waiters() == 1; });
    scene.notify_all();
  }
  EXPECT_GT(alone, kRounds / 2) << "but where the machine is slow they may come together";
}

TYPED_TEST(MonitorTest, ACalledWaiterWhoseTimeIsOverComesByItself) {
  Counted brief;
  Scene<TypeParam> scene;
  scene.add([&](auto&) { await<TypeParam>([&] { return brief.backs == 1; }); });
  Task<TypeParam> in_time([&] {
    unsigned depth = 0;
    scene.monitor.lock();
    EXPECT_EQ(scene.monitor.sleep(brief, 200ms, depth), Wake::notified);
    scene.monitor.lock_again(depth, false);
    scene.monitor.unlock();
  });
  scene.await_waiters(2);
  scene.add();
  scene.notify_all();
}

TYPED_TEST(MonitorTest, ATurnThatTakesLongKeepsNobodyElseAsleep) {
  Scene<TypeParam> scene;
  scene.add([&](auto&) { scene.await_time(2ms); });
  const auto when_all_are_back = [&](auto&) {
    await<TypeParam>([&] { return scene.backs() == 4; });
  };
  for (int i = 0; i < 3; ++i) scene.add(when_all_are_back);
  scene.notify_all();
}

TYPED_TEST(MonitorTest, NobodysTurnWaitsForWhatAnInterruptRuns) {
  Scene<TypeParam> scene;
  std::atomic<bool> handling = false;
  Counted watching;
  Task<TypeParam> watcher([&] {
    interrupts = [&] {
      handling = true;
      scene.await_back(1);
      return false;
    };
    scene.sleep(watching);
  });
  scene.await_waiters(1);
  scene.add();
  scene.add();
  await<TypeParam>([&] { return handling.load(); });
  scene.notify_all();
}

// A new child in every respect but the process, so that a sanitizer can look on.
TYPED_TEST(MonitorTest, AllThreadsOfANewChildMayComeAtOnce) {
  std::atomic<int> blocked = 0;
  std::deque<Counted> waiters(3);
  Scene<TypeParam> scene;
  note_fork();
  Task<TypeParam> holder([&] {
    const Locked<TypeParam> held(scene.monitor);
    await<TypeParam>([&] { return blocked == 3; });
  });
  await<TypeParam>([&] { return !scene.free(); });
  for (Counted& waiter : waiters) {
    scene.tasks.emplace_back([&] {
      interrupts = [&, first = true]() mutable {
        return blocked += std::exchange(first, false), false;
      };
      scene.sleep(waiter);
    });
  }
  scene.await_waiters(3);
  scene.notify_all();
}

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if !defined(__SANITIZE_THREAD__) && !__has_feature(thread_sanitizer)

/// Whether `body` says yes in a forked child, in bounded time.
template <class Body>
bool in_child(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(5);
    note_fork();
    _exit(body() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TYPED_TEST(MonitorTest, AChildIsRidOfTheThreadsThatItDoesNotHaveAndKeepsItsOwnHold) {
  Scene<TypeParam> scene;
  auto& monitor = scene.monitor;
  for (const bool own : {false, true}) {
    scene.add();
    std::atomic<bool> held = false, blocked = false, enough = false;
    if (own) monitor.lock();
    Task<TypeParam> holder([&] {
      interrupts = [&] { return blocked = true, false; };
      const Locked<TypeParam> outer(monitor), inner(monitor);
      held = true;
      await<TypeParam>([&] { return enough.load(); });
      monitor.notify_all();
    });
    await<TypeParam>([&] { return held || blocked; });
    Task<TypeParam> blocker([&] {
      interrupts = [&] { return blocked = true, false; };
      const Locked<TypeParam> late(monitor);
    });
    await<TypeParam>([&] { return blocked.load(); });
    EXPECT_TRUE(in_child([&] {
      if (monitor.owned() != own || monitor.lock_for(0s) != Wake::notified) return false;
      if (monitor.waiters() != 0) return false;
      monitor.notify_all();
      if (own) monitor.unlock();
      if (scene.free()) return false;
      monitor.unlock();
      return scene.free();
    })) << own;
    EXPECT_TRUE(in_child([&] { return std::destroy_at(&monitor), true; })) << "of no more use";
    if (own) monitor.unlock();
    enough = true;
  }
}

TYPED_TEST(MonitorTest, AChildMayBeForkedInOnesOwnTurnOrAnothers) {
  Scene<TypeParam> scene;
  const auto works = [&] {
    Counted mine, others;
    Locked<TypeParam> held(scene.monitor);
    held.sleep(mine, 1us);
    Task<TypeParam> other([&] { scene.sleep(others); });
    const unsigned depth = scene.monitor.unlock_all();
    scene.await_waiters(1);
    scene.notify_all();
    await<TypeParam>([&] { return other.done(); });
    return scene.monitor.lock_again(depth, false) && mine.backs == 1 && others.backs == 1;
  };
  for (int i = 0; i < 2; ++i) scene.add([works](auto&) { EXPECT_TRUE(in_child(works)); });
  scene.notify_all();
  EXPECT_TRUE(in_child(works));
}

TYPED_TEST(MonitorTest, AChildMayBeForkedAtAnyInstant) {
  Scene<TypeParam> scene;
  std::atomic<bool> enough = false;
  const auto turn = [&](Duration nap) {
    Counted waiter;
    Locked<TypeParam> held(scene.monitor);
    held.notify_all();
    held.sleep(waiter, nap);
    return waiter.backs == 1;
  };
  const auto hammer = [&] {
    while (!enough) turn(50us);
  };
  Task<TypeParam> one(hammer), two(hammer), three(hammer);
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(in_child([&] { return turn(1us) && scene.monitor.waiters() == 0; })) << i;
    const typename TypeParam::Unlocked unlocked;
    std::this_thread::sleep_for(std::chrono::microseconds(i));
  }
  enough = true;
}
#endif

}  // namespace
}  // namespace decision_bounds::std_host
