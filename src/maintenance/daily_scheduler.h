#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <thread>

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

  void run(WallClock::time_point firstDue);
  // Sleeps until `due`; false when asked to stop.
  bool sleepUntil(WallClock::time_point due, WallClock::time_point* last);
  void runOnce();
  std::optional<WallClock::time_point> readStamp() const;
  void writeStamp(WallClock::time_point when) const;

  const std::filesystem::path stampFile_;
  const std::chrono::nanoseconds interval_;
  const Handler handler_;
  int timerFd_ = -1;
  int stopFd_ = -1;
  std::thread thread_;
};

// The daily interval: VANTOR_DAILY_INTERVAL_SECONDS (fractions allowed), else
// 86400 seconds.
std::chrono::nanoseconds dailyIntervalFromEnvironment();

}  // namespace vantor
