// The lock among real threads: its depth, its waiters, interrupts, and what a fork leaves of them.
// Which thread comes when, and a fork at any instant, is the schedules' matter.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "std_host.h"

namespace decision_bounds::std_host {
namespace {

/// Room for so much, of which each waiter wishes its part; less than none is unknown.
struct Room {
  double left;
  Outlook outlook(double wish) noexcept {
    if (left < 0) return Outlook::unknown;
    if (wish > left) return Outlook::no_room;
    promise(wish);
    return Outlook::room;
  }
  void promise(double wish) noexcept { left -= wish; }
};

/// A monitor, and threads that sleep on it one after the other.
template <class Host>
struct Scene {
  using Place = typename Monitor<Host>::Place;
  typename Host::Entered entered;
  Monitor<Host> monitor;
  std::deque<std::atomic<bool>> back;
  std::deque<Task<Host>> tasks;
  bool looks = false;  // whether its threads look for interrupts, and so are woken on the spot

  /// One more thread, for whatever it does once it is woken. It is asleep when this returns.
  void add(
      std::optional<double> wish = {}, std::function<void(Locked<Host>&, Place&)> then =
                                           [](auto&, auto& place) { place.accept(); }) {
    const std::size_t before = monitor.waiters();
    tasks.emplace_back([this, wish, then = std::move(then), &is_back = back.emplace_back(false)] {
      if (looks) interrupts = [] { return false; };
      Locked<Host> held(monitor);
      Place place(monitor, wish);
      held.sleep(place);
      is_back = true;
      then(held, place);
    });
    await_waiters(before + 1);
  }
  void await_waiters(std::size_t count) {
    await<Host>([&] { return monitor.waiters() == count; });
  }
  void notify_all() { Locked<Host>(monitor).notify_all(); }
  void give(double room) {
    const Locked<Host> held(monitor);
    monitor.notify_ready([=] { return std::optional(Room{room}); });
  }
};

template <class Host>
struct MonitorTest : testing::Test {};
using Hosts = testing::Types<Threads<false>, Threads<true>>;
TYPED_TEST_SUITE(MonitorTest, Hosts);

TYPED_TEST(MonitorTest, TimeOutsEndAWaitAndNoSooner) {
  std::atomic<bool> over = false;
  Scene<TypeParam> scene;
  auto& monitor = scene.monitor;
  const auto lasts = [](Duration least, auto wait) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait(), Wake::timed_out);
    EXPECT_GE(std::chrono::steady_clock::now() - start, least);
  };
  monitor.lock();
  EXPECT_EQ(monitor.lock_for(0s), Wake::notified) << "one's own";
  monitor.unlock();
  std::atomic<bool> blocked = false;
  Task<TypeParam> patient([&] {
    for (const Duration length : {0ms, 20ms})
      lasts(length, [&] { return monitor.lock_for(length); });
    interrupts = [&] { return blocked = true, false; };
    ASSERT_EQ(monitor.lock_for(Duration::max()), Wake::notified);
    typename Scene<TypeParam>::Place place(monitor);
    lasts(20ms, [&] { return monitor.sleep(place, 20ms, WayBack::at_once); });
    EXPECT_TRUE(monitor.owned());
    blocked = false;
    EXPECT_EQ(monitor.sleep(place, Duration::max(), WayBack::at_once), Wake::notified);
    monitor.unlock();
  });
  await<TypeParam>([&] { return blocked || patient.done(); });
  monitor.unlock();
  await<TypeParam>([&] { return (!blocked && monitor.waiters() == 1) || patient.done(); });
  scene.notify_all();
  await<TypeParam>([&] { return patient.done(); });

  for (int i = 0; i < 3; ++i) {
    scene.tasks.emplace_back([&] {
      Locked<TypeParam> held(monitor);
      typename Scene<TypeParam>::Place place(monitor);
      while (!over) held.sleep(place, 20ms);
    });
  }
  scene.await_waiters(3);
  // With a global lock held all the while: they queue for the lock before they ask for that one.
  await<Threads<false>>([&] { return !TypeParam::kSerialized || monitor.waiters() == 0; });
  over = true;
}

