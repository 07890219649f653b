// Services checking in, being pinged and notified, and being forgotten.

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <functional>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "support/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::vector<std::string> kClientAndService = {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"};

void setState(sdbus::IConnection& client, const std::string& key, std::vector<sdbus::Variant> v) {
  EXPECT_EQ(
      callForError(client, "ClientSetState", [&](sdbus::MethodCall& call) { call << v << key; }),
      "");
}

TEST(ACheckedInService, IsPingedThenNotifiedWhenAClientChangesTheCacheSetting) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), kClientAndService);
  ASSERT_TRUE(ctx.startDaemon());
  auto service = ctx.startService(
      {"--id", "com.example.cache", "--checkin", "--notify", "VANTOR_CACHE_ENABLED"});
  ASSERT_TRUE(service->waitForLine("ping", seconds(10))) << ctx.daemonLog();
  auto reply = service->waitForLine("checked-in", seconds(10));
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, "checked-in {\"ANON\" = true; \"VANTOR_ID\" = \"com.example.cache\";}");

  auto client = ctx.connect();
  setState(*client, "SOMETHING_ELSE", {sdbus::Variant(std::int64_t{1})});
  setState(*client, "VANTOR_CACHE_ENABLED", {sdbus::Variant(false)});
  auto note = service->waitForLine("notify", seconds(10));
  ASSERT_TRUE(note);
  EXPECT_EQ(*note, "notify {\"VANTOR_CACHE_ENABLED\" = false;}");
}

TEST(ACheckedInService, IsForgottenWhenItsProcessExits) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), kClientAndService);
  ASSERT_TRUE(ctx.startDaemon());
  auto leaving = ctx.startService(
      {"--id", "com.example.leaving", "--checkin", "--notify", "VANTOR_CACHE_ENABLED"});
  auto staying = ctx.startService(
      {"--id", "com.example.staying", "--checkin", "--notify", "VANTOR_CACHE_ENABLED"});
  ASSERT_TRUE(leaving->waitForLine("checked-in", seconds(10)));
  ASSERT_TRUE(staying->waitForLine("checked-in", seconds(10)));

  leaving->signal(SIGTERM);
  ASSERT_TRUE(leaving->waitExit(seconds(10)));
  ASSERT_TRUE(ctx.waitForLog("invalidationHandler ENTRY", seconds(10))) << ctx.daemonLog();

  // The removal is queued before the fan-out, so only the other one is asked.
  auto client = ctx.connect();
  setState(*client, "VANTOR_CACHE_ENABLED", {sdbus::Variant(false)});
  ASSERT_TRUE(staying->waitForLine("notify", seconds(10)));
  ASSERT_TRUE(ctx.waitForLog("serviceID: com.example.staying", seconds(10)));
  EXPECT_EQ(ctx.daemonLog().find("serviceID: com.example.leaving"), std::string::npos);
}

TEST(ACheckinUnderADescriptorId, GetsTheNullReplyWithoutContactingAnyone) {
  TestContext ctx;
  ctx.writeDescriptor("declared.plist",
                      Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.declared")}}));
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});  // no SERVICE_ENTITLEMENT
  ASSERT_TRUE(ctx.startDaemon());
  auto service = ctx.startService({"--id", "com.example.declared", "--checkin"});
  auto reply = service->waitForLine("checked-in", seconds(10));
  ASSERT_TRUE(reply);
  EXPECT_EQ(*reply, "checked-in {}");
  EXPECT_FALSE(service->sawLineStartingWith("ping"));
}

TEST(AnUnentitledCheckinUnderANewId, GetsNoReplyAtAll) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  ASSERT_TRUE(ctx.startDaemon());
  auto service = ctx.startService(
      {"--id", "com.example.stranger", "--checkin", "--checkin-timeout-ms", "1500"});
  auto outcome = service->waitForLine("checkin-failed", seconds(10));
  ASSERT_TRUE(outcome);
  EXPECT_EQ(*outcome, "checkin-failed org.freedesktop.DBus.Error.NoReply");
  EXPECT_FALSE(service->sawLineStartingWith("ping"));
  EXPECT_TRUE(ctx.waitForLog("Connection is not entitled!", seconds(5)));
}

TEST(ASecondCheckinOfALiveService, KeepsTheFirstConnectionAndUpdatesTheFlags) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), kClientAndService);
  ASSERT_TRUE(ctx.startDaemon());
  auto first = ctx.startService({"--id", "com.example.twice", "--checkin"});
  ASSERT_TRUE(first->waitForLine("checked-in", seconds(10)));
  auto second = ctx.startService(
      {"--id", "com.example.twice", "--checkin", "--notify", "VANTOR_CACHE_ENABLED"});
  ASSERT_TRUE(second->waitForLine("checked-in", seconds(10)));
  EXPECT_FALSE(second->sawLineStartingWith("ping"));
  EXPECT_TRUE(ctx.waitForLog("operating on an existing service", seconds(5)));

  // The kept connection is the first one, now with the second one's flags.
  auto client = ctx.connect();
  setState(*client, "VANTOR_CACHE_ENABLED", {sdbus::Variant(true)});
  EXPECT_TRUE(first->waitForLine("notify {\"VANTOR_CACHE_ENABLED\" = true;}", seconds(10)));
  EXPECT_FALSE(second->sawLineStartingWith("notify"));
}

