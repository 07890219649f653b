// When the first daily run is due, given the last run's stamp and the clock;
// the runs go on past a run that throws.

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "common/test_context.h"
#include "maintenance/daily_scheduler.h"
#include "platform/dispatch/semaphore.h"

namespace vantor::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

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
                             const int run = ++runs;
                             if (run == 2)
                               secondRun.signal();
                             if (run == 1)
                               throw std::runtime_error("the first run fails");
                           });
  EXPECT_TRUE(secondRun.wait(dispatch::after(seconds(10))));
}

}  // namespace
}  // namespace vantor::test
