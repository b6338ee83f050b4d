// A host whose threads take turns as a test decides: fibers of one thread, a simulated clock, and
// primitives before each of which another thread may come in. A schedule is the list of decisions.
#pragma once

#include <ucontext.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "decision_bounds/sync/host.h"
#include "decision_bounds/sync/thread.h"

namespace decision_bounds::scheduler {

using namespace std::chrono_literals;

struct Clock {
  using duration = std::chrono::nanoseconds;
  using time_point = std::chrono::time_point<Clock, duration>;
  static inline time_point time{};
  static time_point now() { return time; }
};
using Time = Clock::time_point;

/// Decides which of several threads runs next. The first is the one whose turn it is: who ran goes
/// on, and who comes after it follows once that blocks.
class Decisions {
 public:
  virtual ~Decisions() = default;
  virtual std::size_t decide(std::size_t count) = 0;
};

/// Every schedule with at most `limit` switches out of turn, one after the other.
class Exhaustive final : public Decisions {
 public:
  explicit Exhaustive(std::size_t limit) : limit_(limit) {}

  std::size_t decide(std::size_t count) override {
    if (count == 1 || spent_ == limit_) return 0;
    if (next_ == path_.size()) path_.push_back({0, count});
    const std::size_t choice = path_[next_++].choice;
    spent_ += choice != 0;
    return choice;
  }

  /// Goes on to the next schedule; false after the last one.
  bool next() {
    while (!path_.empty() && path_.back().choice + 1 == path_.back().count) path_.pop_back();
    if (path_.empty()) return false;
    ++path_.back().choice;
    next_ = spent_ = 0;
    return true;
  }

 private:
  struct Decision {
    std::size_t choice, count;
  };
  const std::size_t limit_;
  std::vector<Decision> path_;
  std::size_t next_ = 0;
  std::size_t spent_ = 0;
};

class Random final : public Decisions {
 public:
  explicit Random(unsigned seed) : random_(seed) {}
  std::size_t decide(std::size_t count) override {
    return random_() % 4 != 0 ? 0 : random_() % count;
  }
  unsigned operator()(unsigned below) { return static_cast<unsigned>(random_() % below); }

 private:
  std::minstd_rand random_;
};

struct Thread {
  std::function<void()> body;
  std::function<bool()> until;  // what it is blocked on; none where it could run
  Time wakes = Time::max();     // the end of what it is blocked on
  bool slice = false;           // which is there for interrupts only
  bool watches = false;         // looks for interrupts while it blocks
  bool interrupt = false;       // one is pending
  bool asked = true;            // for interrupts, since it last slept
  Time interrupted_at{};
  std::function<bool()> handler = [] { return true; };
  ThreadId id = detail::kUnnamed;
  bool over = false;

  void interrupt_now() {
    interrupt = true;
    interrupted_at = Clock::time;
  }
  bool could_run() const { return !over && (!until || until()); }

  std::size_t number = 0;
  ucontext_t context{};
};

/// Runs one schedule at a time.
class Scheduler {
 public:
  static constexpr std::size_t kMaxThreads = 8;
  static constexpr Duration kSlice = 50ms;  // a sleep of just so long is there for interrupts only

  /// Runs the threads to their ends. What went wrong, or nothing.
  std::string run(std::vector<std::unique_ptr<Thread>> threads, Decisions& decisions) {
    threads_ = std::move(threads);
    decisions_ = &decisions;
    failure_.clear();
    steps_ = 0;
    Clock::time = {};
    for (std::size_t number = 0; number < threads_.size(); ++number) prepare(number);
    reschedule(main_);
    current_ = nullptr;
    detail::this_thread_id = detail::kUnnamed;
    return failure_;
  }

  Thread& current() { return *current_; }
  Thread& thread(std::size_t number) { return *threads_[number]; }
  std::size_t count(bool (*which)(const Thread&)) const {
    std::size_t sum = 0;
    for (const auto& thread : threads_) sum += which(*thread);
    return sum;
  }

  /// Another thread may come in here.
  void yield() {
    if (current_ != nullptr) reschedule(current_->context);
  }

  /// Blocks the current thread until `until()` or `end`.
  void block(std::function<bool()> until, Time end = Time::max()) {
    current_->until = std::move(until);
    current_->wakes = end;
    current_->slice = end != Time::max() && end - Clock::time == kSlice;
    reschedule(current_->context);
    current_->until = nullptr;
  }

  /// From here on the current thread is the only one.
  void fork() {
    for (const auto& thread : threads_) thread->over = thread.get() != current_;
    note_fork();
  }

  void start(std::function<void()> body) {
    threads_.push_back(std::make_unique<Thread>());
    threads_.back()->body = std::move(body);
    prepare(threads_.size() - 1);
  }

  void require(bool truth, const char* what) {
    if (!truth) fail(what);
  }

 private:
  static constexpr std::size_t kStack = 64 * 1024;
  static constexpr unsigned kMaxSteps = 100'000;

  void fail(const std::string& what) {
    if (failure_.empty()) failure_ = what;
    setcontext(&main_);
  }

  void prepare(std::size_t number) {
    threads_[number]->number = number;
    ucontext_t& context = threads_[number]->context;
    getcontext(&context);
    context.uc_stack = {stacks_[number].data(), 0, kStack};
    makecontext(&context, reinterpret_cast<void (*)()>(enter), 0);
  }

  static void enter();

