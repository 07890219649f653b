// The low-space monitor of the real daemon, driven by the documented
// variables: the LowSpace signal, the fixed purge, the repeat, and no event
// while nobody could purge or while the last one is still being handled.
// (Hysteresis and the order of events are asserted on VolumeCondition in
// maintenance_test.)

#include <mutex>

#include "common/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint64_t kFixedRequest = 262'144'000;  // 250 MiB
constexpr std::uint64_t kAlwaysLow = 1ULL << 60;      // above any disk's free space

// The daemon's environment when every volume is low (not very low), with
// `extra` besides.
std::map<std::string, std::string> lowEverywhere(std::map<std::string, std::string> extra) {
  extra.insert(
      {{"VANTOR_LOWDISK_BYTES", std::to_string(kAlwaysLow)}, {"VANTOR_VERYLOWDISK_BYTES", "0"}});
  return extra;
}

struct LowSpaceSignal {
  std::uint64_t available = 0;
  std::uint64_t threshold = 0;
  bool veryLow = false;
};

// Records the daemon's LowSpace signals for "/". Subscribed before the daemon
// starts, so the first poll's signal is not missed.
class LowSpaceSignals {
 public:
  explicit LowSpaceSignals(TestContext& ctx)
      : connection_(ctx.connect()),
        proxy_(sdbus::createProxy(*connection_, "com.tessaly.vantor", "/com/tessaly/vantor")) {
    proxy_->uponSignal("LowSpace")
        .onInterface("com.tessaly.vantor.Notify")
        .call([this](const std::string& volume, std::uint64_t available, std::uint64_t threshold,
                     bool veryLow) {
          std::lock_guard lock(mutex_);
          if (volume == "/")
            seen_.push_back({available, threshold, veryLow});
        });
    proxy_->finishRegistration();
  }

  std::vector<LowSpaceSignal> seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }
  bool waitForFirst() {
    return waitUntil([&] { return !seen().empty(); }, seconds(10));
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
  std::mutex mutex_;
  std::vector<LowSpaceSignal> seen_;
};

// While the volume stays low the event comes again once the repeat interval
// has passed, without another signal.
TEST(LowSpace, ALowVolumeIsAnnouncedOnceAndPurgedWithTheFixedRequestAgainAfterTheRepeat) {
  TestContext ctx;
  ctx.writeDescriptor("cache.plist",
                      Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.cache")}}));
  auto service = ctx.startService({"--id", "com.example.cache", "--own-name"});
  ASSERT_TRUE(service->waitForLine("ready", seconds(10)));
  LowSpaceSignals signals(ctx);
  ASSERT_TRUE(ctx.startDaemon(lowEverywhere(
      {{"VANTOR_LOWSPACE_POLL_SECONDS", "0.2"}, {"VANTOR_LOWSPACE_REPEAT_SECONDS", "1"}})));

  ASSERT_TRUE(signals.waitForFirst());
  const auto firstSignal = std::chrono::steady_clock::now();
  EXPECT_EQ(signals.seen()[0].threshold, kAlwaysLow);
  EXPECT_FALSE(signals.seen()[0].veryLow);
  EXPECT_GT(signals.seen()[0].available, 0u);

  // The fixed request, at urgency 1 first. The service is asked for what is
  // still missing: the volume's own noise may already have freed a little.
  EXPECT_TRUE(ctx.waitForLog(
      "info at start: {\"VANTOR_AMOUNT\" = 262144000; \"VANTOR_ASYNC\" = true;", seconds(10)));
  auto request = service->waitForLine("purge ", seconds(10));
  ASSERT_TRUE(request) << ctx.daemonLog();
  EXPECT_NE(request->find("\"VANTOR_VOLUME\" = \"/\""), std::string::npos) << *request;
  const auto asked = purgeRequests(*service).at(0);
  EXPECT_EQ(asked.first, 1);
  EXPECT_LE(asked.second, kFixedRequest);
  EXPECT_GT(asked.second, kFixedRequest - 64 * (1u << 20));
  EXPECT_TRUE(ctx.waitForLog("caught VQ_LOWDISK", seconds(5)));
  EXPECT_TRUE(ctx.waitForLog("/ is low on space: ", seconds(5)));

  EXPECT_TRUE(waitUntil([&] { return ctx.logCount("event for /,") >= 2; }, seconds(20)))
      << ctx.daemonLog();
  EXPECT_GE(std::chrono::steady_clock::now() - firstSignal, milliseconds(800));
  EXPECT_EQ(signals.seen().size(), 1u);
}

// With nobody to purge, a low volume raises no event: a purge would only
// hold operation_queue through its levels. The first purging service to check
// in is asked at once, not at the next poll.
TEST(LowSpace, AVolumeLowAtStartWaitsForAPurgingServiceAndAsksItAtItsCheckIn) {
  TestContext ctx;
  LowSpaceSignals signals(ctx);
  ASSERT_TRUE(ctx.startDaemonGranting(
      {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"},
      lowEverywhere({{"VANTOR_LOWSPACE_POLL_SECONDS", "60"}})));
  ASSERT_TRUE(signals.waitForFirst());

  // Queries answer meanwhile, and no purge has started.
  auto client = ctx.connect();
  const auto answer = callClient(*client, "ClientPurgeableSpace", {{"VANTOR_VOLUME", Value("/")}});
  EXPECT_NE(answer.find("VANTOR_TOTAL_AVAILABLE"), answer.end());
  EXPECT_EQ(ctx.logCount("event for /,"), 0u) << ctx.daemonLog();

  // Far sooner than the next poll, a minute after the first.
  auto service = ctx.startService({"--id", "com.example.cache", "--checkin", "--amount", "0"});
  ASSERT_TRUE(service->waitForLine("purge ", seconds(20))) << ctx.daemonLog();
  const auto asked = purgeRequests(*service).at(0);
  EXPECT_EQ(asked.first, 1);
  EXPECT_GT(asked.second, kFixedRequest - 64 * (1u << 20));
}

// An event's handling that waits on a silent service holds back the next
// event of that volume, however short the repeat: no events pile up.
TEST(LowSpace, AHandlerWaitingOnASilentServiceRunsOnceNotOncePerRepeat) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"},
                                      lowEverywhere({{"VANTOR_LOWSPACE_POLL_SECONDS", "0.2"},
                                                     {"VANTOR_LOWSPACE_REPEAT_SECONDS", "1"}})));
  auto service = ctx.startService({"--id", "com.example.silent", "--checkin", "--silent-purge"});
  ASSERT_TRUE(service->waitForLine("purge ", seconds(20))) << ctx.daemonLog();
  EXPECT_FALSE(waitUntil([&] { return ctx.logCount("event for /,") > 1; }, seconds(10)))
      << ctx.daemonLog();
  EXPECT_EQ(ctx.logCount("event for /,"), 1u);
}

}  // namespace
}  // namespace vantor::test
