#include "command_source.h"

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <set>
#include <utility>

#include "log.h"
#include "platform/values/plist_io.h"
#include "platform/values/value.h"
#include "process.h"
#include "safe_fs.h"

namespace vantor::cachedir {

namespace {

constexpr std::size_t kMaxConfigBytes = 1 << 20;
// A limit far beyond any sensible one, small enough that deadlines computed
// from it cannot overflow.
constexpr std::int64_t kMaxTimeoutSeconds = 365LL * 24 * 3600;

bool validName(std::string_view name) {
  if (name.empty() || !(std::isalpha(static_cast<unsigned char>(name[0])) || name[0] == '_'))
    return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
  });
}

// "50-journal.plist" -> "journal".
std::string nameFromFile(const std::filesystem::path& file) {
  std::string name = file.stem().string();
  std::size_t digits = 0;
  while (digits < name.size() && std::isdigit(static_cast<unsigned char>(name[digits])))
    ++digits;
  if (digits > 0 && digits < name.size() && name[digits] == '-')
    name.erase(0, digits + 1);
  return name;
}

bool isAbsolute(const std::string& path) {
  return !path.empty() && path.front() == '/';
}

// Reads the key's array of strings; false when it is of another type or, for
// `absolute`, holds a relative path (for a command: its first element).
enum class PathRule { kNone, kFirst, kEvery };
bool stringArray(const Value& value, PathRule rule, std::vector<std::string>* out) {
  const Value::Array* array = value.asArray();
  if (array == nullptr || array->empty())
    return false;
  for (const Value& item : *array) {
    const std::string* s = item.asString();
    if (s == nullptr)
      return false;
    const bool mustBeAbsolute =
        rule == PathRule::kEvery || (rule == PathRule::kFirst && out->empty());
    if (mustBeAbsolute && !isAbsolute(*s))
      return false;
    out->push_back(*s);
  }
  return true;
}

std::optional<std::int64_t> integer(const Value& value) {
  if (value.type() == Value::Type::kInteger)
    return value.int64Value();
  if (value.type() == Value::Type::kUnsigned)
    return static_cast<std::int64_t>(
        std::min<std::uint64_t>(value.uint64Value(), std::numeric_limits<std::int64_t>::max()));
  return std::nullopt;
}

// The first key of `dict` that is unknown or of the wrong type, or empty
// when all are good.
std::string badKey(const Value::Dictionary& dict, CommandDefinition* definition) {
  for (const auto& [key, value] : dict) {
    bool ok = false;
    if (key == "Name") {
      const std::string* s = value.asString();
      ok = s != nullptr && validName(*s);
      if (ok)
        definition->name = *s;
    } else if (key == "Requires") {
      ok = stringArray(value, PathRule::kEvery, &definition->required);
    } else if (key == "Measure") {
      ok = stringArray(value, PathRule::kFirst, &definition->measure);
    } else if (key == "MeasurePaths") {
      ok = stringArray(value, PathRule::kEvery, &definition->measurePaths);
    } else if (key == "KeepPaths") {
      ok = stringArray(value, PathRule::kEvery, &definition->keepPaths);
    } else if (key == "Purge") {
      ok = stringArray(value, PathRule::kFirst, &definition->purge);
    } else if (key == "Periodic") {
      ok = stringArray(value, PathRule::kFirst, &definition->periodic);
    } else if (key == "MinimumUrgency") {
      const auto n = integer(value);
      ok = n && *n >= 1 && *n <= 4;
      if (ok)
        definition->minimumUrgency = static_cast<std::int32_t>(*n);
    } else if (key == "TimeoutSeconds") {
      const auto n = integer(value);
      ok = n && *n > 0;
      if (ok)
        definition->timeout = std::chrono::seconds(std::min(*n, kMaxTimeoutSeconds));
    }
    if (!ok)
      return key;
  }
  return {};
}

struct Entry {
  std::filesystem::path path;
  bool fromEtc = false;
};

