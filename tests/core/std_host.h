// Threads of the standard library as a host's, on which the core is tested without an interpreter.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "decision_bounds/sync/monitor.h"

namespace decision_bounds::std_host {

using namespace std::chrono_literals;

struct Interrupt {};

/// What this thread asks when it has blocked, and where it watches while it blocks as well.
inline thread_local std::function<bool()> interrupts;
inline thread_local bool watches = true;

struct NoLock {
  void lock() {}
  void unlock() {}
};

/// Threads without a global lock, or under one as an interpreter's are.
template <bool serialized>
struct Threads : SystemThreads {
  static constexpr bool kSerialized = serialized;
  inline static std::conditional_t<serialized, std::mutex, NoLock> global;

  struct Entered {
    Entered() { global.lock(); }
    ~Entered() { global.unlock(); }
  };
  struct Unlocked {
    Unlocked() { global.unlock(); }
    ~Unlocked() { global.lock(); }
  };
  static bool watches_interrupts() { return interrupts && watches; }
  static bool interrupted() { return interrupts && interrupts(); }
  using Wish = double;
};
static_assert(ThreadHost<Threads<false>> && ThreadHost<Threads<true>>);

/// One hold of a monitor's lock.
template <class Host>
class Locked {
 public:
  explicit Locked(Monitor<Host>& monitor) : monitor_(monitor) {
    if (!monitor.lock()) throw Interrupt();
  }
  ~Locked() { monitor_.unlock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

  void sleep(typename Monitor<Host>::Place& place, std::optional<Duration> timeout = {}) {
    if (monitor_.sleep(place, timeout, WayBack::at_once) == Wake::interrupted) throw Interrupt();
  }
  void notify_all() { monitor_.notify_all(); }
  Monitor<Host>& monitor() { return monitor_; }

 private:
  Monitor<Host>& monitor_;
};

/// Waits until `reached()`. Where that never comes the program ends: its threads cannot be joined.
template <class Host, class Reached>
void await(Reached reached) {
  const auto end = std::chrono::steady_clock::now() + 60s;
  while (!reached()) {
    const typename Host::Unlocked unlocked;
    std::this_thread::sleep_for(100us);
    if (std::chrono::steady_clock::now() < end) continue;
    std::cerr << "a thread hangs" << std::endl;
    std::abort();
  }
}

/// A thread that is waited for at the end of its scope.
template <class Host>
class Task {
 public:
  explicit Task(std::function<void()> body)
      : thread_([this, body = std::move(body)] {
          {
            const typename Host::Entered entered;
            body();
          }
          done_ = true;
        }) {}
  ~Task() {
    await<Host>([this] { return done(); });
    thread_.join();
  }
  bool done() const { return done_; }

 private:
  std::atomic<bool> done_ = false;
  std::thread thread_;
};

}  // namespace decision_bounds::std_host
