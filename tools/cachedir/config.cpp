#include "config.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdlib>
#include <system_error>

#include "log.h"
#include "platform/files/read_file.h"
#include "platform/values/plist_io.h"

namespace vantor::cachedir {

namespace {

constexpr std::size_t kMaxConfigBytes = 1 << 20;

std::optional<std::int64_t> seconds(const Value& entry, std::string_view key,
                                    const std::string& where, bool* bad) {
  const Value* v = entry.find(key);
  if (v == nullptr)
    return std::nullopt;
  if (!v->isNumber() || v->int64Value() < 0) {
    log(Priority::kWarning, where + ": \"" + std::string(key) + "\" is not a number of seconds");
    *bad = true;
    return std::nullopt;
  }
  return v->int64Value();
}

// `path` without repeated or trailing slashes.
std::string normalPath(const std::string& path) {
  std::string normal = std::filesystem::path(path).lexically_normal().string();
  if (normal.size() > 1 && normal.back() == '/')
    normal.pop_back();
  return normal;
}

void addEntry(const Value& entry, const std::string& where, Config* config) {
  if (!entry.isDictionary()) {
    log(Priority::kWarning, where + ": not a dictionary, skipped");
    return;
  }
  if (const Value* below = entry.find("TaggedBelow")) {
    const std::string* path = below->asString();
    if (path == nullptr || path->empty() || path->front() != '/')
      log(Priority::kWarning, where + ": \"TaggedBelow\" is not an absolute path, skipped");
    else
      config->taggedBelow.push_back(normalPath(*path));
  }
  const Value* pathValue = entry.find("Path");
  if (pathValue == nullptr)
    return;
  const std::string* path = pathValue->asString();
  if (path == nullptr) {
    log(Priority::kWarning, where + ": \"Path\" is not a string, skipped");
    return;
  }
  if (auto reason = refusalReason(*path)) {
    log(Priority::kError, where + ": refusing \"" + *path + "\": " + *reason);
    return;
  }
  DirPolicy policy;
  policy.path = normalPath(*path);
  bool bad = false;
  policy.minimumAge = seconds(entry, "MinimumAge", where, &bad).value_or(kDefaultMinimumAge);
  policy.maximumAge = seconds(entry, "MaximumAge", where, &bad);
  if (const Value* size = entry.find("MaximumSize")) {
    if (size->isNumber() && size->int64Value() >= 0)
      policy.maximumSize = size->uint64Value();
    else {
      log(Priority::kWarning, where + ": \"MaximumSize\" is not a number of bytes");
      bad = true;
    }
  }
  if (const Value* patterns = entry.find("Patterns")) {
    const Value::Array* list = patterns->asArray();
    for (const Value& p : list ? *list : Value::Array{}) {
      if (const std::string* s = p.asString(); s != nullptr && !s->empty())
        policy.patterns.push_back(*s);
      else
        bad = true;
    }
    if (list == nullptr || policy.patterns.empty()) {
      log(Priority::kWarning, where + ": \"Patterns\" is not an array of globs");
      bad = true;
    }
  }
  // A policy only half understood could delete more than its author meant.
  if (bad) {
    log(Priority::kError, where + ": \"" + policy.path + "\" skipped");
    return;
  }
  config->directories.push_back(std::move(policy));
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

std::filesystem::path configDirectory() {
  const char* root = std::getenv("ZEPHON_SIMULATOR_ROOT");
  const std::filesystem::path base = (root != nullptr && *root != '\0') ? root : "/";
  return base / "etc/vantor/cachedirs.d";
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
        addEntry(entry, file.string(), &config);
    } else {
      addEntry(*parsed.value, file.string(), &config);
    }
  }
  return config;
}

}  // namespace vantor::cachedir
