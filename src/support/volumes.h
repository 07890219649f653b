#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/value.h"

// Volumes are the mount points of local file systems. "/" is always one (also
// when it is an overlay, as in containers); every other mount of a local
// block-device file system is one too; network and pseudo file systems are
// not; a device mounted at several places (bind mounts) counts once, at its
// first mount point.

namespace vantor {

// One line of /proc/self/mountinfo.
struct MountEntry {
  unsigned major = 0;
  unsigned minor = 0;
  std::string root;        // the mounted subtree of the file system
  std::string mountPoint;  // octal escapes decoded
  std::string fsType;
  std::string source;
};

// Parses mountinfo text; malformed lines are skipped.
std::vector<MountEntry> parseMountInfo(std::string_view text);

// The local volumes among `entries`, in mount order, "/" first.
std::vector<std::string> localVolumesFrom(const std::vector<MountEntry>& entries);

// Whether `fsType` is a local block-device file system.
bool isLocalFileSystemType(std::string_view fsType);

// The local volumes of this system now.
std::vector<std::string> getLocalVolumes();

// True when the string under "VANTOR_VOLUME" of `info` is a local volume.
bool validateVolume(const Value& info);

// Free bytes on `volume` available to the daemon now; 0 when it cannot be read.
std::uint64_t volumeFreespace(const std::string& volume);

// Total bytes of `volume`; 0 when it cannot be read.
std::uint64_t volumeSize(const std::string& volume);

// Local volumes that are low or very low on space now (support/low_space.h).
std::vector<std::string> lowSpaceVolumes();

// Bytes reclaimed on the volume of a purge's working dictionary since the
// free space recorded under "VANTOR_FREESPACE_BEGIN"; 0 when nothing was.
std::uint64_t amountPurged(const Value& info);

}  // namespace vantor
