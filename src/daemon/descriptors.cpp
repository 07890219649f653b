// Descriptor files: the services known from start-up.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <system_error>
#include <vector>

#include "daemon/vantor.h"
#include "platform/files/read_file.h"
#include "platform/values/plist_io.h"
#include "support/log.h"

namespace vantor {

namespace {

constexpr char kScan[] = "-[Vantor scanPlistsAtPath:execBlock:]";
constexpr char kStep[] = "-[Vantor init]_block_invoke";

// Descriptors are small; anything larger is not one.
constexpr std::size_t kMaxDescriptorBytes = 4 << 20;

// Reads and parses one entry and hands a dictionary to `execBlock`;
// anything else is logged and skipped.
void readDescriptor(const std::string& full, const std::function<void(const Value&)>& execBlock) {
  std::string error;
  auto bytes = readRegularFile(full, kMaxDescriptorBytes, &error);
  if (bytes) {
    auto parsed = parsePlist(*bytes);
    if (parsed.value && parsed.value->isDictionary()) {
      execBlock(*parsed.value);
      return;
    }
    error = parsed.value ? std::string() : parsed.error;
  }
  // The error is absent when the file parsed but is not a dictionary.
  VANTOR_LOG(3, "%s propertyListWithData failed: %s", kScan,
             error.empty() ? nullptr : error.c_str());
}

// Whether the entry at `path` disables its name: an empty file, or a
// symbolic link to /dev/null.
bool masks(const std::filesystem::path& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status link = fs::symlink_status(path, ec);
  if (ec)
    return false;
  if (fs::is_symlink(link)) {
    const fs::path target = fs::read_symlink(path, ec);
    return !ec && target == "/dev/null";
  }
  return fs::is_regular_file(link) && fs::file_size(path, ec) == 0 && !ec;
}

}  // namespace

std::vector<std::string> Vantor::serviceDirs() const {
  std::string root = rootPath;
  while (!root.empty() && root.back() == '/')
    root.pop_back();
  return {root + "/etc/vantor/services.d/", root + "/usr/lib/vantor/services.d/"};
}

void Vantor::scanServiceDirs() {
  namespace fs = std::filesystem;
  // Each name once, from the first directory that has it.
  std::map<std::string, fs::path> chosen;
  for (const auto& dir : serviceDirs()) {
    std::error_code ec;
    fs::directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
      const std::string name = it->path().filename().string();
      if (it->path().extension() == ".plist")
        chosen.emplace(name, it->path());
    }
    if (ec && ec != std::errc::no_such_file_or_directory)
      VANTOR_LOG(3, "%s cannot enumerate %s: %s", kScan, dir.c_str(), ec.message().c_str());
  }
  for (const auto& entry : chosen) {
    // A plain reference, not a structured binding: lambdas cannot capture one
    // in every compiler this builds with.
    const fs::path& path = entry.second;
    if (masks(path)) {
      VANTOR_LOG(5, "%s %s is disabled", kScan, path.c_str());
      continue;
    }
    VANTOR_LOG(5, "%s looking at: %s", kScan, path.c_str());
    readDescriptor(path.string(), [&](const Value& descriptor) {
      const Value* id = descriptor.find("VANTOR_ID");
      const std::string* known = id != nullptr ? id->asString() : nullptr;
      if (known != nullptr && services.count(*known) != 0) {
        VANTOR_LOG(3, "%s %s is already known; skipping %s", kScan, known->c_str(), path.c_str());
        return;
      }
      addDescriptorService(descriptor);
    });
  }
}

void Vantor::scanPlistsAtPath(const std::string& path,
                              const std::function<void(const Value&)>& execBlock) {
  namespace fs = std::filesystem;
  // Depth first, each directory's entries in the order the file system gives
  // them, a directory's contents right after the directory itself. Every
  // directory is opened on its own, so one that cannot be opened or read to
  // the end is logged and left, and the scan goes on with the rest. Symbolic
  // links to directories are not followed, so the walk always ends.
  struct Open {
    std::string path;
    fs::directory_iterator it;
  };
  std::vector<Open> open;
  std::error_code ec;
  open.push_back(
      {path, fs::directory_iterator(path, fs::directory_options::skip_permission_denied, ec)});
  if (ec)
    return;  // missing or unreadable directory: no entries
  // Moves `level` past its current entry; a read error leaves the rest of it.
  const auto advance = [&](Open& level) {
    level.it.increment(ec);
    if (ec) {
      VANTOR_LOG(3, "%s cannot enumerate %s: %s", kScan, level.path.c_str(), ec.message().c_str());
      level.it = fs::directory_iterator();
    }
  };
  while (!open.empty()) {
    if (open.back().it == fs::directory_iterator()) {
      open.pop_back();
      if (!open.empty())
        advance(open.back());  // past the directory just finished
      continue;
    }
    const fs::directory_entry& entry = *open.back().it;
    const std::string relative = entry.path().lexically_relative(path).string();
    const std::string full =
        path + "/" + (relative.empty() ? entry.path().filename().string() : relative);
    VANTOR_LOG(5, "%s looking at: %s", kScan, full.c_str());
    readDescriptor(full, execBlock);

    // Into a subdirectory next; otherwise on to the next entry.
    std::error_code typeError;
    if (entry.is_directory(typeError) && !entry.is_symlink(typeError)) {
      fs::directory_iterator sub(entry.path(), fs::directory_options::skip_permission_denied, ec);
      if (!ec) {
        open.push_back({full, std::move(sub)});
        continue;
      }
      VANTOR_LOG(3, "%s cannot enumerate %s: %s", kScan, full.c_str(), ec.message().c_str());
    }
    advance(open.back());
  }
}

void Vantor::addDescriptorService(const Value& descriptor) {
  const Value* id = descriptor.find("VANTOR_ID");
  if (id == nullptr || !id->isString())
    return;
  const std::string& identifier = *id->asString();

  auto record = std::make_shared<VTService>();
  record->setID(identifier);

  // Without a list of kinds a service purges; an empty list means neither.
  if (const Value* kinds = descriptor.find("VANTOR_SERVICES")) {
    bool purge = false;
    bool periodic = false;
    if (const auto* list = kinds->asArray()) {
      for (const Value& kind : *list) {
        if (const auto* s = kind.asString()) {
          purge = purge || *s == "PURGE";
          periodic = periodic || *s == "PERIODIC";
        }
      }
    }
    record->setDoesPeriodic(periodic);
    record->setDoesPurge(purge);
  } else {
    record->setDoesPurge(true);
  }

  // Presence alone counts, whatever the value.
  if (descriptor.find("VANTOR_DO_NOT_QUERY") != nullptr) {
    VANTOR_LOG(5, "%s marking %s as DO_NOT_QUERY", kStep, identifier.c_str());
    record->setDoNotQuery(true);
  }

  if (const Value* notifications = descriptor.find("VANTOR_NOTIFICATIONS")) {
    // A set of names: duplicates collapse.
    Value::Array names;
    if (const auto* list = notifications->asArray()) {
      for (const Value& name : *list) {
        if (std::find(names.begin(), names.end(), name) == names.end())
          names.push_back(name);
      }
    }
    record->setDesiredNotifications(Value(names));
    VANTOR_LOG(5, "%s %s desiredNotifications: %s", kStep, identifier.c_str(),
               Value(names).description().c_str());
  }

  services[identifier] = record;  // a later descriptor of the same ID wins
  daemons.insert(identifier);
}

}  // namespace vantor
