// Services checking in, being pinged and notified. (Services that exit or
// misanswer: faults_test. Lists and dictionaries as other bindings send them,
// and those refused, convert as client state's do: persistent_state_test.)

#include "common/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

void set(sdbus::IConnection& client, const std::string& key, const Value& value) {
  EXPECT_EQ(setState(client, key, value), "") << key;
}

// A service is pinged at its check-in and notified of the settings it asked
// for. A second check-in of a live ID is not pinged: it keeps the first
// connection, now with the second one's flags.
TEST(Services, AreCheckedInPingedAndNotifiedAndASecondCheckinUpdatesTheFirst) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"}));
  auto first = ctx.startService({"--id", "com.example.cache", "--checkin"});
  ASSERT_TRUE(first->waitForLine("ping", seconds(10))) << ctx.daemonLog();
  EXPECT_EQ(first->waitForLine("checked-in", seconds(10)),
            "checked-in {\"ANON\" = true; \"VANTOR_ID\" = \"com.example.cache\";}");
  auto second = checkedInService(ctx, "com.example.cache", {"--notify", "VANTOR_CACHE_ENABLED"});
  ASSERT_FALSE(::testing::Test::HasFailure());
  EXPECT_FALSE(second->sawLineStartingWith("ping"));
  EXPECT_TRUE(ctx.waitForLog("operating on an existing service", seconds(5)));

  auto client = ctx.connect();
  set(*client, "SOMETHING_ELSE", Value(std::int64_t{1}));
  set(*client, "VANTOR_CACHE_ENABLED", Value(false));
  EXPECT_EQ(first->waitForLine("notify", seconds(10)),
            "notify {\"VANTOR_CACHE_ENABLED\" = false;}");
  // Removing the setting is announced as it was made: with no value (a null
  // has no place in a D-Bus dictionary), not with the default.
  set(*client, "VANTOR_CACHE_ENABLED", Value());
  EXPECT_EQ(first->waitForLine("notify", seconds(10)), "notify {}");
  EXPECT_FALSE(second->sawLineStartingWith("notify"));
}

// A service known only from its descriptor, here the shipped example
// service, is started by bus activation when first called, and reached at
// the bus name its ID names: asked for purgeable space, and notified.
// (Services already owning their name are reached the same way in
// daily_run_test and low_space_test.) A check-in under its ID gets the null
// reply without contacting anyone.
class ADescriptorService : public ClientTest {};

TEST_F(ADescriptorService, IsStartedByBusActivationAndReachedByItsId) {
  ctx_.writeDescriptor(
      "activated.plist",
      Value(Value::Dictionary{
          {"VANTOR_ID", Value("com.example.activated")},
          {"VANTOR_NOTIFICATIONS", Value(Value::Array{Value("VANTOR_CACHE_ENABLED")})}}));
  // The bus starts the service from its .service file; its output goes to a
  // file of the test's own.
  const auto output = ctx_.directory() / "activated.out";
  const auto script = ctx_.directory() / "activated.sh";
  ctx_.writeFile(script, "#!/bin/sh\nDBUS_SYSTEM_BUS_ADDRESS='" + ctx_.busAddress() +
                             "' exec '" VANTOR_EXAMPLE_SERVICE_BINARY
                             "' --id com.example.activated --own-name --amount 4096 >>'" +
                             output.string() + "' 2>&1\n");
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  ctx_.writeFile(ctx_.busServiceDir() / "com.example.activated.service",
                 "[D-BUS Service]\nName=com.example.activated\nExec=" + script.string() + "\n");
  start({"CLIENT_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"});  // the check-in below needs no more
  // The first query starts the call; the answer is read from the cache once
  // it is in, whatever the time the service took to come up.
  EXPECT_EQ(queryFromCache({"com.example.activated"})["com.example.activated"],
            Value(std::uint64_t{4096}));
  set(*client_, "VANTOR_CACHE_ENABLED", Value(false));
  EXPECT_TRUE(waitForText(output, "notify {\"VANTOR_CACHE_ENABLED\" = false;}", seconds(10)));

  auto service = ctx_.startService({"--id", "com.example.activated", "--checkin"});
  EXPECT_EQ(service->waitForLine("checked-in", seconds(10)), "checked-in {}");
  EXPECT_FALSE(service->sawLineStartingWith("ping"));
}

}  // namespace
}  // namespace vantor::test
