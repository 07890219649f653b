#pragma once

// What vantor-cachedir looks after: the directories named in
// <root>/etc/vantor/cachedirs.d/*.plist, each with its policy, and the trees
// below which a CACHEDIR.TAG file marks a cache directory.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "safe_fs.h"

namespace vantor::cachedir {

inline constexpr std::int64_t kDefaultMinimumAge = 3600;

struct DirPolicy {
  std::string path;  // absolute and normal, never `/` nor directly below it
  std::int64_t minimumAge = kDefaultMinimumAge;  // seconds after the last use
  std::optional<std::int64_t> maximumAge;        // seconds; the daily run trims to it
  std::optional<std::uint64_t> maximumSize;      // bytes; the daily run trims to it
  std::vector<std::string> patterns;             // file-name globs; empty: every name
  // Set for a directory found by its tag: only files of the tag's owner go,
  // so a user cannot have other users' files deleted by tagging a shared
  // directory.
  std::optional<uid_t> owner;
  // Also set for a tagged directory: the tree it was found in, held open, and
  // the directory's path and inode below it. It is reopened from there, so
  // that nothing a user swaps in between is entered.
  std::shared_ptr<const Fd> below;
  std::string relative;
  ino_t ino = 0;

  bool matches(const char* name) const;
};

struct Config {
  std::vector<DirPolicy> directories;
  std::vector<std::string> taggedBelow;  // absolute paths
};

// Reads every *.plist file of `dir` in name order. Each holds a dictionary,
// or an array of dictionaries, with "Path" or "TaggedBelow". An entry with a
// value of another type than its key's is logged and skipped whole; a
// missing directory is an empty configuration.
Config loadConfig(const std::filesystem::path& dir);

// Why `path` may not be a cache directory, or nullopt when it may: it must
// be absolute, free of `.` and `..`, and neither `/` nor a directory
// directly below it (`/usr`, `/home`, `/var`, ...).
std::optional<std::string> refusalReason(std::string_view path);

// <ZEPHON_SIMULATOR_ROOT>/etc/vantor/cachedirs.d, the root being `/` when
// the variable is unset or empty.
std::filesystem::path configDirectory();

}  // namespace vantor::cachedir