  bool could_time_out(const Thread& thread) const {
    if (thread.over || !thread.until || thread.wakes == Time::max()) return false;
    return !thread.slice || thread.interrupt || thread.wakes <= Clock::time;
  }

  void reschedule(ucontext_t& from) {
    find_candidates();
    if (candidates_.empty()) {
      const bool all_over = count([](auto& thread) { return !thread.over; }) == 0;
      if (!all_over) failure_ = "a thread sleeps for good";
      setcontext(&main_);
    }
    if (++steps_ == kMaxSteps) fail("it does not end");
    Thread* const next = candidates_[decisions_->decide(candidates_.size())];
    if (!next->could_run()) Clock::time = std::max(Clock::time, next->wakes);
    if (next == current_) return;
    if (current_ != nullptr) current_->id = detail::this_thread_id;
    detail::this_thread_id = next->id;
    current_ = next;
    swapcontext(&from, &next->context);
  }

  // Who could run, from the current thread on, and the one whose sleep ends next.
  void find_candidates() {
    candidates_.clear();
    Thread* sleeper = nullptr;
    const std::size_t first = current_ == nullptr ? 0 : current_->number;
    for (std::size_t i = 0; i < threads_.size(); ++i) {
      Thread* const thread = threads_[(first + i) % threads_.size()].get();
      if (thread->could_run()) {
        candidates_.push_back(thread);
      } else if (could_time_out(*thread) &&
                 (sleeper == nullptr || thread->wakes < sleeper->wakes)) {
        sleeper = thread;
      }
    }
    if (sleeper != nullptr) candidates_.push_back(sleeper);
  }

  std::array<std::array<char, kStack>, kMaxThreads> stacks_;
  std::vector<std::unique_ptr<Thread>> threads_;
  std::vector<Thread*> candidates_;
  Decisions* decisions_ = nullptr;
  Thread* current_ = nullptr;
  ucontext_t main_{};
  std::string failure_;
  unsigned steps_ = 0;
};

inline Scheduler scheduler;

inline void Scheduler::enter() {
  scheduler.current_->body();
  scheduler.current_->over = true;
  scheduler.reschedule(scheduler.current_->context);
}

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() {
    scheduler.yield();
    if (held_) scheduler.block([this] { return !held_; });
    held_ = true;
    ++taken;
  }
  void unlock() RELEASE() { held_ = false; }

  static inline unsigned taken = 0;  // times, all in all

 private:
  bool held_ = false;
};

class ConditionVariable {
 public:
  void notify_one() noexcept {
    if (waiting_.empty()) return;
    *waiting_.front() = true;
    waiting_.erase(waiting_.begin());
  }
  bool wait_until(Mutex& mutex, Time end) REQUIRES(mutex) {
    bool notified = false;
    waiting_.push_back(&notified);
    scheduler.current().asked = false;
    mutex.unlock();
    scheduler.block([&] { return notified; }, end);
    if (!notified) std::erase(waiting_, &notified);
    mutex.lock();
    return notified;
  }

 private:
  std::vector<bool*> waiting_;
};

/// Whatever is not relaxed may be cut in before.
template <class T>
class Atomic {
 public:
  explicit Atomic(T value) : value_(value) {}
  T load(std::memory_order order = std::memory_order_seq_cst) const noexcept {
    cut(order);
    return value_;
  }
  void store(T value, std::memory_order order = std::memory_order_seq_cst) noexcept {
    if (order != std::memory_order_release) cut(order);
    value_ = value;
  }
  T fetch_add(T more, std::memory_order order = std::memory_order_seq_cst) noexcept {
    cut(order);
    return std::exchange(value_, value_ + more);
  }
  T fetch_sub(T less, std::memory_order order = std::memory_order_seq_cst) noexcept {
    return fetch_add(T{0} - less, order);
  }
  bool compare_exchange_strong(T& expected, T value, std::memory_order order) noexcept {
    cut(order);
    const bool equal = value_ == expected;
    (equal ? value_ : expected) = value;
    if (!equal) expected = value_;
    return equal;
  }
  operator T() const noexcept { return load(); }

 private:
  static void cut(std::memory_order order) noexcept {
    if (order != std::memory_order_relaxed) scheduler.yield();
  }
  T value_;
};

/// Threads without a global lock, or under one as an interpreter's are.
template <bool serialized>
struct Host {
  static constexpr bool kSerialized = serialized;
  using Clock = scheduler::Clock;
  using Mutex = scheduler::Mutex;
  using ConditionVariable = scheduler::ConditionVariable;
  template <class T>
  using Atomic = scheduler::Atomic<T>;
  using Wish = int;

  inline static Mutex global;
  struct Entered {
    Entered() NO_THREAD_SAFETY_ANALYSIS {
      if (serialized) global.lock();
    }
    ~Entered() NO_THREAD_SAFETY_ANALYSIS { global.unlock(); }
  };
  struct Unlocked {
    Unlocked() NO_THREAD_SAFETY_ANALYSIS { global.unlock(); }
    ~Unlocked() NO_THREAD_SAFETY_ANALYSIS {
      if (serialized) global.lock();
    }
  };

  static bool watches_interrupts() { return scheduler.current().watches; }
  static bool interrupted() {
    scheduler.yield();
    Thread& thread = scheduler.current();
    const bool raised = std::exchange(thread.interrupt, false) && thread.handler();
    thread.asked = true;
    return raised;
  }
};
static_assert(ThreadHost<Host<false>> && ThreadHost<Host<true>>);

}  // namespace decision_bounds::scheduler
