#include "maintenance/daily_scheduler.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
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
  // A stamp in the future (the clock was set back) counts as now.
  last = std::min(*last, now);
  auto due = *last + std::chrono::duration_cast<WallClock::duration>(interval_);
  if (due <= now)
    due = now + std::chrono::duration_cast<WallClock::duration>(
                    std::min<std::chrono::nanoseconds>(kCatchUpDelay, interval_));

  timerFd_ = ::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (timerFd_ < 0 || stopFd_ < 0) {
    VANTOR_LOG(3, "%s cannot schedule the daily run: %s", kName, std::strerror(errno));
    return;
  }
  thread_ = std::thread([this, due] { run(due); });
}

DailyScheduler::~DailyScheduler() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    if (::write(stopFd_, &one, sizeof one) == sizeof one) {
      thread_.join();
    } else {
      // The thread cannot be told to stop; waiting for it would hang.
      VANTOR_LOG(3, "%s cannot stop the thread: %s", kName, std::strerror(errno));
      thread_.detach();
    }
  }
  for (int fd : {timerFd_, stopFd_}) {
    if (fd >= 0)
      ::close(fd);
  }
}

void DailyScheduler::run(WallClock::time_point due) {
  auto last = due - std::chrono::duration_cast<WallClock::duration>(interval_);
  for (;;) {
    VANTOR_LOG(5, "%s next run in %f seconds", kName, seconds(due - WallClock::now()));
    if (!sleepUntil(due, &last))
      return;
    last = WallClock::now();
    // A run that fails is logged; the runs after it still come.
    try {
      runOnce();
    } catch (const std::exception& e) {
      VANTOR_LOG(3, "%s the daily run failed: %s", kName, e.what());
    }
    due = last + std::chrono::duration_cast<WallClock::duration>(interval_);
  }
}

bool DailyScheduler::sleepUntil(WallClock::time_point due, WallClock::time_point* last) {
  for (;;) {
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::max(due, WallClock::time_point{} + std::chrono::nanoseconds(1)).time_since_epoch());
    itimerspec timer{};
    timer.it_value.tv_sec = static_cast<time_t>(sinceEpoch.count() / 1'000'000'000);
    timer.it_value.tv_nsec = static_cast<long>(sinceEpoch.count() % 1'000'000'000);
    // Absolute wall-clock time: a suspended machine runs the overdue run on
    // waking. Setting the clock cancels the timer, so it is armed again.
    // Should the timer refuse, the scheduler wakes once a minute and looks
    // at the clock instead of waiting for good.
    int timeout = -1;
    if (::timerfd_settime(timerFd_, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &timer, nullptr) !=
        0) {
      VANTOR_LOG(3, "%s cannot set the timer of the daily run: %s", kName, std::strerror(errno));
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(due - WallClock::now());
      if (left.count() <= 0)
        return true;
      timeout = static_cast<int>(std::min<std::int64_t>(left.count(), 60'000));
    }
    pollfd fds[2] = {{timerFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    const int ready = ::poll(fds, 2, timeout);
    if (ready < 0) {
      if (errno == EINTR)
        continue;
      VANTOR_LOG(3, "%s poll failed: %s", kName, std::strerror(errno));
      return false;
    }
    if (ready == 0)
      continue;  // the minute's look at the clock
    if (fds[1].revents != 0)
      return false;
    std::uint64_t expirations = 0;
    if (::read(timerFd_, &expirations, sizeof expirations) == sizeof expirations)
      return true;
    if (errno == ECANCELED) {
      // The clock was set. A last run now in the future counts as now.
      const auto now = WallClock::now();
      if (*last > now) {
        *last = now;
        due = now + std::chrono::duration_cast<WallClock::duration>(interval_);
      }
    }
  }
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
    VANTOR_LOG(3, "%s unreadable %@, counting the start as the last run", kName,
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
    VANTOR_LOG(3, "%s cannot write %@: %s", kName, stampFile_.c_str(),
               std::strerror(failure->error));
  }
}

}  // namespace vantor
