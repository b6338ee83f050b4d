// What a monitor asks of the host whose threads it blocks.
#pragma once

#include <atomic>
#include <chrono>
#include <concepts>
#include <optional>
#include <type_traits>

#include "decision_bounds/sync/mutex.h"

namespace decision_bounds {

using Duration = std::chrono::nanoseconds;

/// The primitives of a host whose threads are the system's.
struct SystemThreads {
  using Mutex = decision_bounds::Mutex;
  using ConditionVariable = decision_bounds::ConditionVariable;
  using Clock = std::chrono::steady_clock;
  template <class T>
  using Atomic = std::atomic<T>;
};

/// Unlocked            a scope that lets go of the host's global lock while its thread blocks
/// Wish                what a waiter waits for, in plain numbers: others look at it
/// Mutex ... Atomic    the primitives, such as those of SystemThreads
/// kSerialized         all calls into a monitor are made under one global lock, of which `Unlocked`
///                     lets go; the lock word then needs no read-modify-write
/// watches_interrupts  whether this thread has to look for interrupts while it blocks: the system
///                     tells it of them and no other
/// interrupted         looks, and runs whatever the host runs for interrupts; true leaves the
///                     interrupt pending in the host. Asked with no lock of a monitor's guard held.
template <class Host>
concept ThreadHost = requires {
  typename Host::Unlocked;
  typename Host::Mutex;
  typename Host::ConditionVariable;
  typename Host::Clock::time_point;
  typename Host::template Atomic<unsigned>;
  requires std::is_trivially_copyable_v<typename Host::Wish>;
  requires std::same_as<decltype(Host::kSerialized), const bool>;
  { Host::watches_interrupts() } -> std::same_as<bool>;
  { Host::interrupted() } -> std::same_as<bool>;
};

/// What a thread that gives back expects of a waiter's wish.
enum class Outlook {
  no_room,  // it would only go to sleep again
  room,     // it finds room, and this much less is left for the others
  unknown,  // it has to see for itself
};

/// How the next waiters would fare, told of what was promised to those before them: `outlook` takes
/// what it finds room for, as `promise` does for who was told before. It is asked under the guard
/// of a monitor's waiters: plain numbers, nothing that runs the host's code, allocates or blocks.
template <class F, class Wish>
concept Forecast = requires(F forecast, const Wish& wish) {
  { forecast.outlook(wish) } noexcept -> std::same_as<Outlook>;
  { forecast.promise(wish) } noexcept;
};

}  // namespace decision_bounds