// The *.plist names of `dir` with their paths.
void listPlists(const std::filesystem::path& dir, bool fromEtc,
                std::map<std::string, Entry>* entries) {
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() == ".plist")
      (*entries)[it->path().filename().string()] = Entry{it->path(), fromEtc};
  }
}

bool masked(const std::filesystem::path& file) {
  struct stat st {};
  if (::lstat(file.c_str(), &st) != 0)
    return false;
  if (S_ISLNK(st.st_mode)) {
    char target[64];
    const ssize_t n = ::readlink(file.c_str(), target, sizeof target);
    return n == 9 && std::string_view(target, 9) == "/dev/null";
  }
  return S_ISREG(st.st_mode) && st.st_size == 0;
}

// Bytes allocated to the regular files at and below the directory `fd`, on
// its device, symbolic links not followed.
std::uint64_t treeBytes(Fd dir, dev_t dev, const std::function<bool()>& cancelled, int depth) {
  if (depth > 64)
    return 0;
  DIR* stream = ::fdopendir(dir.get());
  if (stream == nullptr)
    return 0;
  dir.release();
  std::uint64_t total = 0;
  while (dirent* entry = ::readdir(stream)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
      continue;
    if (cancelled && cancelled())
      break;
    struct stat st {};
    if (::fstatat(::dirfd(stream), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        st.st_dev != dev)
      continue;
    if (S_ISREG(st.st_mode)) {
      total += static_cast<std::uint64_t>(st.st_blocks) * 512;
    } else if (S_ISDIR(st.st_mode)) {
      Fd sub(::openat(::dirfd(stream), entry->d_name,
                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (sub.valid())
        total += treeBytes(std::move(sub), dev, cancelled, depth + 1);
    }
  }
  ::closedir(stream);
  return total;
}

// The allocated bytes of what `patterns` match, leaving out what `besides`
// matches.
std::optional<std::uint64_t> pathsBytes(const std::vector<std::string>& patterns,
                                        const std::function<bool()>& cancelled,
                                        const std::vector<std::string>& besides = {}) {
  std::set<std::string> seen;
  for (const std::string& pattern : besides) {
    glob_t matches{};
    if (::glob(pattern.c_str(), 0, nullptr, &matches) == 0) {
      for (std::size_t i = 0; i < matches.gl_pathc; ++i)
        seen.insert(matches.gl_pathv[i]);
    }
    ::globfree(&matches);
  }
  std::uint64_t total = 0;
  for (const std::string& pattern : patterns) {
    glob_t matches{};
    if (::glob(pattern.c_str(), 0, nullptr, &matches) == 0) {
      for (std::size_t i = 0; i < matches.gl_pathc; ++i) {
        const std::string path = matches.gl_pathv[i];
        if (!seen.insert(path).second)
          continue;
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0)
          continue;
        if (S_ISREG(st.st_mode)) {
          total += static_cast<std::uint64_t>(st.st_blocks) * 512;
        } else if (S_ISDIR(st.st_mode)) {
          Fd dir(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
          if (dir.valid())
            total += treeBytes(std::move(dir), st.st_dev, cancelled, 0);
        }
      }
    }
    ::globfree(&matches);
    if (cancelled && cancelled())
      return std::nullopt;
  }
  return total;
}

std::string substitute(std::string arg, std::string_view key, const std::string& value) {
  for (std::size_t at = arg.find(key); at != std::string::npos;
       at = arg.find(key, at + value.size()))
    arg.replace(at, key.size(), value);
  return arg;
}

}  // namespace

std::filesystem::path configurationRoot() {
  const char* root = std::getenv("ZEPHON_SIMULATOR_ROOT");
  return (root != nullptr && *root != '\0') ? root : "/";
}

std::optional<std::uint64_t> parseSize(std::string_view line) {
  std::size_t i = 0;
  auto at = [&](std::size_t k) { return k < line.size() ? line[k] : '\0'; };
  while (at(i) == ' ' || at(i) == '\t')
    ++i;
  const std::size_t start = i;
  long double number = 0;
  while (std::isdigit(static_cast<unsigned char>(at(i))))
    number = number * 10 + (line[i++] - '0');
  if (i == start)
    return std::nullopt;
  if (at(i) == '.') {
    ++i;
    long double scale = 0.1L;
    if (!std::isdigit(static_cast<unsigned char>(at(i))))
      return std::nullopt;
    for (; std::isdigit(static_cast<unsigned char>(at(i))); ++i, scale /= 10)
      number += (line[i] - '0') * scale;
  }
  while (at(i) == ' ')
    ++i;
  std::string unit;
  while (std::isalpha(static_cast<unsigned char>(at(i))))
    unit.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(line[i++]))));
  if (at(i) != '\0' && at(i) != ' ' && at(i) != '\t' && at(i) != '\r')
    return std::nullopt;
  static const std::map<std::string, long double, std::less<>> kUnits = {{"", 1},
                                                                         {"b", 1},
                                                                         {"kb", 1e3L},
                                                                         {"mb", 1e6L},
                                                                         {"gb", 1e9L},
                                                                         {"tb", 1e12L},
                                                                         {"kib", 1024.0L},
                                                                         {"mib", 1048576.0L},
                                                                         {"gib", 1073741824.0L},
                                                                         {"tib", 1099511627776.0L}};
  const auto unitIt = kUnits.find(unit);
  if (unitIt == kUnits.end())
    return std::nullopt;
  const long double bytes = std::round(number * unitIt->second);
  if (!(bytes < 18446744073709551615.0L))
    return std::nullopt;
  return static_cast<std::uint64_t>(bytes);
}

