#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/dbus/bus.h"

// The entitlement policy: files "*.plist" in <root>/etc/vantor/entitlements.d/,
// each a dictionary naming subjects ("Users", "Groups", "Executables") and the
// entitlement names it grants ("com.tessaly.private.Vantor"). A file applies
// to a peer when any listed subject matches it; a file without subjects
// applies to nobody. A peer holds the union of the names of every file that
// applies to it.

namespace vantor {

// Entitlement names.
inline constexpr char kClientEntitlement[] = "CLIENT_ENTITLEMENT";
inline constexpr char kServiceEntitlement[] = "SERVICE_ENTITLEMENT";
inline constexpr char kPurgeableEntitlement[] = "PURGEABLE_ENTITLEMENT";
inline constexpr char kItemizedPurgeableEntitlement[] = "ITEMIZED_PURGEABLE_ENTITLEMENT";
inline constexpr char kPurgeEntitlement[] = "PURGE_ENTITLEMENT";

// What the policy matches against: the peer's identity as the bus reports it
// and the resolved path of its executable, when known.
struct PeerIdentity {
  dbus::PeerCredentials credentials;
  std::optional<std::filesystem::path> executable;
};

class EntitlementPolicy {
 public:
  struct Rule {
    std::set<uid_t> users;
    std::set<gid_t> groups;
    std::set<std::string> executables;
    std::set<std::string> names;
    std::string file;
  };

  // Reads every "*.plist" of `directory`, in name order. Unreadable or
  // malformed files and unknown user or group names are skipped and described
  // in `warnings`. A missing directory is an empty policy.
  static EntitlementPolicy load(const std::filesystem::path& directory,
                                std::vector<std::string>* warnings);

  // The names that `peer` holds.
  std::set<std::string> namesFor(const PeerIdentity& peer) const;

  const std::vector<Rule>& rules() const { return rules_; }

 private:
  std::vector<Rule> rules_;
};

// The policy directory below `root` (empty root: "/").
std::filesystem::path entitlementDirectory(const std::string& root);

// The policy in force for the process; starts empty. Safe from any thread.
std::shared_ptr<const EntitlementPolicy> currentEntitlementPolicy();
void installEntitlementPolicy(EntitlementPolicy policy);

}  // namespace vantor
