// One hold of a monitor's lock.
#pragma once

#include <optional>

#include "decision_bounds/sync/monitor.h"

namespace decision_bounds {

/// Takes the lock and releases it on every way out. Host::throw_interrupt() throws the interrupt
/// that ended a blocked wait; the lock is then not held.
template <class Host>
class Locked {
 public:
  explicit Locked(Monitor<Host>& monitor, bool interruptible = true) : monitor_(monitor) {
    if (!monitor_.lock(interruptible)) Host::throw_interrupt();
  }
  ~Locked() {
    if (held_) monitor_.unlock();
  }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

  /// Lets go of the lock, at whatever depth this thread holds it, sleeps, and takes it back. An
  /// interrupt ends the sleep at once; it waits for the lock only where an outer hold needs it
  /// back.
  void sleep(Waiter& waiter, std::optional<Duration> timeout) {
    unsigned depth = 0;
    const Wake wake = monitor_.sleep(waiter, timeout, depth);
    const bool ours_alone = depth == 1;
    switch (wake) {
      case Wake::notified:
      case Wake::timed_out:
        if (monitor_.lock_again(depth, ours_alone)) return;
        break;
      case Wake::interrupted:
        if (!ours_alone) monitor_.lock_again(depth, false);
        break;
    }
    held_ = !ours_alone;
    Host::throw_interrupt();
  }

  void notify_all() noexcept { monitor_.notify_all(); }

 private:
  Monitor<Host>& monitor_;
  bool held_ = true;
};

}  // namespace decision_bounds
