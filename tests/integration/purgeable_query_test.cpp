// Purgeable-space queries against the real daemon and example services.

#include <limits>

#include "common/test_context.h"
#include "platform/clock/clock.h"
#include "support/recent_info.h"
#include "support/volumes.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

constexpr std::uint64_t kMiB = 1 << 20;

class PurgeableQuery : public ClientTest {
 protected:
  void start() {
    ClientTest::start({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT",
                       "ITEMIZED_PURGEABLE_ENTITLEMENT"});
  }

  Value::Dictionary query(const Value::Dictionary& info) {
    return callClient(*client_, "ClientPurgeableSpace", info);
  }
  Value::Dictionary queryRoot() { return query({{"VANTOR_VOLUME", Value("/")}}); }
};

TEST_F(PurgeableQuery, SumsEveryServiceAndAnswersAgainFromTheCache) {
  start();
  auto a = checkedInService(ctx_, "com.example.a", {"--amount", std::to_string(kMiB)});
  auto b = checkedInService(ctx_, "com.example.b", {"--amount", std::to_string(2 * kMiB)});
  auto result = queryFromCache({"com.example.a", "com.example.b"});
  EXPECT_EQ(result["com.example.a"].uint64Value(), kMiB);
  EXPECT_EQ(result["com.example.b"].uint64Value(), 2 * kMiB);
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"], Value(std::int64_t{3 * kMiB}));
  EXPECT_EQ(result["VANTOR_VOLUME"], Value("/"));
  EXPECT_EQ(result.size(), 4u);
  ASSERT_TRUE(a->waitForLine("purgeable 3 ", seconds(5)));

  // The itemised request gives the same answer.
  EXPECT_EQ(queryFromCache({"com.example.a", "com.example.b"}, "ClientItemizedPurgeableSpace"),
            result);
}

TEST_F(PurgeableQuery, TheTotalSaturatesInsteadOfOverflowingAndRefusedInfoGetsTheErrorText) {
  start();
  auto a = checkedInService(ctx_, "com.example.a", {"--amount", "9223372036854775000"});
  auto b = checkedInService(ctx_, "com.example.b", {"--amount", "9223372036854775000"});
  auto result = queryFromCache({"com.example.a", "com.example.b"});
  EXPECT_EQ(result["com.example.a"], Value(std::uint64_t{9223372036854775000ULL}));
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"], Value(std::numeric_limits<std::int64_t>::max()));

  // Refused info: the answer is the error text alone; only local volumes
  // count.
  const std::vector<std::pair<Value::Dictionary, std::string>> cases = {
      {{}, "no Volume key in info dict"},
      {{{"VANTOR_VOLUME", Value(std::int64_t{5})}}, "no Volume key in info dict"},
      {{{"VANTOR_VOLUME", Value("/no/such/volume")}}, "Unable to validate volume in info dict"},
      {{{"VANTOR_VOLUME", Value("/proc")}}, "Unable to validate volume in info dict"},
  };
  for (const auto& [info, error] : cases) {
    EXPECT_EQ(query(info),
              (Value::Dictionary{{"VANTOR_ERROR", Value("Parameter error, " + error)}}))
        << Value(info).description();
  }
  EXPECT_TRUE(ctx_.waitForLog(
      "<3>Vantor: -[Vantor _checkInfo:] Unable to validate volume: /no/such/volume", seconds(5)));
  // Info that is no dictionary never reaches the daemon's checks.
  EXPECT_EQ(callForError(*client_, "ClientPurgeableSpace",
                         [](sdbus::MethodCall& call) { call << std::string("not a dict"); }),
            "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(PurgeableQuery, CountsADoNotQueryServiceFromTheCacheOnly) {
  ctx_.writeDescriptor("quiet.plist",
                       Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.quiet")},
                                               {"VANTOR_DO_NOT_QUERY", Value(true)}}));
  start();
  // A fresh cached answer for the quiet service, stored as the daemon stores
  // it. Other work on the volume may move its free space past the cache's
  // tolerance before the query; the record is then stored afresh.
  Value::Dictionary result;
  for (int attempt = 0; attempt < 5 && result["com.example.quiet"].uint64Value() == 0; ++attempt) {
    auto quiet = VantorRecentServiceInfo::vantorRecentServiceInfo(Value(std::uint64_t{7 * kMiB}),
                                                                  clock::now());
    auto volume = VantorRecentVolumeInfo::vantorRecentVolumeInfo(
        {{"com.example.quiet", quiet}}, volumeFreespace("/"), clock::now(), "/");
    auto archive = archiveRecentInfo(*VantorRecentInfo::vantorRecentInfo({{"/", volume}}));
    ASSERT_EQ(setState(*client_, "VANTOR_RECENT_SERVICE_STATS", Value(archive)), "");
    result = queryRoot();
  }
  EXPECT_EQ(result["com.example.quiet"].uint64Value(), 7 * kMiB);
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"].int64Value(), static_cast<std::int64_t>(7 * kMiB));
  EXPECT_EQ(ctx_.logCount("^^^asking"), 0u);
}

