// The low-space monitor of the real daemon: thresholds, purges, the LowSpace
// signal, hysteresis and the repeat, driven by the documented variables.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "common/test_context.h"
#include "support/low_space.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kGiB = 1ULL << 30;

struct LowSpaceSignal {
  std::string volume;
  std::uint64_t available = 0;
  std::uint64_t threshold = 0;
  bool veryLow = false;
};

// Records the daemon's LowSpace signals. Subscribed before the daemon starts,
// so the first poll's signal is not missed.
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
          seen_.push_back({volume, available, threshold, veryLow});
        });
    proxy_->finishRegistration();
  }

  // The signals for `volume` once there are `count` of them, or nullopt at
  // the deadline.
  std::optional<std::vector<LowSpaceSignal>> waitFor(const std::string& volume, std::size_t count,
                                                     milliseconds timeout) {
    std::vector<LowSpaceSignal> matching;
    const auto reached = [&] {
      std::lock_guard lock(mutex_);
      matching.clear();
      std::ranges::copy_if(seen_, std::back_inserter(matching),
                           [&](const auto& s) { return s.volume == volume; });
      return matching.size() >= count;
    };
    return waitUntil(reached, timeout) ? std::optional(matching) : std::nullopt;
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
  std::mutex mutex_;
  std::vector<LowSpaceSignal> seen_;
};