TYPED_TEST(MonitorTest, NotifyWakesTheLongestSleepersAndAForecastThoseThatFindRoom) {
  Scene<TypeParam> scene;
  for (const double wish : {9, 9, 5, 2, 4, 3, 1}) scene.add(wish);
  scene.add();
  const auto wakes = [&](auto notify, std::initializer_list<std::size_t> gone) {
    notify();
    for (const std::size_t i : gone) await<TypeParam>([&] { return scene.back[i].load(); });
    scene.await_waiters(8 - gone.size());
  };
  const auto notify = [&](std::size_t count) {
    const Locked<TypeParam> held(scene.monitor);
    scene.monitor.notify(count);
  };
  wakes([&] { notify(2); }, {0, 1});
  wakes([&] { scene.give(0); }, {0, 1, 7});
  wakes([&] { scene.give(6); }, {0, 1, 2, 6, 7});
  wakes([&] { scene.give(-1); }, {0, 1, 2, 3, 4, 5, 6, 7});
}

TYPED_TEST(MonitorTest, WhatWasPromisedIsToldToNobodyElseUntilItIsPassedOn) {
  for (const auto& [again, looks] : {std::pair(false, false), {true, false}, {false, true}}) {
    Scene<TypeParam> scene;
    scene.looks = looks;
    std::atomic<bool> holds = false, enough = false;
    scene.add(2.0, [&](auto& held, auto& place) {
      holds = true;
      await<TypeParam>([&] { return enough.load(); });
      if (again) held.sleep(place);
    });
    for (int i = 0; i < 2; ++i) scene.add(2.0);
    {
      const Locked<TypeParam> held(scene.monitor);
      scene.give(3);
      scene.give(3);
      EXPECT_EQ(scene.monitor.waiters(), 2);
    }
    await<TypeParam>([&] { return holds.load(); });
    EXPECT_FALSE(scene.back[1] || scene.back[2]);
    enough = true;
    await<TypeParam>([&] { return scene.back[1] && scene.back[2]; });
    await<TypeParam>([&] { return scene.monitor.waiters() == again || scene.tasks[0].done(); });
    scene.notify_all();
  }
}

// A new child in every respect but the process, so that a sanitizer can look on.
TYPED_TEST(MonitorTest, AllThreadsOfANewChildMayComeAtOnce) {
  std::atomic<int> blocked = 0;
  std::atomic<bool> holds = false;
  Scene<TypeParam> scene;
  note_fork();
  Task<TypeParam> holder([&] {
    const Locked<TypeParam> held(scene.monitor);
    holds = true;
    await<TypeParam>([&] { return blocked == 3; });
  });
  await<TypeParam>([&] { return holds.load(); });
  for (int i = 0; i < 3; ++i) {
    scene.tasks.emplace_back([&] {
      interrupts = [&, first = true]() mutable {
        return blocked += std::exchange(first, false), false;
      };
      typename Scene<TypeParam>::Place place(scene.monitor);
      Locked<TypeParam>(scene.monitor).sleep(place);
    });
  }
  scene.await_waiters(3);
  scene.notify_all();
}

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
// Forked while another thread allocates, a child finds the address sanitizer's own lock taken.
#if !defined(__SANITIZE_THREAD__) && !__has_feature(thread_sanitizer) && \
    !defined(__SANITIZE_ADDRESS__) && !__has_feature(address_sanitizer)

// All else that a fork leaves is seen to under every schedule, and in the interpreter's processes.
TYPED_TEST(MonitorTest, AChildMayDestroyWhatThreadsOfItsParentWaitFor) {
  Scene<TypeParam> scene;
  std::atomic<bool> blocked = false;
  scene.monitor.lock();
  scene.tasks.emplace_back([&] {
    interrupts = [&] { return blocked = true, false; };
    const Locked<TypeParam> held(scene.monitor);
  });
  await<TypeParam>([&] { return blocked.load(); });
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    note_fork();
    std::destroy_at(&scene.monitor);
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  scene.monitor.unlock();
}

#endif

}  // namespace
}  // namespace decision_bounds::std_host
