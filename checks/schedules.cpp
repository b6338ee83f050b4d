// The monitor under every schedule of three threads with so many switches out of turn at the most,
// and under random ones of six: no wake-up lost, no turn lost, nothing granted twice.
//
//   schedules [thorough]    prints how many there were; fails with the first bad one
#include <iostream>

#include "decision_bounds/sync/monitor.h"
#include "scheduler.h"

namespace decision_bounds::scheduler {
namespace {

/// How an operation waits: told of room or always woken, with an outer hold, with a deadline.
enum class Wait { told, blind, deep, timed };
enum class End { taken, timed_out, interrupted };

struct Step {
  enum What { hold, give, interrupt, await, gather } what;
  unsigned number = 1;  // how much, which thread, or how many
  Wait wait = Wait::told;
};
constexpr Step kHold{Step::hold}, kGive{Step::give};

/// What a thread does with an interrupt: ends what waits, forks, or waits for all the others.
enum class Handler { raises, forks, waits };

/// What a thread does, before it gives all back.
struct Script {
  std::vector<Step> steps;
  bool watches = false;
  Handler handler = Handler::raises;
};

struct Scenario {
  const char* name;
  int room;
  std::vector<Script> scripts;
  bool prompt = false;    // no time passes but for an interrupt or a deadline, which come in time
  bool all_wait = false;  // for what the first gives: then they come one at a time
  Duration turn{};        // how long each of them takes
};

/// The room that the waiters would find.
struct Room {
  int left;
  Outlook outlook(int wish) noexcept {
    if (wish > left) return Outlook::no_room;
    promise(wish);
    return Outlook::room;
  }
  void promise(int wish) noexcept { left -= wish; }
};

/// A bound of so much room, and the threads on it.
template <class Host>
class World {
  using Monitor = decision_bounds::Monitor<Host>;
  using Place = typename Monitor::Place;
  using Entered = typename Host::Entered;
  using Unlocked = typename Host::Unlocked;

 public:
  explicit World(const Scenario& scenario) : scenario_(scenario), room_(scenario.room) {}

  /// What went wrong, or nothing.
  std::string run(Decisions& decisions) {
    std::vector<std::unique_ptr<Thread>> threads;
    for (const Script& script : scenario_.scripts) {
      Thread& thread = *threads.emplace_back(std::make_unique<Thread>());
      thread.watches = script.watches;
      thread.body = [this, &script] { play(script); };
      thread.handler = [this, &script] { return handle(script.handler); };
    }
    Host::global = {};
    const std::string failure = scheduler.run(std::move(threads), decisions);
    if (!failure.empty()) return failure;
    if (room_ != scenario_.room) return "room is lost";
    if (monitor_.waiters() != 0) return "a waiter is left";
    const unsigned guards = Mutex::taken;
    monitor_.lock();
    monitor_.unlock();
    return Mutex::taken != guards ? "the guard is taken where nobody waits" : "";
  }

 private:
  void play(const Script& script) {
    const Entered entered;
    for (const Step& step : script.steps) {
      switch (step.what) {
        case Step::hold:
          hold(static_cast<int>(step.number), step.wait);
          break;
        case Step::give:
          give(std::exchange(mine(), 0));
          break;
        case Step::interrupt:
          scheduler.thread(step.number).interrupt_now();
          break;
        case Step::await:
          await([&] { return scheduler.thread(step.number).over; });
          break;
        case Step::gather:
          await([&] { return asleep_ == step.number; });
      }
    }
    if (mine() != 0) give(std::exchange(mine(), 0));
  }

  int& mine() { return holds_[scheduler.current().number]; }

  void hold(int amount, Wait wait) {
    scheduler.current().asked = true;
    if (!monitor_.lock()) return scheduler.require(!monitor_.owned(), "held after an interrupt");
    const bool deep = wait == Wait::deep;
    if (deep) monitor_.lock();
    Place place(monitor_, wait == Wait::blind ? std::nullopt : std::optional(amount));
    const End end = take(place, amount, wait);
    if (deep) scheduler.require(monitor_.unlock(), "an outer hold is lost");
    scheduler.require(monitor_.unlock() == (deep || end != End::interrupted), "a wrong depth");
    scheduler.require(!monitor_.owned(), "the lock is left owned");
  }

