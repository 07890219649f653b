// Purgeable-space queries against the real daemon and example services.

#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/clock/clock.h"
#include "platform/values/dbus_value.h"
#include "support/recent_info.h"
#include "support/test_context.h"
#include "support/volumes.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

constexpr std::uint64_t kMiB = 1 << 20;

class PurgeableQuery : public ::testing::Test {
 protected:
  void start(std::vector<std::string> names = {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT",
                                               "PURGEABLE_ENTITLEMENT",
                                               "ITEMIZED_PURGEABLE_ENTITLEMENT"}) {
    ctx_.grantUser("me.plist", ::getuid(), names);
    ASSERT_TRUE(ctx_.startDaemon());
    client_ = ctx_.connect();
    proxy_ = sdbus::createProxy(*client_, "com.tessaly.vantor", "/com/tessaly/vantor");
  }

  // Starts an example service that checks in and waits until it has.
  std::unique_ptr<ChildProcess> service(const std::string& id,
                                        std::vector<std::string> extra = {}) {
    std::vector<std::string> args{"--id", id, "--checkin"};
    args.insert(args.end(), extra.begin(), extra.end());
    auto process = ctx_.startService(args);
    EXPECT_TRUE(process->waitForLine("checked-in", seconds(10)));
    return process;
  }

  Value::Dictionary query(Value::Dictionary info, const char* method = "ClientPurgeableSpace") {
    VariantMap result;
    proxy_->callMethod(method)
        .onInterface("com.tessaly.vantor.Client")
        .withArguments(toVariantMap(info))
        .storeResultsTo(result);
    return fromVariantMap(result);
  }
  Value::Dictionary queryRoot(std::int64_t urgency = 0) {
    Value::Dictionary info{{"VANTOR_VOLUME", Value("/")}};
    if (urgency != 0)
      info.emplace("VANTOR_URGENCY", Value(urgency));
    return query(info);
  }

  std::size_t logCount(const std::string& text) const {
    const std::string log = ctx_.daemonLog();
    std::size_t n = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
      ++n;
    return n;
  }

  TestContext ctx_;
  std::unique_ptr<sdbus::IConnection> client_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

TEST_F(PurgeableQuery, SumsEveryServiceAndAnswersAgainFromTheCache) {
  start();
  auto a = service("com.example.a", {"--amount", std::to_string(kMiB)});
  auto b = service("com.example.b", {"--amount", std::to_string(2 * kMiB)});
  auto result = queryRoot();
  EXPECT_EQ(result["com.example.a"].uint64Value(), kMiB);
  EXPECT_EQ(result["com.example.b"].uint64Value(), 2 * kMiB);
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"], Value(std::int64_t{3 * kMiB}));
  EXPECT_EQ(result["VANTOR_VOLUME"], Value("/"));
  EXPECT_EQ(result.size(), 4u);
  ASSERT_TRUE(a->waitForLine("purgeable 3 ", seconds(5)));

  // Within the cache's life nobody is asked again, and the itemised request
  // gives the same answer.
  EXPECT_EQ(query({{"VANTOR_VOLUME", Value("/")}}, "ClientItemizedPurgeableSpace"), result);
  EXPECT_EQ(logCount("^^^asking com.example.a "), 1u) << ctx_.daemonLog();
  EXPECT_EQ(logCount("^^^asking com.example.b "), 1u);
}

TEST_F(PurgeableQuery, CountsADoNotQueryServiceFromTheCacheOnly) {
  ctx_.writeDescriptor("quiet.plist",
                       Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.quiet")},
                                               {"VANTOR_DO_NOT_QUERY", Value(true)}}));
  start();
  // A fresh cached answer for the quiet service, stored as the daemon stores it.
  auto quiet = VantorRecentServiceInfo::vantorRecentServiceInfo(Value(std::uint64_t{7 * kMiB}),
                                                                clock::now());
  auto volume = VantorRecentVolumeInfo::vantorRecentVolumeInfo(
      {{"com.example.quiet", quiet}}, volumeFreespace("/"), clock::now(), "/");
  auto archive = archiveRecentInfo(*VantorRecentInfo::vantorRecentInfo({{"/", volume}}));
  proxy_->callMethod("ClientSetState")
      .onInterface("com.tessaly.vantor.Client")
      .withArguments(toOptionalVariant(Value(archive)), std::string("VANTOR_RECENT_SERVICE_STATS"));

  auto result = queryRoot();
  EXPECT_EQ(result["com.example.quiet"].uint64Value(), 7 * kMiB);
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"].int64Value(), static_cast<std::int64_t>(7 * kMiB));
  EXPECT_EQ(logCount("^^^asking"), 0u);
}

