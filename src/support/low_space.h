#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// When a volume is low on space, shared by the low-space monitor, by
// lowSpaceVolumes and by `vantorctl status`, so all three agree.
//
// A volume is low when its available bytes (f_bavail × f_frsize, what `df`
// shows) fall below the low threshold, and very low below the very-low
// threshold. The thresholds come from VANTOR_LOWDISK_BYTES and
// VANTOR_VERYLOWDISK_BYTES, or else from the volume's size: 5 % of it, at
// most 2 GiB, and 1 %, at most 500 MiB.

namespace vantor {

// The bits of an event's "_Flags".
inline constexpr std::uint64_t kVqLowDisk = 0x4;
inline constexpr std::uint64_t kVqVeryLowDisk = 0x200;

// A volume condition event, synthesised by the low-space monitor when a
// volume enters low or very low space, and again while it stays there.
struct VolumeEvent {
  std::uint64_t flags = 0;  // "_Flags": kVqLowDisk and/or kVqVeryLowDisk
  std::string volume;       // the volume that crossed, for the log
};

// The duration in seconds (fractions allowed, at least a millisecond) that
// the variable `name` holds; `fallback` when it is unset, empty, malformed or
// not positive.
std::chrono::nanoseconds secondsFrom(const char* name, std::chrono::nanoseconds fallback);

// The variables that tune low-space handling, read from the environment.
// Unset, empty or malformed variables take their defaults.
struct LowSpaceSettings {
  std::optional<std::uint64_t> lowBytes;      // VANTOR_LOWDISK_BYTES
  std::optional<std::uint64_t> veryLowBytes;  // VANTOR_VERYLOWDISK_BYTES
  // VANTOR_LOWSPACE_POLL_SECONDS (default 10, fractions allowed).
  std::chrono::nanoseconds pollInterval = std::chrono::seconds(10);
  // VANTOR_LOWSPACE_REPEAT_SECONDS (default 300, fractions allowed).
  std::chrono::nanoseconds repeatInterval = std::chrono::seconds(300);

  static LowSpaceSettings fromEnvironment();
};

struct LowSpaceThresholds {
  std::uint64_t low = 0;
  std::uint64_t veryLow = 0;
};

// The thresholds of a volume of `sizeBytes`.
LowSpaceThresholds thresholdsFor(std::uint64_t sizeBytes, const LowSpaceSettings& settings);

// A volume's figures as statvfs gives them.
struct VolumeSpace {
  std::uint64_t size = 0;       // f_blocks × f_frsize
  std::uint64_t available = 0;  // f_bavail × f_frsize
};

// The figures of the file system mounted at `volume`; nullopt when it
// cannot be read.
std::optional<VolumeSpace> volumeSpace(const std::string& volume);

// The "_Flags" bits that describe `available` bytes against `thresholds`
// right now, without hysteresis.
std::uint64_t lowSpaceFlags(std::uint64_t available, const LowSpaceThresholds& thresholds);

}  // namespace vantor
