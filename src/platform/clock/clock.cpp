#include "platform/clock/clock.h"

#include <ctime>
#include <utility>

namespace vantor::clock {
namespace {

std::function<Date()>& wallClockSource() {
  static std::function<Date()> source;
  return source;
}

}  // namespace

Date now() {
  if (const auto& source = wallClockSource())
    return source();
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return Date{static_cast<std::int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000};
}

double secondsBetween(Date earlier, Date later) {
  return static_cast<double>(later.microsecondsSinceEpoch - earlier.microsecondsSinceEpoch) / 1e6;
}

void setWallClockForTesting(std::function<Date()> source) {
  wallClockSource() = std::move(source);
}

std::uint64_t monotonicTicks() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

bool timebaseInfo(Timebase* out) {
  if (out == nullptr)
    return false;
  timespec res{};
  if (clock_getres(CLOCK_MONOTONIC, &res) != 0)
    return false;
  out->numer = 1;
  out->denom = 1;
  return true;
}

}  // namespace vantor::clock