TEST_F(PurgeableQuery, AnOptedOutServiceIsCountedOnceThenSkipped) {
  start();
  auto shy = service("com.example.shy", {"--opt-out", "--amount", std::to_string(kMiB)});
  EXPECT_EQ(queryRoot()["VANTOR_TOTAL_AVAILABLE"].int64Value(), static_cast<std::int64_t>(kMiB));
  ASSERT_TRUE(shy->waitForLine("purgeable", seconds(5)));

  // With the cache emptied the service would be asked again, but it opted out.
  proxy_->callMethod("ClientSetState")
      .onInterface("com.tessaly.vantor.Client")
      .withArguments(VariantArray{}, std::string("VANTOR_RECENT_SERVICE_STATS"));
  auto second = queryRoot();
  EXPECT_EQ(second.count("com.example.shy"), 0u);
  EXPECT_EQ(second["VANTOR_TOTAL_AVAILABLE"].int64Value(), 0);
  EXPECT_EQ(logCount("^^^asking com.example.shy"), 1u);
}

TEST_F(PurgeableQuery, ASlowServiceIsLeftBehindAndItsLateReplyIsCached) {
  start();
  auto fast = service("com.example.fast", {"--amount", std::to_string(kMiB)});
  auto slow = service("com.example.slow", {"--amount", std::to_string(kMiB), "--delay-ms", "1500"});
  auto result = queryRoot();
  EXPECT_EQ(result.count("com.example.slow"), 0u);
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"].int64Value(), static_cast<std::int64_t>(kMiB));
  EXPECT_EQ(logCount("maxExtensions"), 0u);
  EXPECT_EQ(logCount("^^^done waiting, inFlight[1]"), 1u) << ctx_.daemonLog();

  ASSERT_TRUE(ctx_.waitForLog("serviceID: com.example.slow : ", seconds(10)));
  auto later = queryRoot();
  EXPECT_EQ(later["com.example.slow"].uint64Value(), kMiB);
  EXPECT_EQ(logCount("^^^asking com.example.slow "), 1u);
}

TEST_F(PurgeableQuery, UrgencyFourExtendsTheWaitFiveTimes) {
  start();
  auto mute = service("com.example.mute", {"--silent"});
  auto result = queryRoot(4);
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"].int64Value(), 0);
  for (int left = 5; left >= 1; --left)
    EXPECT_EQ(logCount("maxExtensions: " + std::to_string(left)), 1u);
  EXPECT_EQ(logCount("maxExtensions"), 5u);

  // Still in flight: the next query makes no second call and waits again.
  queryRoot();
  EXPECT_EQ(logCount("^^^asking com.example.mute "), 1u);
  EXPECT_TRUE(mute->waitForLine("purgeable 4 ", seconds(5)));
}

TEST_F(PurgeableQuery, EachRequestNeedsItsOwnEntitlement) {
  start({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT"});
  auto a = service("com.example.a");
  EXPECT_TRUE(query({{"VANTOR_VOLUME", Value("/")}}).empty());
  auto itemized = query({{"VANTOR_VOLUME", Value("/")}}, "ClientItemizedPurgeableSpace");
  EXPECT_EQ(itemized.count("com.example.a"), 1u);
  EXPECT_TRUE(
      ctx_.waitForLog("clientPurgeableSpace:replyBlock:] Connection is not entitled!", seconds(5)));
}

TEST_F(PurgeableQuery, RefusedInfoComesBackAsTheErrorText) {
  start();
  auto error = [&](Value::Dictionary info) { return query(std::move(info))["VANTOR_ERROR"]; };
  EXPECT_EQ(error({}), Value("Parameter error, no Volume key in info dict"));
  EXPECT_EQ(error({{"VANTOR_VOLUME", Value(std::int64_t{5})}}),
            Value("Parameter error, no Volume key in info dict"));
  EXPECT_EQ(error({{"VANTOR_VOLUME", Value("/no/such/volume")}}),
            Value("Parameter error, Unable to validate volume in info dict"));
}

}  // namespace
}  // namespace vantor::test
