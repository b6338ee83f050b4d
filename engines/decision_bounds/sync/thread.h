// Which thread this is, and what a fork left of the others.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>

namespace decision_bounds {

/// Non-zero, rising, and never used again after its thread has ended.
using ThreadId = std::uint64_t;

inline constexpr ThreadId kNobody = 0;

namespace detail {
inline constexpr ThreadId kUnnamed = ~ThreadId{0};  // a thread that was not asked for its id yet
inline std::atomic<ThreadId> last_thread{kNobody};
inline constinit thread_local ThreadId this_thread_id = kUnnamed;
}  // namespace detail

inline ThreadId this_thread() noexcept {
  if (detail::this_thread_id == detail::kUnnamed) [[unlikely]]
    detail::this_thread_id = ++detail::last_thread;
  return detail::this_thread_id;
}

/// Whether `thread`, an owner or nobody, is the calling one; cheaper than its id.
inline bool is_this_thread(ThreadId thread) noexcept { return thread == detail::this_thread_id; }

using ForkCount = std::uint32_t;

/// The last fork on the way to this process.
struct Fork {
  ForkCount count = 0;       // forks so far
  ThreadId survivor = 0;     // the thread that forked
  ThreadId last_before = 0;  // the last thread that was known before it

  /// Whether a thread that took a lock before or after the fork can still release it.
  bool alive(ThreadId thread) const { return thread == survivor || thread > last_before; }
};

namespace detail {
inline Fork last_fork;         // written by the only thread of a new child
inline std::mutex recovering;  // of several threads of a child one undoes what a fork left
}  // namespace detail

inline const Fork& last_fork() noexcept { return detail::last_fork; }

/// To be called in the child of a fork, by the thread that forked, before it starts another one.
inline void note_fork() noexcept {
  new (&detail::recovering) std::mutex;
  detail::last_fork = {detail::last_fork.count + 1, this_thread(), detail::last_thread.load()};
}

}  // namespace decision_bounds
