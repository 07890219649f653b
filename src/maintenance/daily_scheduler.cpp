#include "maintenance/daily_scheduler.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/semaphore.h"
#include "platform/files/read_file.h"
#include "platform/files/write_file.h"
#include "support/log.h"
#include "support/low_space.h"

namespace vantor {

namespace {

constexpr char kName[] = "-[DailyScheduler]";
// How long a run that fell due while the daemon was down waits after start,
// so services starting with the daemon have checked in.
constexpr std::chrono::seconds kCatchUpDelay{5};
constexpr std::chrono::seconds kDefaultInterval{86400};

double seconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

}  // namespace

std::chrono::nanoseconds dailyIntervalFromEnvironment() {
  return secondsFrom("VANTOR_DAILY_INTERVAL_SECONDS", kDefaultInterval);
}

std::chrono::system_clock::time_point firstDailyRunDue(std::chrono::system_clock::time_point last,
                                                       std::chrono::system_clock::time_point now,
                                                       std::chrono::nanoseconds interval) {
  using Duration = std::chrono::system_clock::duration;
  // A stamp in the future (the clock was set back) counts as now.
  const auto due = std::min(last, now) + std::chrono::duration_cast<Duration>(interval);
  if (due > now)
    return due;
  return now + std::chrono::duration_cast<Duration>(
                   std::min<std::chrono::nanoseconds>(kCatchUpDelay, interval));
}

DailyScheduler::DailyScheduler(std::filesystem::path stampFile, std::chrono::nanoseconds interval,
                               Handler handler)
    : stampFile_(std::move(stampFile)), interval_(interval), handler_(std::move(handler)) {
  // The check-in call: the activity is known, no work is done.
  handler_(ActivityState::kCheckIn);

  const auto now = WallClock::now();
  auto last = readStamp();
  if (!last) {
    last = now;
    writeStamp(now);
  }
  due_ = firstDailyRunDue(*last, now, interval_);
  last_ = due_ - std::chrono::duration_cast<WallClock::duration>(interval_);

  if (const int error = timer_.creationError()) {
    VANTOR_LOG(3, "%s cannot schedule the daily run: %s", kName, std::strerror(error));
    return;
  }
  timer_.start([this](const dispatch::TimerSource::Wake& wake) { onWake(wake); },
               [](dispatch::TimerSource::Failure failure, int error) {
                 // A timer that cannot be read is armed again.
                 if (failure == dispatch::TimerSource::Failure::kPoll)
                   VANTOR_LOG(3, "%s poll failed: %s", kName, std::strerror(error));
               });
}

DailyScheduler::~DailyScheduler() {
  if (const int error = timer_.stop()) {
    // The thread cannot be told to stop; waiting for it would hang.
    VANTOR_LOG(3, "%s cannot stop the thread: %s", kName, std::strerror(error));
  }
}

void DailyScheduler::onWake(const dispatch::TimerSource::Wake& wake) {
  if (wake.started) {
    logNext();
  } else if (wake.expirations > 0) {
    runAndLogNext();
  } else if (wake.clockSet) {
    // The clock was set. A last run now in the future counts as now.
    const auto now = WallClock::now();
    if (last_ > now) {
      last_ = now;
      due_ = now + std::chrono::duration_cast<WallClock::duration>(interval_);
    }
  } else if (!wake.timer && !wake.timedOut) {
    return;
  }
  while (!armTimer())
    runAndLogNext();
}

void DailyScheduler::runAndLogNext() {
  last_ = WallClock::now();
  // A run that fails is logged; the runs after it still come.
  try {
    runOnce();
  } catch (const std::exception& e) {
    VANTOR_LOG(3, "%s the daily run failed: %s", kName, e.what());
  }
  due_ = last_ + std::chrono::duration_cast<WallClock::duration>(interval_);
  logNext();
}

void DailyScheduler::logNext() const {
  VANTOR_LOG(5, "%s next run in %f seconds", kName, seconds(due_ - WallClock::now()));
}

bool DailyScheduler::armTimer() {
  // Absolute wall-clock time: a suspended machine runs the overdue run on
  // waking. Setting the clock cancels the timer, so it is armed again.
  // Should the timer refuse, the scheduler wakes once a minute and looks
  // at the clock instead of waiting for good.
  const int error = timer_.armAt(due_.time_since_epoch(), dispatch::TimerSource::ClockSet::kCancel);
  if (error == 0)
    return true;
  VANTOR_LOG(3, "%s cannot set the timer of the daily run: %s", kName, std::strerror(error));
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due_ - WallClock::now());
  if (left.count() <= 0)
    return false;
  timer_.wakeAfter(std::min<std::chrono::milliseconds>(left, std::chrono::minutes(1)));
  return true;
}

void DailyScheduler::runOnce() {
  const auto started = WallClock::now();
  auto begun = std::make_shared<dispatch::Semaphore>();
  auto done = std::make_shared<dispatch::Semaphore>();
  Handler handler = handler_;
  dispatch::globalAsync([handler, begun, done] {
    // A handler that throws still ends its run (the pool logs the throw).
    dispatch::SignalOnExit finished(*done);
    begun->signal();
    handler(ActivityState::kRun);
  });
  begun->wait();
  writeStamp(started);
  VANTOR_LOG(5, "%s daily run started", kName);
  done->wait();
}

std::optional<DailyScheduler::WallClock::time_point> DailyScheduler::readStamp() const {
  std::error_code missing;
  if (!std::filesystem::exists(stampFile_, missing))
    return std::nullopt;
  std::string error;
  const auto bytes = readRegularFile(stampFile_, 64, &error);
  const std::string text = bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
  char* end = nullptr;
  const long long microseconds = std::strtoll(text.c_str(), &end, 10);
  if (!bytes || end == text.c_str() || (*end != '\0' && *end != '\n') || microseconds < 0) {
    VANTOR_LOG(3, "%s unreadable %s, counting the start as the last run", kName,
               stampFile_.c_str());
    return std::nullopt;
  }
  return WallClock::time_point{} + std::chrono::microseconds(microseconds);
}

void DailyScheduler::writeStamp(WallClock::time_point when) const {
  const std::string text =
      std::to_string(
          std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count()) +
      "\n";
  std::filesystem::path next = stampFile_;
  next += ".next";
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  if (const auto failure =
          replaceFile(stampFile_, next, bytes, {.mode = 0644, .narrowedByUmask = true})) {
    VANTOR_LOG(3, "%s cannot write %s: %s", kName, stampFile_.c_str(),
               std::strerror(failure->error));
  }
}

}  // namespace vantor
