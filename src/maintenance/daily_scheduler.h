#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>

#include "platform/dispatch/timer_source.h"

namespace vantor {

enum class ActivityState { kCheckIn, kRun };

// Calls a handler once per interval, and keeps the wall-clock time of the last
// run in a stamp file so that a restart neither repeats nor skips a run.
//
// The next run is due one interval after the last. One that fell due while
// the process was down runs a few seconds after start (never more than one
// interval). Without a readable stamp the start counts as the last run, and is
// written down as such. The stamp is replaced atomically (temporary file and
// rename) as soon as a run has started; it is not fsynced, so a power failure
// may cost the last stamp and repeat that run once.
//
// Registration calls the handler with kCheckIn on the caller's thread; it is
// expected to do no work then. Each run calls it with kRun on a pool thread;
// runs never overlap. One thread of its own sleeps in poll() on a timer set
// to the wall-clock time the run is due (re-armed when the clock is set) and
// on a stop descriptor.
class DailyScheduler {
 public:
  using Handler = std::function<void(ActivityState)>;

  DailyScheduler(std::filesystem::path stampFile, std::chrono::nanoseconds interval,
                 Handler handler);
  // Stops the thread, after the run in progress if there is one.
  ~DailyScheduler();
  DailyScheduler(const DailyScheduler&) = delete;
  DailyScheduler& operator=(const DailyScheduler&) = delete;

 private:
  using WallClock = std::chrono::system_clock;

  void onWake(const dispatch::TimerSource::Wake& wake);
  // Runs now, then logs when the next run is due.
  void runAndLogNext();
  void logNext() const;
  // Arms the timer for `due_`; false when it cannot be armed and the run is
  // due already.
  bool armTimer();
  void runOnce();
  std::optional<WallClock::time_point> readStamp() const;
  void writeStamp(WallClock::time_point when) const;

  const std::filesystem::path stampFile_;
  const std::chrono::nanoseconds interval_;
  const Handler handler_;
  // The scheduler's thread's own: when the last run started, and when the
  // next is due.
  WallClock::time_point last_;
  WallClock::time_point due_;
  // Its thread is the scheduler's thread.
  dispatch::TimerSource timer_{CLOCK_REALTIME};
};

// When the first run is due, given when the last one started (the start-up
// itself when no stamp could be read) and the time now: one interval after
// the last run, a last run in the future counting as now. A run that fell due
// before now is due 5 seconds from now, or one interval if that is shorter.
std::chrono::system_clock::time_point firstDailyRunDue(std::chrono::system_clock::time_point last,
                                                       std::chrono::system_clock::time_point now,
                                                       std::chrono::nanoseconds interval);

// The daily interval: VANTOR_DAILY_INTERVAL_SECONDS (fractions allowed), else
// 86400 seconds.
std::chrono::nanoseconds dailyIntervalFromEnvironment();

}  // namespace vantor