  End take(Place& place, int amount, Wait wait) {
    constexpr Duration kTimeout = Scheduler::kSlice / 2;
    const auto timeout = wait == Wait::timed ? std::optional(kTimeout) : std::nullopt;
    for (;;) {
      const bool unasked = !scheduler.current().asked && wait != Wait::deep;
      scheduler.require(!unasked, "it goes on without a look for interrupts");
      alone();
      if (amount <= room_) break;
      place.decline([this] { return std::optional(Room{room_}); });
      const Time start = Clock::now();
      ++asleep_;
      const Wake wake = monitor_.sleep(place, timeout, WayBack::at_once);
      --asleep_;
      if (wake == Wake::notified && scenario_.all_wait) check_comers();
      if (wake == Wake::timed_out) {
        scheduler.require(Clock::now() >= start + kTimeout, "it timed out too soon");
        const bool late = Clock::now() > start + kTimeout;
        scheduler.require(!late || !scenario_.prompt, "it timed out too late");
        return End::timed_out;
      }
      if (wake == Wake::interrupted) {
        const Thread& me = scheduler.current();
        const bool late = Clock::now() > me.interrupted_at + Scheduler::kSlice;
        scheduler.require(!late || !scenario_.prompt, "an interrupt came late");
        return End::interrupted;
      }
    }
    room_ -= amount;
    mine() += amount;
    place.accept();
    return End::taken;
  }

  void give(int amount) {
    monitor_.lock(false);
    alone();
    room_ += amount;
    monitor_.notify_ready([this] { return std::optional(Room{room_}); });
    monitor_.unlock();
  }

  bool handle(Handler handler) {
    switch (handler) {
      case Handler::raises:
        return true;
      case Handler::forks:
        fork();
        return false;
      case Handler::waits:
        await([] { return scheduler.count([](auto& thread) { return !thread.over; }) == 1; });
    }
    return false;
  }

  void await(std::function<bool()> reached) {
    const Unlocked unlocked;
    scheduler.block(std::move(reached));
  }

  // The child gives back what others held, and starts another thread.
  void fork() {
    scheduler.fork();
    inside_ = false;
    scheduler.start([this] {
      const Entered entered;
      hold(1, Wait::told);
      give(std::exchange(mine(), 0));
    });
    give(scenario_.room - room_ - mine());
  }

  // With the lock held: nobody else has it, though others may come in.
  void alone() {
    scheduler.require(!std::exchange(inside_, true), "two hold the lock");
    {
      const Unlocked unlocked;
    }
    scheduler.yield();
    Clock::time += scenario_.turn;
    inside_ = false;
  }

  // The first of those that were called comes alone; after a long turn all others come.
  void check_comers() {
    const auto coming = scheduler.count([](auto& thread) { return thread.could_run(); }) - 1;
    const bool late = scenario_.turn != 0ns;
    if (++back_ == 1) scheduler.require(coming == 0, "called waiters come in a crowd");
    if (back_ == 2 && late) scheduler.require(coming != 0, "a long turn keeps others asleep");
  }

