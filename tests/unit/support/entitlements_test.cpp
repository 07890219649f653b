// The entitlement policy: loading files and matching peers.

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/values/plist_io.h"
#include "support/client_connection.h"
#include "support/entitlements.h"

namespace vantor {
namespace {

class Policy : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantor-policy-XXXXXX";
    dir_ = ::mkdtemp(pattern);
  }
  void TearDown() override {
    std::filesystem::remove_all(dir_);
    installEntitlementPolicy(EntitlementPolicy{});
  }

  void write(const std::string& name, const Value& v) {
    auto bytes = encodePlist(v, PlistFormat::kXml);
    std::ofstream(dir_ / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
  static Value strings(std::initializer_list<const char*> items) {
    Value::Array a;
    for (const char* i : items)
      a.emplace_back(i);
    return Value(a);
  }
  static PeerIdentity peer(uid_t uid, std::vector<gid_t> gids = {},
                           std::optional<std::string> exe = std::nullopt) {
    PeerIdentity p;
    p.credentials.uid = uid;
    p.credentials.gids = std::move(gids);
    if (exe)
      p.executable = *exe;
    return p;
  }

  std::filesystem::path dir_;
};

TEST_F(Policy, GrantsTheUnionOfEveryMatchingFile) {
  write("users.plist",
        Value(Value::Dictionary{{"Users", strings({"root", "1234"})},
                                {"com.tessaly.private.Vantor", strings({"CLIENT_ENTITLEMENT"})}}));
  write("group.plist",
        Value(Value::Dictionary{{"Groups", strings({"77"})},
                                {"com.tessaly.private.Vantor", strings({"PURGE_ENTITLEMENT"})}}));
  write("exe.plist", Value(Value::Dictionary{
                         {"Executables", strings({"/usr/bin/tool"})},
                         {"com.tessaly.private.Vantor", strings({"PURGEABLE_ENTITLEMENT"})}}));
  // A file without subjects applies to nobody.
  write("none.plist", Value(Value::Dictionary{
                          {"com.tessaly.private.Vantor", strings({"NOTIFICATION_ENTITLEMENT"})}}));
  std::vector<std::string> warnings;
  auto policy = EntitlementPolicy::load(dir_, &warnings);
  EXPECT_TRUE(warnings.empty());
  EXPECT_EQ(policy.namesFor(peer(0)), std::set<std::string>{"CLIENT_ENTITLEMENT"});
  EXPECT_EQ(policy.namesFor(peer(1234, {77})),
            (std::set<std::string>{"CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT"}));
  EXPECT_EQ(policy.namesFor(peer(999, {5}, "/usr/bin/tool")),
            std::set<std::string>{"PURGEABLE_ENTITLEMENT"});
  EXPECT_TRUE(policy.namesFor(peer(999, {5}, "/usr/bin/other")).empty());
  EXPECT_EQ(policy.namesFor(peer(0, {0}, "/bin/sh")), std::set<std::string>{"CLIENT_ENTITLEMENT"});
  // A missing directory is an empty policy.
  EXPECT_TRUE(EntitlementPolicy::load(dir_ / "missing", nullptr).rules().empty());
}

TEST_F(Policy, SkipsBadFilesAndUnknownNamesWithWarnings) {
  std::ofstream(dir_ / "garbage.plist") << "not a plist";
  write("array.plist", strings({"x"}));
  write("unknown.plist",
        Value(Value::Dictionary{{"Users", strings({"no-such-user-here", "42"})},
                                {"Groups", strings({"no-such-group-here"})},
                                {"com.tessaly.private.Vantor", strings({"CLIENT_ENTITLEMENT"})}}));
  std::ofstream(dir_ / "ignored.txt") << "not a policy file";
  std::vector<std::string> warnings;
  auto policy = EntitlementPolicy::load(dir_, &warnings);
  EXPECT_EQ(warnings.size(), 4u);
  EXPECT_EQ(policy.namesFor(peer(42)), std::set<std::string>{"CLIENT_ENTITLEMENT"});
}

TEST_F(Policy, AConnectionWithoutIdentityHoldsNothing) {
  write("all.plist",
        Value(Value::Dictionary{{"Users", strings({"0"})},
                                {"com.tessaly.private.Vantor", strings({"CLIENT_ENTITLEMENT"})}}));
  installEntitlementPolicy(EntitlementPolicy::load(dir_, nullptr));
  ClientConnection known(":1.5", peer(0));
  ClientConnection unknown(":1.6", std::nullopt);
  EXPECT_TRUE(connectionIsEntitled(&known, {"CLIENT_ENTITLEMENT"}));
  EXPECT_FALSE(connectionIsEntitled(&known, {"CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT"}));
  EXPECT_FALSE(connectionIsEntitled(&unknown, {"CLIENT_ENTITLEMENT"}));
  EXPECT_FALSE(connectionIsEntitled(nullptr, {"CLIENT_ENTITLEMENT"}));
}

}  // namespace
}  // namespace vantor
