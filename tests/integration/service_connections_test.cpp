// Services checking in, being pinged and notified. (A service forgotten when
// its process exits, at every kind of request: faults_test. Lists and
// dictionaries as other bindings send them, and those refused, convert as
// client state's do: persistent_state_test.)

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "common/test_context.h"
#include "platform/values/dbus_value.h"
#include "vantor_service_kit.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::vector<std::string> kNotifyArgs = {"--notify", "VANTOR_CACHE_ENABLED"};

void set(sdbus::IConnection& client, const std::string& key, const Value& value) {
  EXPECT_EQ(setState(client, key, value), "") << key;
}

// A daemon whose user may both call it and check services in.
class Services : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ctx_.startDaemonGranting({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"}));
  }
  TestContext ctx_;
};

TEST_F(Services, ACheckedInServiceIsPingedThenNotifiedWhenAClientChangesTheCacheSetting) {
  auto service = ctx_.startService(
      {"--id", "com.example.cache", "--checkin", "--notify", "VANTOR_CACHE_ENABLED"});
  ASSERT_TRUE(service->waitForLine("ping", seconds(10))) << ctx_.daemonLog();
  EXPECT_EQ(service->waitForLine("checked-in", seconds(10)),
            "checked-in {\"ANON\" = true; \"VANTOR_ID\" = \"com.example.cache\";}");

  auto client = ctx_.connect();
  set(*client, "SOMETHING_ELSE", Value(std::int64_t{1}));
  set(*client, "VANTOR_CACHE_ENABLED", Value(false));
  EXPECT_EQ(service->waitForLine("notify", seconds(10)),
            "notify {\"VANTOR_CACHE_ENABLED\" = false;}");

  // Removing the setting is announced as it was made: with no value (a null
  // has no place in a D-Bus dictionary), not with the default.
  set(*client, "VANTOR_CACHE_ENABLED", Value());
  EXPECT_EQ(service->waitForLine("notify", seconds(10)), "notify {}");
}