  const Scenario& scenario_;
  Monitor monitor_;
  int room_;
  std::array<int, Scheduler::kMaxThreads> holds_{};
  unsigned asleep_ = 0;
  unsigned back_ = 0;  // from a sleep
  bool inside_ = false;
};

Step hold(unsigned amount, Wait wait = Wait::told) { return {Step::hold, amount, wait}; }
Step interrupt(unsigned thread) { return {Step::interrupt, thread}; }

std::vector<Scenario> of_three_threads() {
  const Script user{{kHold, kGive}}, blind{{hold(1, Wait::blind)}}, deep{{hold(1, Wait::deep)}},
      timed{{hold(1, Wait::timed)}};
  const auto watching = [](Script script, Handler handler = Handler::raises) {
    return Script{script.steps, true, handler};
  };
  const Script interrupter{{kHold, interrupt(1), kGive}};
  const Script two{{hold(2)}}, again{{kHold, kGive, kHold}};
  return {
      {"each in turn", 1, {user, user, user}},
      {"again and again", 1, {again, again, user}},
      {"with and without a wish", 1, {user, blind, user}},
      {"large and small", 2, {two, two, user}},
      {"small ones first", 2, {again, two, user}},
      {"in vain", 2, {{{hold(2), kGive, kHold, {Step::await, 2}}}, two, user}},
      {"deep", 1, {user, deep, user}},
      {"a deadline", 1, {user, timed, user}, true},
      {"... in vain", 1, {{{kHold, {Step::await, 1}}}, watching(timed), user}, true},
      {"two deadlines", 1, {user, timed, timed}},
      {"an asynchronous exception", 1, {interrupter, user, user}},
      {"... without a wish", 1, {interrupter, blind, blind}},
      {"... deep", 1, {interrupter, deep, user}},
      {"... with a deadline", 1, {interrupter, timed, user}},
      {"... of a large one", 2, {{{hold(2), interrupt(1), kGive}}, two, user}},
      {"a signal", 1, {interrupter, watching(user), user}, true},
      {"... deep", 1, {interrupter, watching(deep), user}, true},
      {"... with a deadline", 1, {interrupter, watching(timed), timed}},
      {"a fork", 1, {interrupter, watching(user, Handler::forks), user}},
      {"... deep", 1, {interrupter, watching(deep, Handler::forks), user}},
      {"... without a wish", 1, {interrupter, watching(blind, Handler::forks), blind}},
      {"a handler that waits",
       2,
       {{{hold(2), interrupt(1), kGive}}, watching(user, Handler::waits), user}},
  };
}

/// Runs one schedule; ends the program where it goes wrong.
template <class Host>
void run(const Scenario& scenario, Decisions& decisions) {
  const std::string failure = World<Host>(scenario).run(decisions);
  if (failure.empty()) return;
  std::cerr << "schedules: " << scenario.name << " (" << (Host::kSerialized ? "with" : "without")
            << " a global lock): " << failure << std::endl;
  std::exit(1);
}

template <class Host>
std::size_t run_exhaustive(unsigned switches) {
  std::size_t count = 0;
  for (const Scenario& scenario : of_three_threads()) {
    Exhaustive decisions(switches);
    do {
      run<Host>(scenario, decisions);
      ++count;
    } while (decisions.next());
  }
  return count;
}

Script random_script(Random& random, bool forks) {
  Script script;
  script.watches = forks || random(4) == 0;
  if (forks) script.handler = Handler::forks;
  for (unsigned steps = 1 + random(3); steps > 0; --steps) {
    const unsigned amount = random(5) == 0 ? 2 : 1;
    if (random(3) == 0) script.steps.push_back(interrupt(random(6)));
    script.steps.push_back({Step::hold, amount, static_cast<Wait>(random(4))});
    script.steps.push_back(kGive);
  }
  return script;
}

template <class Host>
void run_random(unsigned seed) {
  Random random(seed);
  const bool forks = random(3) == 0;
  Scenario scenario{"random", 2, {}};
  for (int i = 0; i < 6; ++i) scenario.scripts.push_back(random_script(random, forks && i == 0));
  run<Host>(scenario, random);
}

void run_all(bool thorough) {
  const unsigned switches = thorough ? 3 : 2;
  const unsigned random = thorough ? 100'000 : 10'000;
  const std::size_t exhaustive =
      run_exhaustive<Host<true>>(switches) + run_exhaustive<Host<false>>(switches);
  const Script user{{kHold, kGive}};
  for (const Duration turn : {0ns, Duration(2ms)}) {
    Exhaustive straight(0);
    run<Host<true>>({"called together",
                     3,
                     {{{hold(3), {Step::gather, 3}, kGive, hold(0)}}, user, user, user},
                     false,
                     true,
                     turn},
                    straight);
  }
  for (unsigned seed = 0; seed < random; ++seed) {
    seed % 2 == 0 ? run_random<Host<true>>(seed) : run_random<Host<false>>(seed);
  }
  std::cout << exhaustive << " of three threads with " << switches << " switches out of turn, "
            << random << " of six" << std::endl;
}

}  // namespace
}  // namespace decision_bounds::scheduler

int main(int count, char**) { decision_bounds::scheduler::run_all(count > 1); }
