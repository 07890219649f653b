#include "volume.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace vantor::ctl {

namespace {

bool isUnder(std::string_view path, std::string_view mountPoint) {
  if (mountPoint == "/")
    return true;
  return path.starts_with(mountPoint) &&
         (path.size() == mountPoint.size() || path[mountPoint.size()] == '/');
}

// The mount that is visible at `mountPoint`: the last one made there.
const MountEntry* visibleMountAt(std::string_view mountPoint,
                                 const std::vector<MountEntry>& mounts) {
  const MountEntry* found = nullptr;
  for (const auto& entry : mounts) {
    if (entry.mountPoint == mountPoint)
      found = &entry;
  }
  return found;
}

}  // namespace

std::string volumeHolding(const std::string& canonicalPath, const std::vector<MountEntry>& mounts) {
  // The innermost mount point above the path; a later mount at the same
  // point hides the earlier one.
  const MountEntry* holder = nullptr;
  for (const auto& entry : mounts) {
    if (isUnder(canonicalPath, entry.mountPoint) &&
        (holder == nullptr || entry.mountPoint.size() >= holder->mountPoint.size())) {
      holder = &entry;
    }
  }
  if (holder == nullptr)
    return "/";
  const std::vector<std::string> volumes = localVolumesFrom(mounts);
  if (std::find(volumes.begin(), volumes.end(), holder->mountPoint) != volumes.end())
    return holder->mountPoint;
  // Another mount of a volume's device shares that volume's free space.
  for (const auto& volume : volumes) {
    const MountEntry* mount = visibleMountAt(volume, mounts);
    if (mount != nullptr && mount->major == holder->major && mount->minor == holder->minor)
      return volume;
  }
  return holder->mountPoint;
}

std::string volumeForPath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::canonical(path, error);
  if (error)
    return path;
  std::ifstream in("/proc/self/mountinfo");
  if (!in)
    return "/";
  std::stringstream text;
  text << in.rdbuf();
  return volumeHolding(canonical.string(), parseMountInfo(text.str()));
}

}  // namespace vantor::ctl
