// The daily run of the real daemon with a short VANTOR_DAILY_INTERVAL_SECONDS:
// who is asked, how often, and how the last run survives a restart.

#include "common/test_context.h"
#include "support/volumes.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

class DailyRun : public ::testing::Test {
 protected:
  // A descriptor service doing `kinds` ("PURGE", "PERIODIC"), started on its
  // bus name, so a restarted daemon still knows it.
  std::unique_ptr<ChildProcess> service(const std::string& id, std::vector<std::string> kinds,
                                        std::vector<std::string> extra = {}) {
    ctx_.writeDescriptor(id + ".plist",
                         Value(Value::Dictionary{
                             {"VANTOR_ID", Value(id)},
                             {"VANTOR_SERVICES", Value(Value::Array(kinds.begin(), kinds.end()))},
                         }));
    std::vector<std::string> args{"--id", id, "--own-name"};
    args.insert(args.end(), extra.begin(), extra.end());
    auto process = ctx_.startService(args);
    EXPECT_TRUE(process->waitForLine("ready", seconds(10)));
    return process;
  }

  TestContext ctx_;
};

TEST_F(DailyRun, AsksEveryPeriodicServiceOncePerVolumeAfterAnIntervalNotAtStartUp) {
  auto tidy = service("com.example.tidy", {"PERIODIC"});
  // Never answers within the test: its first request stays outstanding.
  auto slow = service("com.example.slow", {"PERIODIC"}, {"--delay-ms", "600000"});
  auto cache = service("com.example.cache", {"PURGE"});
  const auto volumes = getLocalVolumes();

  const auto start = Clock::now();
  ASSERT_TRUE(ctx_.startDaemon({{"VANTOR_DAILY_INTERVAL_SECONDS", "1.5"}}));

  // Two runs, each asking once per local volume, in list order, at urgency 3
  // and with the volume alone.
  for (int run = 0; run < 2; ++run) {
    for (const auto& volume : volumes) {
      auto line = tidy->waitForLine("periodic ", seconds(10));
      ASSERT_TRUE(line) << ctx_.daemonLog();
      EXPECT_EQ(
          *line,
          "periodic 3 " + Value(Value::Dictionary{{"VANTOR_VOLUME", Value(volume)}}).description());
      if (run == 0) {
        EXPECT_GE(Clock::now() - start, milliseconds(1400)) << "asked at start-up";
      }
    }
  }
  // The slow service was asked for the first volume of the first run only;
  // the purge-only service never.
  ASSERT_TRUE(slow->waitForLine("periodic 3 ", seconds(5)));
  EXPECT_FALSE(slow->waitForLine("periodic ", milliseconds(500)));
  EXPECT_FALSE(cache->waitForLine("periodic ", milliseconds(0)));
}

TEST_F(DailyRun, ARestartRightAfterARunWaitsAFullInterval) {
  auto tidy = service("com.example.tidy", {"PERIODIC"});
  const std::map<std::string, std::string> env{{"VANTOR_DAILY_INTERVAL_SECONDS", "3"}};
  ASSERT_TRUE(ctx_.startDaemon(env));
  ASSERT_TRUE(tidy->waitForLine("periodic ", seconds(10)));
  const auto firstRun = Clock::now();
  ASSERT_TRUE(ctx_.waitForLog("daily run started", seconds(5)));
  // Counted from the run, not the start-up, which was a full interval earlier.
  ASSERT_TRUE(ctx_.stopDaemon());
  ASSERT_TRUE(ctx_.startDaemon(env));

  ASSERT_TRUE(tidy->waitForLine("periodic ", seconds(10)));
  EXPECT_GE(Clock::now() - firstRun, milliseconds(2900));
}

TEST_F(DailyRun, ARunThatFellDueWhileTheDaemonWasDownRunsSoonAfterStart) {
  auto tidy = service("com.example.tidy", {"PERIODIC"});
  const auto twoDaysAgo = std::chrono::system_clock::now() - std::chrono::hours(48);
  ctx_.writeFile(ctx_.stateDir() / "daily-run",
                 std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(
                                    twoDaysAgo.time_since_epoch())
                                    .count()) +
                     "\n");
  ASSERT_TRUE(ctx_.startDaemon());  // the default interval of a day
  EXPECT_TRUE(tidy->waitForLine("periodic 3 ", seconds(20))) << ctx_.daemonLog();
}

}  // namespace
}  // namespace vantor::test
