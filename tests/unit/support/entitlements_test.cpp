// The entitlement policy: loading files and matching peers. (Users and
// executables are also granted to the real daemon in entitlement_table_test
// and purge_test.)

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/values/plist_io.h"
#include "support/client_connection.h"
#include "support/entitlements.h"
#include "testkit/temp_dir.h"

namespace vantor {
namespace {

Value strings(std::initializer_list<const char*> items) {
  return Value(Value::Array(items.begin(), items.end()));
}

Value grant(const char* subjects, Value who, const char* name) {
  return Value(Value::Dictionary{{subjects, std::move(who)},
                                 {"com.tessaly.private.Vantor", strings({name})}});
}

PeerIdentity peer(uid_t uid, std::vector<gid_t> gids = {},
                  std::optional<std::string> exe = std::nullopt) {
  return {.credentials = {.uid = uid, .gids = std::move(gids), .pid = {}}, .executable = exe};
}

// Every matching file adds its names; bad files and unknown users or groups
// are skipped with a warning each; a peer without an identity holds nothing.
TEST(EntitlementPolicy, GrantsTheUnionOfEveryMatchingFileAndSkipsWhatItCannotRead) {
  const testkit::TempDir temp;
  const std::filesystem::path& dir = temp.path();
  const auto write = [&](const std::string& name, const Value& v) {
    const auto bytes = encodePlist(v, PlistFormat::kXml);
    std::ofstream(dir / name) << std::string(bytes.begin(), bytes.end());
  };
  write("users.plist", grant("Users", strings({"root", "1234"}), "CLIENT_ENTITLEMENT"));
  write("group.plist", grant("Groups", strings({"77"}), "PURGE_ENTITLEMENT"));
  write("exe.plist", grant("Executables", strings({"/usr/bin/tool"}), "PURGEABLE_ENTITLEMENT"));
  // A file without subjects applies to nobody.
  write("none.plist", Value(Value::Dictionary{
                          {"com.tessaly.private.Vantor", strings({"NOTIFICATION_ENTITLEMENT"})}}));
  write("unknown.plist", Value(Value::Dictionary{{"Users", strings({"no-such-user-here", "42"})},
                                                 {"Groups", strings({"no-such-group-here"})},
                                                 {"com.tessaly.private.Vantor",
                                                  strings({"ITEMIZED_PURGEABLE_ENTITLEMENT"})}}));
  write("array.plist", strings({"x"}));
  std::ofstream(dir / "garbage.plist") << "not a plist";
  std::ofstream(dir / "ignored.txt") << "not a policy file";

  std::vector<std::string> warnings;
  const auto policy = EntitlementPolicy::load(dir, &warnings);
  EXPECT_EQ(warnings.size(), 4u) << ::testing::PrintToString(warnings);
  using Names = std::set<std::string>;
  EXPECT_EQ(policy.namesFor(peer(0, {0}, "/bin/sh")), Names{"CLIENT_ENTITLEMENT"});
  EXPECT_EQ(policy.namesFor(peer(1234, {77})), (Names{"CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT"}));
  EXPECT_EQ(policy.namesFor(peer(999, {5}, "/usr/bin/tool")), Names{"PURGEABLE_ENTITLEMENT"});
  EXPECT_TRUE(policy.namesFor(peer(999, {5}, "/usr/bin/other")).empty());
  EXPECT_EQ(policy.namesFor(peer(42)), Names{"ITEMIZED_PURGEABLE_ENTITLEMENT"});
  // A missing directory is an empty policy.
  EXPECT_TRUE(EntitlementPolicy::load(dir / "missing", nullptr).rules().empty());

  installEntitlementPolicy(policy);
  ClientConnection known(":1.5", peer(0));
  ClientConnection unknown(":1.6", std::nullopt);
  EXPECT_TRUE(connectionIsEntitled(&known, {"CLIENT_ENTITLEMENT"}));
  EXPECT_FALSE(connectionIsEntitled(&known, {"CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT"}));
  EXPECT_FALSE(connectionIsEntitled(&unknown, {"CLIENT_ENTITLEMENT"}));
  installEntitlementPolicy(EntitlementPolicy{});
}

}  // namespace
}  // namespace vantor
