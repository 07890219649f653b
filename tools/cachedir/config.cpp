#include "config.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <system_error>

#include "log.h"
#include "platform/files/read_file.h"
#include "platform/values/plist_io.h"

namespace vantor::cachedir {

namespace {

constexpr std::size_t kMaxConfigBytes = 1 << 20;

// The value of `key` when it is an integer of at least 0: a boolean or a
// real is not one, however it would convert.
std::optional<std::uint64_t> count(const Value& entry, std::string_view key, const char* unit,
                                   const std::string& where, bool* bad) {
  const Value* v = entry.find(key);
  if (v == nullptr)
    return std::nullopt;
  const bool integer = v->type() == Value::Type::kUnsigned ||
                       (v->type() == Value::Type::kInteger && v->int64Value() >= 0);
  if (!integer) {
    log(Priority::kWarning, where + ": \"" + std::string(key) + "\" is not a number of " + unit);
    *bad = true;
    return std::nullopt;
  }
  return v->uint64Value();
}

std::optional<std::int64_t> seconds(const Value& entry, std::string_view key,
                                    const std::string& where, bool* bad) {
  const auto value = count(entry, key, "seconds", where, bad);
  if (!value)
    return std::nullopt;
  return static_cast<std::int64_t>(
      std::min<std::uint64_t>(*value, std::numeric_limits<std::int64_t>::max()));
}

// `path` without repeated or trailing slashes.
std::string normalPath(const std::string& path) {
  std::string normal = std::filesystem::path(path).lexically_normal().string();
  if (normal.size() > 1 && normal.back() == '/')
    normal.pop_back();
  return normal;
}

void addEntry(const Value& entry, const std::string& where, const std::string& fileSource,
              Config* config) {
  if (!entry.isDictionary()) {
    log(Priority::kWarning, where + ": not a dictionary, skipped");
    return;
  }
  std::string source = fileSource;
  if (const Value* name = entry.find("Name")) {
    const std::string* text = name->asString();
    if (text == nullptr || !validSourceName(*text)) {
      log(Priority::kError, where + ": \"Name\" is not a valid source name, entry skipped");
      return;
    }
    source = *text;
  }
  const auto named = [&] {
    if (std::find(config->sources.begin(), config->sources.end(), source) == config->sources.end())
      config->sources.push_back(source);
  };
  std::optional<std::string> below;
  if (const Value* belowValue = entry.find("TaggedBelow")) {
    const std::string* path = belowValue->asString();
    if (path == nullptr || path->empty() || path->front() != '/') {
      log(Priority::kError, where + ": \"TaggedBelow\" is not an absolute path, entry skipped");
      return;
    }
    below = normalPath(*path);
  }
  if (const Value* trash = entry.find("Trash")) {
    const std::string* path = trash->asString();
    if (path == nullptr || below || entry.find("Path") != nullptr) {
      log(Priority::kError, where + ": \"Trash\" is not a path of its own, entry skipped");
      return;
    }
    if (auto reason = refusalReason(*path)) {
      log(Priority::kError, where + ": refusing \"" + *path + "\": " + *reason);
      return;
    }
    config->trashes.push_back({source, normalPath(*path)});
    named();
    return;
  }
  const Value* pathValue = entry.find("Path");
  if (pathValue == nullptr) {
    if (below) {
      config->taggedBelow.push_back({source, *below});
      named();
    } else {
      log(Priority::kWarning, where + ": neither \"Path\" nor \"TaggedBelow\", skipped");
    }
    return;
  }
  const std::string* path = pathValue->asString();
  if (path == nullptr) {
    log(Priority::kError, where + ": \"Path\" is not a string, entry skipped");
    return;
  }
  if (auto reason = refusalReason(*path)) {
    log(Priority::kError, where + ": refusing \"" + *path + "\": " + *reason);
    return;
  }
  DirPolicy policy;
  policy.source = source;
  policy.path = normalPath(*path);
  bool bad = false;
  policy.minimumAge = seconds(entry, "MinimumAge", where, &bad).value_or(kDefaultMinimumAge);
  policy.maximumAge = seconds(entry, "MaximumAge", where, &bad);
  policy.maximumSize = count(entry, "MaximumSize", "bytes", where, &bad);
  if (const Value* patterns = entry.find("Patterns")) {
    const Value::Array* list = patterns->asArray();
    bool globs = list != nullptr && !list->empty();
    for (const Value& p : list ? *list : Value::Array{}) {
      if (const std::string* s = p.asString(); s != nullptr && !s->empty())
        policy.patterns.push_back(*s);
      else
        globs = false;
    }
    if (!globs) {
      log(Priority::kWarning, where + ": \"Patterns\" is not an array of globs");
      bad = true;
    }
  }
  // A policy only half understood could delete more than its author meant.
  if (bad) {
    log(Priority::kError, where + ": \"" + policy.path + "\" skipped");
    return;
  }
  if (below)
    config->taggedBelow.push_back({source, *below});
  config->directories.push_back(std::move(policy));
  named();
}

}  // namespace

bool DirPolicy::matches(const char* name) const {
  if (patterns.empty())
    return true;
  return std::any_of(patterns.begin(), patterns.end(),
                     [name](const std::string& p) { return ::fnmatch(p.c_str(), name, 0) == 0; });
}

std::optional<std::string> refusalReason(std::string_view path) {
  if (path.empty() || path.front() != '/')
    return "not an absolute path";
  int components = 0;
  for (const auto& part : std::filesystem::path(path)) {
    const std::string s = part.string();
    if (s == "." || s == "..")
      return "contains . or ..";
    if (!s.empty() && s != "/")
      ++components;
  }
  if (components == 0)
    return "the root directory";
  if (components == 1)
    return "a top-level system directory";
  return std::nullopt;
}

bool validSourceName(std::string_view name) {
  if (name.empty() || name.size() > 64 || std::isdigit(static_cast<unsigned char>(name[0])) ||
      name[0] == '-')
    return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
  });
}

