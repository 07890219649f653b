#pragma once

#include <cstdint>
#include <functional>

#include "platform/values/value.h"

namespace vantor::clock {

// Wall-clock time now, from the system clock unless a test installed its own
// source. Safe from any thread.
Date now();

// Seconds from `earlier` to `later` as a double (negative when reversed).
double secondsBetween(Date earlier, Date later);

// Replaces the wall-clock source; an empty function restores the system clock.
// Meant for tests: the swap itself is not synchronised with readers.
void setWallClockForTesting(std::function<Date()> source);

// Monotonic ticks: CLOCK_MONOTONIC in nanoseconds.
std::uint64_t monotonicTicks();

// The ratio that turns ticks into nanoseconds. On Linux ticks are nanoseconds,
// so it is 1/1; it is still read through this call so the conversion has one
// source. Returns false when it cannot be read.
struct Timebase {
  std::uint32_t numer = 0;
  std::uint32_t denom = 0;
};
bool timebaseInfo(Timebase* out);

}  // namespace vantor::clock