TEST(LowSpace, AVolumeBelowTheThresholdIsAnnouncedAndPurgedWithTheFixedRequest) {
  TestContext ctx;
  ctx.writeDescriptor("cache.plist",
                      Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.cache")}}));
  auto service = ctx.startService({"--id", "com.example.cache", "--own-name"});
  ASSERT_TRUE(service->waitForLine("ready", seconds(10)));
  LowSpaceSignals signals(ctx);

  constexpr std::uint64_t kThreshold = 1ULL << 60;  // above any disk's free space
  ASSERT_TRUE(ctx.startDaemon({{"VANTOR_LOWDISK_BYTES", std::to_string(kThreshold)},
                               {"VANTOR_VERYLOWDISK_BYTES", "0"},
                               {"VANTOR_LOWSPACE_POLL_SECONDS", "0.2"}}));

  auto announced = signals.waitFor("/", 1, milliseconds(10'000));
  ASSERT_TRUE(announced);
  EXPECT_EQ((*announced)[0].threshold, kThreshold);
  EXPECT_FALSE((*announced)[0].veryLow);
  EXPECT_GT((*announced)[0].available, 0u);

  // The fixed request of 250 MiB, at urgency 1 first. The service is asked
  // for what is still missing: the volume's own noise may already have
  // freed a little.
  EXPECT_TRUE(ctx.waitForLog(
      "info at start: {\"VANTOR_AMOUNT\" = 262144000; \"VANTOR_ASYNC\" = true;", seconds(10)));
  auto request = service->waitForLine("purge ", seconds(10));
  ASSERT_TRUE(request) << ctx.daemonLog();
  EXPECT_NE(request->find("\"VANTOR_VOLUME\" = \"/\""), std::string::npos) << *request;
  const auto asked = purgeRequests(*service).at(0);
  EXPECT_EQ(asked.first, 1);
  EXPECT_LE(asked.second, 262'144'000u);
  EXPECT_GT(asked.second, 262'144'000u - 64 * (1u << 20));
  EXPECT_TRUE(ctx.waitForLog("caught VQ_LOWDISK", seconds(5)));
  EXPECT_TRUE(ctx.waitForLog("/ is low on space: ", seconds(5)));
}

// With nobody to purge, a low volume raises no event: a purge would only
// hold operation_queue through its levels. The first purging service to check
// in is asked at once, not at the next poll.
TEST(LowSpace, AVolumeLowAtStartWaitsForAPurgingServiceAndAsksItAtItsCheckIn) {
  TestContext ctx;
  LowSpaceSignals signals(ctx);
  ASSERT_TRUE(ctx.startDaemonGranting(
      {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"},
      {{"VANTOR_LOWDISK_BYTES", std::to_string(1ULL << 60)},
       {"VANTOR_VERYLOWDISK_BYTES", "0"},
       {"VANTOR_LOWSPACE_POLL_SECONDS", "60"}}));
  ASSERT_TRUE(signals.waitFor("/", 1, milliseconds(10'000)));

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
  EXPECT_GT(asked.second, 262'144'000u - 64 * (1u << 20));
}

// An event's handling that waits on a silent service holds back the next
// event of that volume, however short the repeat: no events pile up.
TEST(LowSpace, AHandlerWaitingOnASilentServiceRunsOnceNotOncePerRepeat) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"},
                                      {{"VANTOR_LOWDISK_BYTES", std::to_string(1ULL << 60)},
                                       {"VANTOR_VERYLOWDISK_BYTES", "0"},
                                       {"VANTOR_LOWSPACE_POLL_SECONDS", "0.2"},
                                       {"VANTOR_LOWSPACE_REPEAT_SECONDS", "1"}}));
  auto service = ctx.startService({"--id", "com.example.silent", "--checkin", "--silent-purge"});
  ASSERT_TRUE(service->waitForLine("purge ", seconds(20))) << ctx.daemonLog();
  EXPECT_FALSE(waitUntil([&] { return ctx.logCount("event for /,") > 1; }, seconds(10)))
      << ctx.daemonLog();
  EXPECT_EQ(ctx.logCount("event for /,"), 1u);
}

// Free space moves around the threshold by allocating and removing a file
// on the volume that holds the test's directory.
TEST(LowSpace, CrossingBackAndForthFiresOnceUntilTheRepeat) {
  TestContext ctx;
  const auto dir = ctx.stateDir().parent_path();
  const std::string volume = volumeHolding(dir);
  if (volume.empty())
    GTEST_SKIP() << "the temporary directory is not on a local volume";
  const auto space = volumeSpace(volume);
  ASSERT_TRUE(space);
  if (space->available < 8 * kGiB)
    GTEST_SKIP() << "needs 8 GiB free on " << volume;

  // The line lies 1.5 GiB below the free space: a 3 GiB file takes the volume
  // under it, and removing the file brings it back above the line but not
  // above 1.25 × the line.
  const std::uint64_t threshold = space->available - 3 * kGiB / 2;
  constexpr auto kRepeat = seconds(4);
  constexpr auto kPoll = milliseconds(100);
  LowSpaceSignals signals(ctx);
  ASSERT_TRUE(ctx.startDaemonGranting({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"},
                                      {{"VANTOR_LOWDISK_BYTES", std::to_string(threshold)},
                                       {"VANTOR_VERYLOWDISK_BYTES", "0"},
                                       {"VANTOR_LOWSPACE_POLL_SECONDS", "0.1"},
                                       {"VANTOR_LOWSPACE_REPEAT_SECONDS", "4"}}));
  ASSERT_TRUE(ctx.waitForLog("watching ", seconds(5)));
  // Somebody to purge, who frees nothing and answers at once.
  auto service = checkedInService(ctx, "com.example.cache", {"--amount", "0"});

  // Above the line nothing happens.
  const std::string eventLine = "event for " + volume + ",";
  EXPECT_FALSE(signals.waitFor(volume, 1, 5 * kPoll)) << ctx.daemonLog();

  const auto ballast = dir / "ballast";
  auto fill = [&] {
    const int fd = ::open(ballast.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::fallocate(fd, 0, 0, 3 * kGiB), 0);
    ::close(fd);
  };
  fill();
  ASSERT_TRUE(signals.waitFor(volume, 1, seconds(5))) << ctx.daemonLog();
  const auto firstEvent = Clock::now();

  // Back and forth across the line, each state held for a few polls.
  for (int i = 0; i < 3; ++i) {
    std::filesystem::remove(ballast);
    std::this_thread::sleep_for(3 * kPoll);
    fill();
    std::this_thread::sleep_for(3 * kPoll);
  }
  ASSERT_LT(Clock::now() - firstEvent, kRepeat - seconds(1));
  EXPECT_EQ(ctx.logCount(eventLine), 1u) << ctx.daemonLog();

  // While the volume stays low the event comes again after the repeat
  // interval, without another signal.
  ASSERT_TRUE(waitUntil([&] { return ctx.logCount(eventLine) >= 2; }, seconds(10)))
      << ctx.daemonLog();
  EXPECT_GE(Clock::now() - firstEvent, kRepeat - milliseconds(200));
  EXPECT_EQ(ctx.logCount(eventLine), 2u);
  EXPECT_EQ(signals.waitFor(volume, 1, milliseconds(0))->size(), 1u);
  std::filesystem::remove(ballast);
}

}  // namespace
}  // namespace vantor::test
