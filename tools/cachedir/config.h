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

#include "command_source.h"
#include "safe_fs.h"

namespace vantor::cachedir {

inline constexpr std::int64_t kDefaultMinimumAge = 3600;

struct DirPolicy {
  std::string source;  // the source it belongs to: its configuration file's
  std::string path;    // absolute and normal, never `/` nor directly below it
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

struct TaggedTree {
  std::string source;
  std::string below;  // absolute path
};

// A user's Trash: its items go by the date they were trashed.
struct TrashDir {
  std::string source;
  std::string path;  // absolute
};

struct Config {
  std::vector<DirPolicy> directories;
  std::vector<TaggedTree> taggedBelow;
  std::vector<TrashDir> trashes;
  std::vector<CommandDefinition> commands;
  std::vector<std::string> sources;  // every source named, in file order
};

// The prefix of the IDs of the sources: a source `name` checks in with
// vantord as "com.tessaly.vantor.cachedir.<name>".
inline constexpr char kSourceIdPrefix[] = "com.tessaly.vantor.cachedir.";

// The name of the source a configuration file describes: the file's name
// without ".plist" and without a leading "NN-" of digits, with characters a
// bus name cannot hold replaced by '_' (so "00-apt-archives.plist" is
// "apt-archives").
std::string sourceNameOf(const std::filesystem::path& file);

// Whether `name` may name a source: letters, digits, '_' and '-', not
// starting with a digit or '-', at most 64 characters.
bool validSourceName(std::string_view name);

// Reads every *.plist file of `dir` in name order. Each holds a dictionary,
// or an array of dictionaries, with "Path", "TaggedBelow" or "Trash", and optionally
// "Name", the source the entry belongs to (default: the file's source). An
// entry with a value of another type than its key's is logged and skipped
// whole; a missing directory is an empty configuration.
Config loadConfig(const std::filesystem::path& dir);

// Why `path` may not be a cache directory, or nullopt when it may: it must
// be absolute, free of `.` and `..`, and neither `/` nor a directory
// directly below it (`/usr`, `/home`, `/var`, ...).
std::optional<std::string> refusalReason(std::string_view path);

// What a user's instance looks after besides its configuration, each a
// source of its own: "thumbnails" (`home`/.cache/thumbnails), "cache"
// (every tagged directory below `home`/.cache) and "trash" (the Trash in
// $XDG_DATA_HOME, by default `home`/.local/share).
Config userDefaults(const std::filesystem::path& home);

// A user's own configuration: $XDG_CONFIG_HOME/vantor/cachedirs.d, by
// default `home`/.config/vantor/cachedirs.d.
std::filesystem::path userConfigDirectory(const std::filesystem::path& home);

// <ZEPHON_SIMULATOR_ROOT>/etc/vantor/cachedirs.d, the root being `/` when
// the variable is unset or empty.
std::filesystem::path configDirectory();

}  // namespace vantor::cachedir
