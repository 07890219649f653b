#include "support/volumes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <set>
#include <utility>

#include "support/low_space.h"

namespace vantor {

namespace {

// Decodes the octal escapes (\040 for a blank, ...) of mountinfo fields.
std::string unescape(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
        field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                               (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

std::vector<std::string_view> splitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t pos = 0;
  while (pos < line.size()) {
    while (pos < line.size() && line[pos] == ' ')
      ++pos;
    if (pos >= line.size())
      break;
    std::size_t end = line.find(' ', pos);
    if (end == std::string_view::npos)
      end = line.size();
    fields.push_back(line.substr(pos, end - pos));
    pos = end;
  }
  return fields;
}

bool parseDevice(std::string_view field, unsigned* major, unsigned* minor) {
  auto colon = field.find(':');
  if (colon == std::string_view::npos)
    return false;
  std::string majorText(field.substr(0, colon));
  std::string minorText(field.substr(colon + 1));
  char* end = nullptr;
  unsigned long ma = std::strtoul(majorText.c_str(), &end, 10);
  if (majorText.empty() || *end != '\0')
    return false;
  unsigned long mi = std::strtoul(minorText.c_str(), &end, 10);
  if (minorText.empty() || *end != '\0')
    return false;
  *major = static_cast<unsigned>(ma);
  *minor = static_cast<unsigned>(mi);
  return true;
}

std::optional<struct statvfs> statVolume(const std::string& volume) {
  struct statvfs st {};
  if (::statvfs(volume.c_str(), &st) != 0)
    return std::nullopt;
  return st;
}

}  // namespace

std::vector<MountEntry> parseMountInfo(std::string_view text) {
  std::vector<MountEntry> entries;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string_view::npos)
      end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    // id parent major:minor root mount-point options [optional...] - fstype source super-options
    auto fields = splitFields(line);
    auto separator = std::find(fields.begin(), fields.end(), std::string_view("-"));
    if (fields.size() < 7 || separator == fields.end() || separator - fields.begin() < 6 ||
        fields.end() - separator < 3) {
      continue;
    }
    MountEntry entry;
    if (!parseDevice(fields[2], &entry.major, &entry.minor))
      continue;
    entry.root = unescape(fields[3]);
    entry.mountPoint = unescape(fields[4]);
    entry.fsType = unescape(separator[1]);
    entry.source = unescape(separator[2]);
    entries.push_back(std::move(entry));
  }
  return entries;
}

bool isLocalFileSystemType(std::string_view fsType) {
  static constexpr std::array<std::string_view, 14> kLocal = {
      "ext2",  "ext3", "ext4",  "xfs", "btrfs",    "f2fs",    "vfat",
      "exfat", "ntfs", "ntfs3", "jfs", "reiserfs", "hfsplus", "nilfs2"};
  return std::find(kLocal.begin(), kLocal.end(), fsType) != kLocal.end();
}

std::vector<std::string> localVolumesFrom(const std::vector<MountEntry>& entries) {
  std::vector<std::string> volumes{"/"};
  std::set<std::pair<unsigned, unsigned>> devices;
  // The device of "/" (its last mount wins, as later mounts hide earlier ones).
  for (const auto& entry : entries) {
    if (entry.mountPoint == "/") {
      devices.clear();
      devices.insert({entry.major, entry.minor});
    }
  }
  for (const auto& entry : entries) {
    if (entry.mountPoint == "/" || !isLocalFileSystemType(entry.fsType))
      continue;
    if (entry.source.rfind("/dev/", 0) != 0)
      continue;  // not backed by a block device
    if (!devices.insert({entry.major, entry.minor}).second)
      continue;  // bind mount
    if (std::find(volumes.begin(), volumes.end(), entry.mountPoint) != volumes.end())
      continue;
    volumes.push_back(entry.mountPoint);
  }
  return volumes;
}

namespace {

// The mount table, read again only when it changed: the kernel flags an open
// mountinfo file with POLLPRI once per change of the mount namespace. Every
// request names a volume, so reading and parsing the table each time would
// be most of the cost of a cached answer.
class MountTable {
 public:
  std::vector<std::string> localVolumes() {
    std::lock_guard lock(mutex_);
    if (fd_ < 0) {
      fd_ = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
      if (fd_ < 0)
        return {"/"};
      fresh_ = false;
    }
    pollfd watch{fd_, POLLPRI, 0};
    const bool changed = ::poll(&watch, 1, 0) > 0 && (watch.revents & (POLLPRI | POLLERR)) != 0;
    if (!fresh_ || changed) {
      std::string text;
      if (!readFromStart(&text))
        return {"/"};
      volumes_ = localVolumesFrom(parseMountInfo(text));
      fresh_ = true;
    }
    return volumes_;
  }

 private:
  bool readFromStart(std::string* text) const {
    if (::lseek(fd_, 0, SEEK_SET) != 0)
      return false;
    char buf[16384];
    for (;;) {
      const ssize_t n = ::read(fd_, buf, sizeof buf);
      if (n < 0 && errno == EINTR)
        continue;
      if (n < 0)
        return false;
      if (n == 0)
        return true;
      text->append(buf, static_cast<std::size_t>(n));
    }
  }

  std::mutex mutex_;
  int fd_ = -1;
  bool fresh_ = false;
  std::vector<std::string> volumes_;
};

}  // namespace

std::vector<std::string> getLocalVolumes() {
  // Never destroyed: requests may still be asking while the process exits.
  static MountTable* const table = new MountTable;
  return table->localVolumes();
}

bool validateVolume(const Value& info) {
  const Value* volume = info.find("VANTOR_VOLUME");
  if (volume == nullptr || !volume->isString())
    return false;
  const auto volumes = getLocalVolumes();
  return std::find(volumes.begin(), volumes.end(), *volume->asString()) != volumes.end();
}

std::uint64_t volumeFreespace(const std::string& volume) {
  auto st = statVolume(volume);
  if (!st)
    return 0;
  return static_cast<std::uint64_t>(st->f_bavail) * st->f_frsize;
}

std::uint64_t volumeSize(const std::string& volume) {
  auto st = statVolume(volume);
  if (!st)
    return 0;
  return static_cast<std::uint64_t>(st->f_blocks) * st->f_frsize;
}

std::vector<std::string> lowSpaceVolumes() {
  // The monitor's thresholds, applied now and without its hysteresis: a
  // volume that is low or very low at this moment.
  const LowSpaceSettings settings = LowSpaceSettings::fromEnvironment();
  std::vector<std::string> low;
  for (const auto& volume : getLocalVolumes()) {
    auto space = volumeSpace(volume);
    if (!space || space->size == 0)
      continue;
    if (lowSpaceFlags(space->available, thresholdsFor(space->size, settings)) != 0)
      low.push_back(volume);
  }
  return low;
}

std::uint64_t amountPurged(const Value& info) {
  const Value* volume = info.find("VANTOR_VOLUME");
  const Value* begin = info.find("VANTOR_FREESPACE_BEGIN");
  if (volume == nullptr || !volume->isString() || begin == nullptr)
    return 0;
  std::uint64_t now = volumeFreespace(*volume->asString());
  std::uint64_t before = begin->uint64Value();
  return now > before ? now - before : 0;
}

}  // namespace vantor
