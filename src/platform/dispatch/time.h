#pragma once

#include <chrono>

namespace vantor::dispatch {

// Deadlines are points on the monotonic clock (CLOCK_MONOTONIC), so waits are
// immune to changes of the wall clock.
using MonotonicClock = std::chrono::steady_clock;
using Deadline = MonotonicClock::time_point;

// A deadline that never passes: a wait on it lasts until it is satisfied.
inline constexpr Deadline kForever = Deadline::max();

// The deadline `delay` from now; saturates at kForever instead of overflowing.
Deadline after(std::chrono::nanoseconds delay);

}  // namespace vantor::dispatch
