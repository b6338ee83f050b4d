// One waiting thread, as the thread that notifies sees it.
#pragma once

#include <condition_variable>
#include <cstdint>

namespace decision_bounds {

/// Lives on the stack of the waiting thread, linked into its monitor's list while it sleeps.
///
/// A waiter whose tests need no callable of its own has them made by the notifying thread, under
/// the lock, and is woken only when the answer has changed: override `ready` (and `back`, where a
/// `ready` that said yes set room aside for the waiter). Every other waiter is always woken.
class Waiter {
 public:
  Waiter() = default;
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  /// Whether to wake the waiter. Called with the monitor's lock held, by any thread.
  virtual bool ready() noexcept { return true; }
  /// The waiter is back from its sleep, however it ended. Called once, by the waiting thread.
  virtual void back() noexcept {}

 protected:
  ~Waiter() = default;

 private:
  template <class Host>
  friend class Monitor;

  Waiter* previous_ = nullptr;
  Waiter* next_ = nullptr;
  std::uint64_t forks_ = 0;  // the monitor's fork count when it was linked
  bool linked_ = false;
  bool notified_ = false;
  std::condition_variable woken_;
};

/// How a sleep ended.
enum class Wake { notified, timed_out, interrupted };

}  // namespace decision_bounds