TEST_F(PurgeableQuery, AnOptedOutServiceIsCountedOnceThenSkipped) {
  start();
  auto shy =
      checkedInService(ctx_, "com.example.shy", {"--opt-out", "--amount", std::to_string(kMiB)});
  EXPECT_EQ(queryFromCache({"com.example.shy"})["VANTOR_TOTAL_AVAILABLE"].int64Value(),
            static_cast<std::int64_t>(kMiB));
  ASSERT_TRUE(shy->waitForLine("purgeable", seconds(5)));

  // With the cache emptied the service would be asked again, but it opted out.
  ASSERT_EQ(setState(*client_, "VANTOR_RECENT_SERVICE_STATS", Value()), "");
  auto second = queryRoot();
  EXPECT_EQ(second.count("com.example.shy"), 0u);
  EXPECT_EQ(second["VANTOR_TOTAL_AVAILABLE"].int64Value(), 0);
  EXPECT_EQ(ctx_.logCount("^^^asking com.example.shy"), 1u);
}

TEST_F(PurgeableQuery, ASlowServiceIsLeftBehindAndItsLateReplyIsCached) {
  start();
  auto fast = checkedInService(ctx_, "com.example.fast", {"--amount", std::to_string(kMiB)});
  auto slow = checkedInService(ctx_, "com.example.slow",
                               {"--amount", std::to_string(kMiB), "--delay-ms", "1500"});
  auto result = queryRoot();
  EXPECT_EQ(result.count("com.example.slow"), 0u);
  EXPECT_EQ(ctx_.logCount("maxExtensions"), 0u);
  EXPECT_EQ(ctx_.logCount("^^^done waiting, inFlight["), 1u) << ctx_.daemonLog();

  ASSERT_TRUE(ctx_.waitForLog("serviceID: com.example.fast : ", seconds(10)));
  ASSERT_TRUE(ctx_.waitForLog("serviceID: com.example.slow : ", seconds(10)));
  auto later = queryFromCache({"com.example.fast", "com.example.slow"});
  EXPECT_EQ(later["com.example.slow"].uint64Value(), kMiB);
  EXPECT_EQ(later["VANTOR_TOTAL_AVAILABLE"].int64Value(), static_cast<std::int64_t>(2 * kMiB));
}

TEST_F(PurgeableQuery, UrgencyFourExtendsTheWaitFiveTimes) {
  start();
  auto mute = checkedInService(ctx_, "com.example.mute", {"--silent"});
  auto result = query({{"VANTOR_VOLUME", Value("/")}, {"VANTOR_URGENCY", Value(4)}});
  EXPECT_EQ(result["VANTOR_TOTAL_AVAILABLE"].int64Value(), 0);
  for (int left = 5; left >= 1; --left)
    EXPECT_EQ(ctx_.logCount("maxExtensions: " + std::to_string(left)), 1u);
  EXPECT_EQ(ctx_.logCount("maxExtensions"), 5u);

  // Still in flight: the next query makes no second call and waits again.
  queryRoot();
  EXPECT_EQ(ctx_.logCount("^^^asking com.example.mute "), 1u);
  EXPECT_TRUE(mute->waitForLine("purgeable 4 ", seconds(5)));
}

}  // namespace
}  // namespace vantor::test
