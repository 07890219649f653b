#include "support/low_space.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace vantor {

namespace {

constexpr std::uint64_t kLowCap = 2ULL << 30;        // 2 GiB
constexpr std::uint64_t kVeryLowCap = 500ULL << 20;  // 500 MiB

std::optional<std::uint64_t> bytesFrom(const char* name) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0' || *text == '-')
    return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0')
    return std::nullopt;
  return value;
}

}  // namespace

std::chrono::nanoseconds secondsFrom(const char* name, std::chrono::nanoseconds fallback) {
  // Ten years at most keeps durations far from overflow.
  constexpr double kMaxSeconds = 10.0 * 365 * 24 * 3600;
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0')
    return fallback;
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  if (*end != '\0' || !std::isfinite(seconds) || seconds <= 0)
    return fallback;
  return std::chrono::nanoseconds(
      static_cast<std::int64_t>(std::clamp(seconds, 1e-3, kMaxSeconds) * 1e9));
}

LowSpaceSettings LowSpaceSettings::fromEnvironment() {
  LowSpaceSettings settings;
  settings.lowBytes = bytesFrom("VANTOR_LOWDISK_BYTES");
  settings.veryLowBytes = bytesFrom("VANTOR_VERYLOWDISK_BYTES");
  settings.pollInterval = secondsFrom("VANTOR_LOWSPACE_POLL_SECONDS", settings.pollInterval);
  settings.repeatInterval = secondsFrom("VANTOR_LOWSPACE_REPEAT_SECONDS", settings.repeatInterval);
  return settings;
}

LowSpaceThresholds thresholdsFor(std::uint64_t sizeBytes, const LowSpaceSettings& settings) {
  return LowSpaceThresholds{
      settings.lowBytes.value_or(std::min(sizeBytes / 20, kLowCap)),
      settings.veryLowBytes.value_or(std::min(sizeBytes / 100, kVeryLowCap)),
  };
}

std::optional<VolumeSpace> volumeSpace(const std::string& volume) {
  struct statvfs st {};
  if (::statvfs(volume.c_str(), &st) != 0)
    return std::nullopt;
  return VolumeSpace{static_cast<std::uint64_t>(st.f_blocks) * st.f_frsize,
                     static_cast<std::uint64_t>(st.f_bavail) * st.f_frsize};
}

std::uint64_t lowSpaceFlags(std::uint64_t available, const LowSpaceThresholds& thresholds) {
  std::uint64_t flags = 0;
  if (available < thresholds.low)
    flags |= kVqLowDisk;
  if (available < thresholds.veryLow)
    flags |= kVqVeryLowDisk;
  return flags;
}

}  // namespace vantor