std::optional<CommandDefinition> readCommandDefinition(const std::filesystem::path& file) {
  const std::string where = file.string();
  auto refuse = [&](const std::string& why) -> std::optional<CommandDefinition> {
    log(Priority::kWarning, where + ": " + why + ", ignored");
    return std::nullopt;
  };
  // O_NONBLOCK: a fifo put in its place must not hold up the service.
  Fd fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid())
    return refuse(std::strerror(errno));
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0)
    return refuse(std::strerror(errno));
  if (!S_ISREG(st.st_mode))
    return refuse("not a regular file");
  // Whoever can write it could have the service run anything as root.
  if (st.st_uid != 0)
    return refuse("not owned by root");
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return refuse("writable by group or others");
  if (st.st_size > static_cast<off_t>(kMaxConfigBytes))
    return refuse("larger than 1 MiB");
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
  std::size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t n = ::read(fd.get(), bytes.data() + got, bytes.size() - got);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return refuse(n < 0 ? std::strerror(errno) : "shorter than its size");
    got += static_cast<std::size_t>(n);
  }
  PlistParseResult parsed = parsePlist(bytes);
  if (!parsed.value)
    return refuse(parsed.error);
  const Value::Dictionary* dict = parsed.value->asDictionary();
  if (dict == nullptr)
    return refuse("not a dictionary");

  CommandDefinition definition;
  definition.file = file;
  if (const std::string key = badKey(*dict, &definition); !key.empty())
    return refuse("\"" + key + "\" is unknown or not of its type");
  if (definition.name.empty())
    definition.name = nameFromFile(file);
  if (!validName(definition.name))
    return refuse("\"" + definition.name + "\" is not a valid name");
  if (definition.measure.empty() == definition.measurePaths.empty())
    return refuse("needs exactly one of \"Measure\" and \"MeasurePaths\"");
  if (definition.purge.empty())
    return refuse("\"Purge\" is missing");
  return definition;
}

