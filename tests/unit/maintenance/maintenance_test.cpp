// The maintenance subsystem's decisions. When a volume raises a low-space
// event: hysteresis, the repeat counted from the end of handling, one event at
// a time, and none while nobody can act. What handling a low-disk event
// purges and counts. (The fixed request, the signal and the repeat are
// asserted against the real daemon in low_space_test.) When the first daily
// run is due, given the last run's stamp and the clock; the runs go on past a
// run that throws.

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "common/test_context.h"
#include "maintenance/daily_scheduler.h"
#include "maintenance/low_disk.h"
#include "maintenance/low_space_monitor.h"
#include "platform/dispatch/semaphore.h"

namespace vantor::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(VolumeCondition, RaisesOneEventAtATimeAndOnlyWhenSomebodyCanAct) {
  const LowSpaceThresholds thresholds{1000, 200};
  const auto repeat = seconds(10);
  const VolumeCondition::Clock::time_point t0{};
  VolumeCondition condition;
  struct Sample {
    int at;  // seconds after t0; a negative time marks handling ended at -at
    std::uint64_t available;
    bool canAct;
    std::uint64_t event;
    bool low, veryLow;
  };
  const Sample samples[] = {
      {0, 5000, true, 0, false, false},
      {1, 900, false, 0, true, false},   // low, but nobody could act: owed
      {2, 900, true, 0x4, true, false},  // the owed event, as soon as one can
      {3, 150, true, 0, true, true},     // very low, but one event is outstanding
      {-4, 0, true, 0, true, true},      // handled at 4 s
      {5, 150, true, 0, true, true},     // the repeat counts from 4 s
      {14, 150, true, 0x204, true, true},
      {-14, 0, true, 0, true, true},
      {15, 1100, true, 0, true, false},  // above very low × 1.25, not above low × 1.25
      {16, 1300, true, 0, false, false},
      {17, 900, false, 0, true, false},   // entered with nobody to act...
      {18, 1300, true, 0, false, false},  // ...and recovered first: nothing is owed
      {19, 900, true, 0x4, true, false},
  };
  for (const auto& s : samples) {
    SCOPED_TRACE(s.at);
    if (s.at < 0) {
      condition.handled(t0 + seconds(-s.at));
      continue;
    }
    const auto step =
        condition.sample(s.available, thresholds, t0 + seconds(s.at), repeat, s.canAct);
    EXPECT_EQ(step.eventFlags, s.event);
    EXPECT_EQ(condition.low(), s.low);
    EXPECT_EQ(condition.veryLow(), s.veryLow);
  }
}

// The flags name the statistic, the low-disk bit tested first, and an event
// that names neither still counts; the low volumes, not the flags, decide
// what is purged, in order. With no volume low nothing is purged or counted.
TEST(LowDiskEvent, PurgesEveryLowVolumeInOrderAndCountsTheEventByItsFlags) {
  using Counted = std::vector<std::optional<std::string>>;
  const std::vector<std::string> both = {"/", "/data"};
  const struct {
    std::uint64_t flags;
    std::vector<std::string> low;
    Counted counted;
  } cases[] = {
      {0x204, both, {"VT_LOWDISK_EVENT"}},
      {0x200, both, {"VT_VERYLOWDISK_EVENT"}},
      {0, both, {std::nullopt}},
      {0x200, {}, {}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> purged;
    Counted counted;
    handleLowDiskEvent(VolumeEvent{c.flags, "/"},
                       LowDiskActions{
                           [&] { return c.low; },
                           [&](const Value& request) {
                             purged.push_back(*request.find("VANTOR_VOLUME")->asString());
                           },
                           [&](const std::optional<std::string>& s) { counted.push_back(s); },
                       });
    EXPECT_EQ(purged, c.low) << c.flags;
    EXPECT_EQ(counted, c.counted) << c.flags;
  }
}

TEST(DailyScheduler, TheFirstRunIsDueAnIntervalAfterTheLastOrSoonAfterStartWhenOverdue) {
  const std::chrono::system_clock::time_point now{hours(500'000)};
  struct Case {
    const char* what;
    std::chrono::nanoseconds sinceLast;  // now minus the last run
    std::chrono::nanoseconds interval;
    std::chrono::nanoseconds dueIn;  // the due time minus now
  };
  const Case cases[] = {
      {"no stamp: the start-up counts as the last run", {}, hours(24), hours(24)},
      {"a run an hour ago", hours(1), hours(24), hours(23)},
      {"a second before due", hours(24) - seconds(1), hours(24), seconds(1)},
      {"due this very moment", hours(24), hours(24), seconds(5)},
      {"overdue by two days", hours(72), hours(24), seconds(5)},
      {"overdue, with an interval shorter than the delay", seconds(3), milliseconds(1500),
       milliseconds(1500)},
      {"a stamp in the future counts as now", -hours(30), hours(24), hours(24)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto last =
        now - std::chrono::duration_cast<std::chrono::system_clock::duration>(c.sinceLast);
    EXPECT_EQ(firstDailyRunDue(last, now, c.interval) - now, c.dueIn);
  }
}

TEST(DailyScheduler, ARunThatThrowsDoesNotStopTheNextRun) {
  TempDir dir;
  std::atomic<int> runs{0};
  dispatch::Semaphore secondRun;
  DailyScheduler scheduler(dir.path() / "daily-run", std::chrono::milliseconds(50),
                           [&](ActivityState state) {
                             if (state != ActivityState::kRun)
                               return;
                             if (++runs == 1)
                               throw std::runtime_error("the first run fails");
                             secondRun.signal();
                           });
  EXPECT_TRUE(secondRun.wait(dispatch::after(seconds(10))));
}

}  // namespace
}  // namespace vantor::test