std::string sourceNameOf(const std::filesystem::path& file) {
  std::string name = file.stem().string();
  std::size_t digits = 0;
  while (digits < name.size() && std::isdigit(static_cast<unsigned char>(name[digits])))
    ++digits;
  if (digits > 0 && digits + 1 < name.size() && name[digits] == '-')
    name.erase(0, digits + 1);
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-')
      c = '_';
  }
  if (name.size() > 64)
    name.resize(64);
  if (name.empty() || !validSourceName(name))
    name.insert(0, "_");
  return name.substr(0, 64);
}

std::filesystem::path configDirectory() {
  const char* root = std::getenv("ZEPHON_SIMULATOR_ROOT");
  const std::filesystem::path base = (root != nullptr && *root != '\0') ? root : "/";
  return base / "etc/vantor/cachedirs.d";
}

Config userDefaults(const std::filesystem::path& home) {
  Config config;
  const std::string cache = normalPath((home / ".cache").string());
  DirPolicy thumbnails;
  thumbnails.source = "thumbnails";
  thumbnails.path = cache + "/thumbnails";
  if (!refusalReason(thumbnails.path)) {
    config.directories.push_back(thumbnails);
    config.sources.push_back(thumbnails.source);
  }
  if (!refusalReason(cache)) {
    config.taggedBelow.push_back({"cache", cache});
    config.sources.push_back("cache");
  }
  const char* xdg = std::getenv("XDG_DATA_HOME");
  const std::filesystem::path data =
      (xdg != nullptr && *xdg == '/') ? std::filesystem::path(xdg) : home / ".local/share";
  const std::string trash = normalPath((data / "Trash").string());
  if (!refusalReason(trash)) {
    config.trashes.push_back({"trash", trash});
    config.sources.push_back("trash");
  }
  return config;
}

std::filesystem::path userConfigDirectory(const std::filesystem::path& home) {
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  const std::filesystem::path base =
      (xdg != nullptr && *xdg == '/') ? std::filesystem::path(xdg) : home / ".config";
  return base / "vantor/cachedirs.d";
}

Config loadConfig(const std::filesystem::path& dir) {
  Config config;
  std::error_code ec;
  std::vector<std::filesystem::path> files;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() == ".plist")
      files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::string error;
    auto bytes = readRegularFile(file, kMaxConfigBytes, &error);
    if (!bytes) {
      log(Priority::kWarning, file.string() + ": " + error);
      continue;
    }
    PlistParseResult parsed = parsePlist(*bytes);
    if (!parsed.value) {
      log(Priority::kWarning, file.string() + ": " + parsed.error);
      continue;
    }
    if (const Value::Array* entries = parsed.value->asArray()) {
      for (const Value& entry : *entries)
        addEntry(entry, file.string(), sourceNameOf(file), &config);
    } else {
      addEntry(*parsed.value, file.string(), sourceNameOf(file), &config);
    }
  }
  return config;
}

}  // namespace vantor::cachedir