std::vector<CommandDefinition> loadCommandSources(const std::filesystem::path& root) {
  std::map<std::string, Entry> entries;
  listPlists(root / "usr/share/vantor/commands.d", false, &entries);
  listPlists(root / "etc/vantor/commands.d", true, &entries);
  std::vector<CommandDefinition> definitions;
  std::set<std::string> names;
  for (const auto& [fileName, entry] : entries) {
    if (entry.fromEtc && masked(entry.path)) {
      log(Priority::kInfo, entry.path.string() + ": masked");
      continue;
    }
    auto definition = readCommandDefinition(entry.path);
    if (!definition)
      continue;
    const auto missing = std::find_if(definition->required.begin(), definition->required.end(),
                                      [](const std::string& path) {
                                        struct stat st {};
                                        return ::lstat(path.c_str(), &st) != 0;
                                      });
    if (missing != definition->required.end()) {
      log(Priority::kInfo, entry.path.string() + ": skipped, " + *missing + " does not exist");
      continue;
    }
    if (!names.insert(definition->name).second) {
      log(Priority::kWarning,
          entry.path.string() + ": the name \"" + definition->name + "\" is taken, ignored");
      continue;
    }
    definitions.push_back(std::move(*definition));
  }
  return definitions;
}

CommandSource::CommandSource(CommandDefinition definition) : definition_(std::move(definition)) {}

bool CommandSource::run(const std::vector<std::string>& argv,
                        const std::function<bool()>& cancelled, std::string* output) const {
  const CommandResult result = runCommand(argv, definition_.timeout, cancelled, definition_.name);
  if (!result.succeeded()) {
    log(Priority::kWarning, definition_.name + ": " + argv[0] + " " + result.describe());
    return false;
  }
  if (output != nullptr) {
    if (result.truncated) {
      log(Priority::kWarning, definition_.name + ": " + argv[0] + " wrote more than 64 KiB");
      return false;
    }
    *output = result.output;
  }
  return true;
}

std::optional<std::uint64_t> CommandSource::measure(const std::function<bool()>& cancelled) const {
  if (definition_.measure.empty())
    return pathsBytes(definition_.measurePaths, cancelled);
  std::string output;
  if (!run(definition_.measure, cancelled, &output))
    return std::nullopt;
  std::uint64_t total = 0;
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string::npos)
      end = output.size();
    const std::string_view line(output.data() + start, end - start);
    start = end + 1;
    if (line.find_first_not_of(" \t\r") == std::string_view::npos)
      continue;
    const auto size = parseSize(line);
    if (!size) {
      log(Priority::kWarning,
          definition_.name + ": cannot read a size in \"" + std::string(line) + "\"");
      return std::nullopt;
    }
    total = *size > std::numeric_limits<std::uint64_t>::max() - total
                ? std::numeric_limits<std::uint64_t>::max()
                : total + *size;
  }
  return total;
}

std::uint64_t CommandSource::purge(std::int32_t urgency, std::uint64_t bytes,
                                   const std::function<bool()>& cancelled) const {
  if (urgency < definition_.minimumUrgency || bytes == 0)
    return 0;
  const auto before = measure(cancelled);
  // Without a measurement {keep} cannot be known, and with nothing to free
  // running the command could only do harm.
  if (!before || *before == 0)
    return 0;
  const std::string share = std::to_string(bytes);
  // The files the command counts toward {keep} but never removes (the
  // journal's active files) are added to it, so that it frees the share and
  // no more.
  std::uint64_t kept = *before > bytes ? *before - bytes : 0;
  if (!definition_.keepPaths.empty())
    kept += pathsBytes(definition_.keepPaths, cancelled, definition_.measurePaths).value_or(0);
  const std::string keep = std::to_string(kept);
  std::vector<std::string> argv;
  for (const std::string& arg : definition_.purge)
    argv.push_back(substitute(substitute(arg, "{bytes}", share), "{keep}", keep));
  run(argv, cancelled, nullptr);
  // Measured even when it failed: it may have freed part of the share.
  const auto after = measure(cancelled);
  return after && *after < *before ? *before - *after : 0;
}

std::uint64_t CommandSource::periodic(const std::function<bool()>& cancelled) const {
  if (definition_.periodic.empty())
    return 0;
  const auto before = measure(cancelled);
  run(definition_.periodic, cancelled, nullptr);
  const auto after = measure(cancelled);
  return before && after && *after < *before ? *before - *after : 0;
}

}  // namespace vantor::cachedir