// A service known only from its descriptor is started by bus activation
// when first called, and reached at the bus name its ID names: asked for
// purgeable space, and notified. (Services already owning their name are
// reached the same way in daily_run_test and low_space_test.) A check-in
// under its ID gets the null reply without contacting anyone.
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
  ctx_.writeFile(script, "#!/bin/sh\nDBUS_SYSTEM_BUS_ADDRESS='" + ctx_.busAddress() + "' exec '" +
                             TestContext::exampleServicePath() +
                             "' --id com.example.activated --own-name "
                             "--amount 4096 >>'" +
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

TEST_F(Services, ASecondCheckinOfALiveServiceKeepsTheFirstConnectionAndUpdatesTheFlags) {
  auto first = checkedInService(ctx_, "com.example.twice");
  auto second = checkedInService(ctx_, "com.example.twice", kNotifyArgs);
  ASSERT_FALSE(::testing::Test::HasFailure());
  EXPECT_FALSE(second->sawLineStartingWith("ping"));
  EXPECT_TRUE(ctx_.waitForLog("operating on an existing service", seconds(5)));

  // The kept connection is the first one, now with the second one's flags.
  auto client = ctx_.connect();
  set(*client, "VANTOR_CACHE_ENABLED", Value(true));
  EXPECT_TRUE(first->waitForLine("notify {\"VANTOR_CACHE_ENABLED\" = true;}", seconds(10)));
  EXPECT_FALSE(second->sawLineStartingWith("notify"));
}

// A raw service that answers every notification with a reply of the wrong
// shape, counting them.
struct NotifiedService : RawService {
  NotifiedService(TestContext& ctx_, std::function<void(sdbus::MethodCall)> pong)
      : RawService(ctx_, std::move(pong)) {
    object->registerMethod(kInterface, "ServiceNotify", "a{sv}", "",
                           [this](sdbus::MethodCall call) {
                             ++notifications;
                             auto reply = call.createReply();
                             reply << std::string("garbage") << std::int32_t{42};
                             reply.send();
                           });
  }
  std::atomic<int> notifications{0};
};

const std::map<std::string, sdbus::Variant> kNotifyCache = {
    {"VANTOR_NOTIFICATIONS", sdbus::Variant(std::vector<sdbus::Variant>{
                                 sdbus::Variant(std::string("VANTOR_CACHE_ENABLED"))})}};

TEST_F(Services, AMisbehavingServiceGarbageRepliesAndErrorsLeaveEveryoneElseServed) {
  // Answers the ping with a D-Bus error: the daemon gives up on it.
  NotifiedService failing(ctx_, [](sdbus::MethodCall call) {
    call.createErrorReply(sdbus::Error("com.example.Broken", "no pong today")).send();
  });
  failing.checkIn("com.example.failing", kNotifyCache);
  ASSERT_TRUE(ctx_.waitForLog("invalidationHandler ENTRY", seconds(10))) << ctx_.daemonLog();

  // Answers the ping with extra arguments and notifications with garbage.
  NotifiedService noisy(ctx_, [](sdbus::MethodCall call) {
    auto reply = call.createReply();
    reply << std::string("unexpected");
    reply.send();
  });
  noisy.checkIn("com.example.noisy", kNotifyCache);

  auto good = checkedInService(ctx_, "com.example.good", kNotifyArgs);
  auto client = ctx_.connect();
  set(*client, "VANTOR_CACHE_ENABLED", Value(false));
  EXPECT_TRUE(good->waitForLine("notify", seconds(10)));
  EXPECT_EQ(failing.notifications, 0);
  EXPECT_FALSE(ctx_.daemon().waitExit(milliseconds(0)));
  EXPECT_EQ(probeState(*client), "");
}

// A kit service that queues purges under a lock of its own, as one with a
// worker thread does; the test plays the worker.
class QueueingService final : public kit::Service {
 public:
  void purge(std::int32_t, const Value&, DictionaryReply reply) override {
    entered.fetch_add(1);  // from here on the bus thread holds the bus lock
    std::lock_guard lock(mutex);
    queued.push_back(std::move(reply));
  }
  std::atomic<int> entered{0};
  std::mutex mutex;
  std::vector<DictionaryReply> queued;
};

TEST(AKitService, MayDropAnAnsweredReplyWhileItsBusThreadWaitsForTheServicesLock) {
  TestContext ctx;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ctx.busAddress().c_str(), 1);
  auto service = std::make_shared<QueueingService>();
  kit::ServiceHost host(service);
  auto client = ctx.connect();
  auto proxy = sdbus::createProxy(*client, host.uniqueName(), "/com/tessaly/vantor/Service");
  auto purge = [&proxy](std::promise<std::uint64_t>& freed) {
    proxy->callMethodAsync("ServicePurge")
        .onInterface("com.tessaly.vantor.Service")
        .withArguments(std::int32_t{4}, VariantMap{})
        .uponReplyInvoke([&freed](const sdbus::Error* error, VariantMap reply) {
          freed.set_value(error ? 0 : reply.at("VANTOR_AMOUNT").get<std::uint64_t>());
        });
  };
  auto takeQueued = [&service] {
    std::lock_guard lock(service->mutex);
    auto reply = std::move(service->queued.at(0));
    service->queued.clear();
    return reply;
  };
  const auto answer = [](std::uint64_t bytes) {
    return Value(Value::Dictionary{{"VANTOR_AMOUNT", Value(bytes)}});
  };

  std::promise<std::uint64_t> first;
  purge(first);
  ASSERT_TRUE(waitUntil([&] { return service->entered == 1; }, milliseconds(10'000)));
  kit::Service::DictionaryReply reply = takeQueued();
  reply(answer(1));
  EXPECT_EQ(first.get_future().get(), 1u);

  // The next purge arrives while the worker holds the lock, and the worker
  // lets go of the answered reply: that must not wait for the bus thread.
  std::promise<std::uint64_t> second;
  std::future<void> dropped;  // outlives the lock: it may be waiting for it
  {
    std::unique_lock held(service->mutex);
    purge(second);
    ASSERT_TRUE(waitUntil([&] { return service->entered == 2; }, milliseconds(10'000)));
    dropped = std::async(std::launch::async, [&reply] { reply = nullptr; });
    EXPECT_EQ(dropped.wait_for(seconds(10)), std::future_status::ready);
  }
  dropped.get();
  ASSERT_TRUE(waitUntil(
      [&] {
        std::lock_guard lock(service->mutex);
        return !service->queued.empty();
      },
      milliseconds(10'000)));
  takeQueued()(answer(2));
  EXPECT_EQ(second.get_future().get(), 2u);
}

}  // namespace
}  // namespace vantor::test
