// A mutex, its scope and its condition variable, annotated for clang's thread-safety analysis: with
// -Wthread-safety the compiler checks which field is guarded by which mutex. Other compilers see
// nothing of it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define DECISION_BOUNDS_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define DECISION_BOUNDS_ATTRIBUTE(attribute)
#endif

#define CAPABILITY(name) DECISION_BOUNDS_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY DECISION_BOUNDS_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) DECISION_BOUNDS_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(mutex) DECISION_BOUNDS_ATTRIBUTE(requires_capability(mutex))
#define EXCLUDES(mutex) DECISION_BOUNDS_ATTRIBUTE(locks_excluded(mutex))
#define ACQUIRE(...) DECISION_BOUNDS_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) DECISION_BOUNDS_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS DECISION_BOUNDS_ATTRIBUTE(no_thread_safety_analysis)

namespace decision_bounds {

/// Held for a few instructions at a time, by any thread; not re-entrant and not fair.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class ConditionVariable;
  std::mutex mutex_;
};

/// Holds a mutex to the end of its scope.
template <class Guarding>
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Guarding& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Guarding& mutex_;
};

/// Where threads sleep with a mutex given up. It wakes for nothing at times: wait in a loop.
class ConditionVariable {
 public:
  void notify_one() noexcept { woken_.notify_one(); }

  /// False once it is `end`. The mutex is held before and after.
  template <class Clock, class Length>
  bool wait_until(Mutex& mutex, std::chrono::time_point<Clock, Length> end) REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    const bool in_time = woken_.wait_until(lock, end) == std::cv_status::no_timeout;
    lock.release();
    return in_time;
  }

 private:
  std::condition_variable woken_;
};

}  // namespace decision_bounds