TEST(AServiceThatNeverAnswersThePing, HoldsRegistrationButNotClientState) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), kClientAndService);
  ASSERT_TRUE(ctx.startDaemon());
  auto mute = ctx.startService({"--id", "com.example.mute", "--checkin", "--no-pong"});
  ASSERT_TRUE(mute->waitForLine("ping", seconds(10))) << ctx.daemonLog();

  // Client state lives on its own queue and keeps working.
  auto client = ctx.connect();
  setState(*client, "KEY", {sdbus::Variant(std::string("value"))});
  EXPECT_EQ(callForError(*client, "ClientGetState",
                         [](sdbus::MethodCall& call) { call << std::string("KEY"); }),
            "");

  // Registration waits behind the unanswered ping.
  auto waiting = ctx.startService({"--id", "com.example.waiting", "--checkin"});
  ASSERT_TRUE(waiting->waitForLine("ready", seconds(10)));
  EXPECT_FALSE(waiting->waitForLine("ping", milliseconds(500)));

  // Once the mute service goes away its ping fails and registration resumes.
  mute->signal(SIGKILL);
  EXPECT_TRUE(waiting->waitForLine("ping", seconds(10)));
  EXPECT_TRUE(waiting->waitForLine("checked-in", seconds(10)));
}

TEST(ACheckinNamingABusNameThatDoesNotExist, IsAnsweredAndForgotten) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), kClientAndService);
  ASSERT_TRUE(ctx.startDaemon());
  auto client = ctx.connect();
  std::map<std::string, sdbus::Variant> info{{"PURGE", sdbus::Variant(true)}};
  EXPECT_EQ(
      callForError(
          *client, "ClientCheckin",
          [&](sdbus::MethodCall& call) {
            call
                << std::string("com.example.ghost")
                << sdbus::Struct<std::string, sdbus::ObjectPath>{std::string(":1.424242"),
                                                                 sdbus::ObjectPath(
                                                                     "/com/tessaly/vantor/Service")}
                << info;
          }),
      "");
  EXPECT_TRUE(ctx.waitForLog("invalidationHandler ENTRY", seconds(10)));
  // And everyone else is still served.
  auto service = ctx.startService({"--id", "com.example.alive", "--checkin"});
  EXPECT_TRUE(service->waitForLine("checked-in", seconds(10)));
}

// A service written against the raw bus rather than the kit: it answers the
// ping with `pong` and every notification with a reply of the wrong shape.
struct RawService {
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IObject> object;
  std::atomic<int> notifications{0};
};

std::unique_ptr<RawService> startRawService(TestContext& ctx,
                                            std::function<void(sdbus::MethodCall)> pong) {
  auto raw = std::make_unique<RawService>();
  raw->connection = ctx.connect();
  raw->object = sdbus::createObject(*raw->connection, "/com/tessaly/vantor/Service");
  const std::string iface = "com.tessaly.vantor.Service";
  raw->object->registerMethod(iface, "ServicePing", "", "", std::move(pong));
  raw->object->registerMethod(iface, "ServiceNotify", "a{sv}", "",
                              [r = raw.get()](sdbus::MethodCall call) {
                                ++r->notifications;
                                auto reply = call.createReply();
                                reply << std::string("garbage") << std::int32_t{42};
                                reply.send();
                              });
  raw->object->finishRegistration();
  return raw;
}

void checkInRaw(RawService& raw, const std::string& id) {
  auto proxy = sdbus::createProxy(*raw.connection, "com.tessaly.vantor", "/com/tessaly/vantor");
  std::map<std::string, sdbus::Variant> info{
      {"VANTOR_NOTIFICATIONS", sdbus::Variant(std::vector<sdbus::Variant>{
                                   sdbus::Variant(std::string("VANTOR_CACHE_ENABLED"))})}};
  proxy->callMethodAsync("ClientCheckin")
      .onInterface("com.tessaly.vantor.Client")
      .withArguments(
          id,
          sdbus::Struct<std::string, sdbus::ObjectPath>{
              raw.connection->getUniqueName(), sdbus::ObjectPath("/com/tessaly/vantor/Service")},
          info)
      .uponReplyInvoke([](const sdbus::Error*) {});
}

TEST(AMisbehavingService, GarbageRepliesAndErrorsLeaveEveryoneElseServed) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), kClientAndService);
  ASSERT_TRUE(ctx.startDaemon());

  // Answers the ping with a D-Bus error: the daemon gives up on it.
  auto failing = startRawService(ctx, [](sdbus::MethodCall call) {
    call.createErrorReply(sdbus::Error("com.example.Broken", "no pong today")).send();
  });
  checkInRaw(*failing, "com.example.failing");
  ASSERT_TRUE(ctx.waitForLog("invalidationHandler ENTRY", seconds(10))) << ctx.daemonLog();

  // Answers the ping with extra arguments and notifications with garbage.
  auto noisy = startRawService(ctx, [](sdbus::MethodCall call) {
    auto reply = call.createReply();
    reply << std::string("unexpected");
    reply.send();
  });
  checkInRaw(*noisy, "com.example.noisy");

  auto good = ctx.startService(
      {"--id", "com.example.good", "--checkin", "--notify", "VANTOR_CACHE_ENABLED"});
  ASSERT_TRUE(good->waitForLine("checked-in", seconds(10))) << ctx.daemonLog();
  auto client = ctx.connect();
  setState(*client, "VANTOR_CACHE_ENABLED", {sdbus::Variant(false)});
  EXPECT_TRUE(good->waitForLine("notify", seconds(10)));
  EXPECT_EQ(failing->notifications, 0);
  EXPECT_FALSE(ctx.daemon().waitExit(milliseconds(0)));
  EXPECT_EQ(callForError(*client, "ClientGetState",
                         [](sdbus::MethodCall& call) { call << std::string("KEY"); }),
            "");
}

}  // namespace
}  // namespace vantor::test
