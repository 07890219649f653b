#include "support/entitlements.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <system_error>

#include "platform/files/read_file.h"
#include "platform/values/plist_io.h"

namespace vantor {

namespace {

constexpr std::uintmax_t kMaxPolicyFileBytes = 1 << 20;

std::optional<unsigned long> parseDecimal(const std::string& text) {
  if (text.empty() || text.size() > 10)
    return std::nullopt;
  if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  return std::strtoul(text.c_str(), nullptr, 10);
}

std::optional<uid_t> resolveUser(const std::string& name) {
  if (auto n = parseDecimal(name))
    return static_cast<uid_t>(*n);
  std::vector<char> buffer(16384);
  struct passwd pw {};
  struct passwd* result = nullptr;
  if (getpwnam_r(name.c_str(), &pw, buffer.data(), buffer.size(), &result) != 0 || !result) {
    return std::nullopt;
  }
  return pw.pw_uid;
}

std::optional<gid_t> resolveGroup(const std::string& name) {
  if (auto n = parseDecimal(name))
    return static_cast<gid_t>(*n);
  std::vector<char> buffer(65536);
  struct group gr {};
  struct group* result = nullptr;
  if (getgrnam_r(name.c_str(), &gr, buffer.data(), buffer.size(), &result) != 0 || !result) {
    return std::nullopt;
  }
  return gr.gr_gid;
}

// Collects the strings of an array entry; other element types are skipped.
std::vector<std::string> stringsOf(const Value& dict, const char* key) {
  std::vector<std::string> out;
  const Value* v = dict.find(key);
  if (v == nullptr || !v->isArray())
    return out;
  for (const Value& item : *v->asArray()) {
    if (item.isString())
      out.push_back(*item.asString());
  }
  return out;
}

struct PolicySlot {
  std::mutex mutex;
  std::shared_ptr<const EntitlementPolicy> policy = std::make_shared<EntitlementPolicy>();
};

PolicySlot& slot() {
  static auto* s = new PolicySlot;  // never destroyed: callers may run during exit
  return *s;
}

}  // namespace

EntitlementPolicy EntitlementPolicy::load(const std::filesystem::path& directory,
                                          std::vector<std::string>* warnings) {
  EntitlementPolicy policy;
  std::error_code ec;
  std::vector<std::filesystem::path> files;
  for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().extension() == ".plist")
      files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  auto warn = [&](const std::filesystem::path& file, const std::string& what) {
    if (warnings)
      warnings->push_back(file.string() + ": " + what);
  };
  for (const auto& file : files) {
    std::error_code typeError;
    if (!std::filesystem::is_regular_file(file, typeError)) {
      warn(file, "not a regular file");
      continue;
    }
    std::string error;
    auto bytes = readRegularFile(file, kMaxPolicyFileBytes, &error);
    if (!bytes) {
      warn(file, "unreadable: " + error);
      continue;
    }
    auto parsed = parsePlist(*bytes);
    if (!parsed.value || !parsed.value->isDictionary()) {
      warn(file, parsed.value ? "not a dictionary" : "not a property list: " + parsed.error);
      continue;
    }
    Rule rule;
    rule.file = file.string();
    for (const auto& user : stringsOf(*parsed.value, "Users")) {
      if (auto uid = resolveUser(user)) {
        rule.users.insert(*uid);
      } else {
        warn(file, "unknown user \"" + user + "\"");
      }
    }
    for (const auto& group : stringsOf(*parsed.value, "Groups")) {
      if (auto gid = resolveGroup(group)) {
        rule.groups.insert(*gid);
      } else {
        warn(file, "unknown group \"" + group + "\"");
      }
    }
    for (const auto& exe : stringsOf(*parsed.value, "Executables")) {
      if (!exe.empty() && exe.front() == '/') {
        rule.executables.insert(exe);
      } else {
        warn(file, "executable path is not absolute: \"" + exe + "\"");
      }
    }
    for (const auto& name : stringsOf(*parsed.value, "com.tessaly.private.Vantor")) {
      rule.names.insert(name);
    }
    policy.rules_.push_back(std::move(rule));
  }
  return policy;
}

std::set<std::string> EntitlementPolicy::namesFor(const PeerIdentity& peer) const {
  std::set<std::string> names;
  const auto& creds = peer.credentials;
  for (const Rule& rule : rules_) {
    bool applies = rule.users.count(creds.uid) > 0;
    for (gid_t gid : creds.gids)
      applies = applies || rule.groups.count(gid) > 0;
    if (peer.executable)
      applies = applies || rule.executables.count(peer.executable->string()) > 0;
    if (applies)
      names.insert(rule.names.begin(), rule.names.end());
  }
  return names;
}

std::filesystem::path entitlementDirectory(const std::string& root) {
  std::string base = root;
  while (!base.empty() && base.back() == '/')
    base.pop_back();
  return std::filesystem::path(base + "/etc/vantor/entitlements.d");
}

std::shared_ptr<const EntitlementPolicy> currentEntitlementPolicy() {
  PolicySlot& s = slot();
  std::lock_guard lock(s.mutex);
  return s.policy;
}

void installEntitlementPolicy(EntitlementPolicy policy) {
  auto next = std::make_shared<const EntitlementPolicy>(std::move(policy));
  PolicySlot& s = slot();
  std::lock_guard lock(s.mutex);
  s.policy = std::move(next);
}

}  // namespace vantor
