#include "maintenance/low_space_monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "support/listener.h"
#include "support/log.h"
#include "support/volumes.h"

namespace vantor {

namespace {

constexpr char kPoll[] = "-[LowSpaceMonitor poll]";

// Whether `available` is back above 1.25 × `threshold`.
bool recovered(std::uint64_t available, std::uint64_t threshold) {
  return available > threshold + threshold / 4;
}

timespec toTimespec(std::chrono::nanoseconds interval) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(interval);
  return timespec{static_cast<time_t>(seconds.count()),
                  static_cast<long>((interval - seconds).count())};
}

}  // namespace

VolumeCondition::Step VolumeCondition::sample(std::uint64_t available,
                                              const LowSpaceThresholds& thresholds,
                                              Clock::time_point now, Clock::duration repeat) {
  if (low_ && recovered(available, thresholds.low))
    low_ = false;
  if (veryLow_ && recovered(available, thresholds.veryLow))
    veryLow_ = false;

  Step step;
  const std::uint64_t below = lowSpaceFlags(available, thresholds);
  if ((below & kVqLowDisk) != 0 && !low_)
    step.enteredFlags |= kVqLowDisk;
  if ((below & kVqVeryLowDisk) != 0 && !veryLow_)
    step.enteredFlags |= kVqVeryLowDisk;
  low_ = low_ || (step.enteredFlags & kVqLowDisk) != 0;
  veryLow_ = veryLow_ || (step.enteredFlags & kVqVeryLowDisk) != 0;

  if (step.enteredFlags != 0) {
    step.eventFlags = step.enteredFlags;
    lastEvent_ = now;
  } else if ((low_ || veryLow_) && now - lastEvent_ >= repeat) {
    step.eventFlags = (low_ ? kVqLowDisk : 0) | (veryLow_ ? kVqVeryLowDisk : 0);
    lastEvent_ = now;
  }
  return step;
}

LowSpaceMonitor::LowSpaceMonitor(LowSpaceSettings settings, EventHandler handler,
                                 VolumeLister volumes)
    : settings_(std::move(settings)),
      handler_(std::move(handler)),
      volumes_(volumes ? std::move(volumes) : VolumeLister(getLocalVolumes)) {
  timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  // The kernel flags an open mount table with POLLPRI once per change.
  mountsFd_ = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  if (timerFd_ >= 0) {
    const timespec interval = toTimespec(settings_.pollInterval);
    const itimerspec timer{interval, interval};
    ::timerfd_settime(timerFd_, 0, &timer, nullptr);
  }
  if (timerFd_ < 0 || stopFd_ < 0) {
    VANTOR_LOG(3, "%s cannot watch free space: %s", kPoll, std::strerror(errno));
    return;
  }
  thread_ = std::thread([this] { run(); });
}

LowSpaceMonitor::~LowSpaceMonitor() {
  if (thread_.joinable()) {
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t ignored = ::write(stopFd_, &one, sizeof one);
    thread_.join();
  }
  for (int fd : {timerFd_, mountsFd_, stopFd_}) {
    if (fd >= 0)
      ::close(fd);
  }
}

std::chrono::nanoseconds LowSpaceMonitor::threadCpuTime() const {
  clockid_t clock;
  timespec used{};
  if (!thread_.joinable() ||
      pthread_getcpuclockid(const_cast<std::thread&>(thread_).native_handle(), &clock) != 0 ||
      ::clock_gettime(clock, &used) != 0) {
    return {};
  }
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

void LowSpaceMonitor::run() {
  pollVolumes();
  // A missing mount table (no /proc) leaves a negative descriptor, which
  // poll() ignores: the timer alone then drives the polls.
  pollfd fds[3] = {{timerFd_, POLLIN, 0}, {mountsFd_, POLLPRI, 0}, {stopFd_, POLLIN, 0}};
  // Clears a change mark older than the volume list just read.
  ::poll(&fds[1], 1, 0);
  for (;;) {
    if (::poll(fds, 3, -1) < 0) {
      if (errno == EINTR)
        continue;
      VANTOR_LOG(3, "%s poll failed: %s", kPoll, std::strerror(errno));
      return;
    }
    if (fds[2].revents != 0)
      return;
    if (fds[0].revents != 0) {
      std::uint64_t expirations = 0;
      [[maybe_unused]] ssize_t ignored = ::read(timerFd_, &expirations, sizeof expirations);
    }
    // Polling the mount table clears its change mark; the volume list reads
    // the new table itself.
    if (fds[0].revents != 0 || fds[1].revents != 0)
      pollVolumes();
  }
}

void LowSpaceMonitor::pollVolumes() {
  const auto now = VolumeCondition::Clock::now();
  const std::vector<std::string> volumes = volumes_();
  if (volumes != watched_) {
    std::string list;
    for (const auto& volume : volumes)
      list += (list.empty() ? "" : ", ") + volume;
    VANTOR_LOG(5, "%s watching %@", kPoll, list.c_str());
    watched_ = volumes;
  }
  // Numbered from 1, so that 0 marks a volume no poll has seen yet.
  const std::uint64_t poll = polls_.load(std::memory_order_relaxed) + 1;
  for (const auto& volume : volumes) {
    Watched& watched = conditions_[volume];
    if (watched.lastPoll == poll)
      continue;  // listed twice
    watched.lastPoll = poll;
    const auto space = volumeSpace(volume);
    if (!space || space->size == 0)
      continue;
    const LowSpaceThresholds thresholds = thresholdsFor(space->size, settings_);
    const auto step =
        watched.condition.sample(space->available, thresholds, now, settings_.repeatInterval);
    if (step.enteredFlags != 0)
      announce(volume, *space, thresholds, step.enteredFlags);
    if (step.eventFlags != 0)
      handler_(VolumeEvent{step.eventFlags, volume});
  }
  // Volumes that went away start afresh should they come back.
  std::erase_if(conditions_, [poll](const auto& entry) { return entry.second.lastPoll != poll; });
  polls_.fetch_add(1, std::memory_order_relaxed);
}

void LowSpaceMonitor::announce(const std::string& volume, const VolumeSpace& space,
                               const LowSpaceThresholds& thresholds, std::uint64_t entered) const {
  // One announcement per sample, for the graver condition entered.
  const bool veryLow = (entered & kVqVeryLowDisk) != 0;
  const std::uint64_t threshold = veryLow ? thresholds.veryLow : thresholds.low;
  VANTOR_LOG(
      3, "%s %@ is %s on space: %llu bytes available of %llu, below %llu", kPoll, volume.c_str(),
      veryLow ? "very low" : "low", static_cast<unsigned long long>(space.available),
      static_cast<unsigned long long>(space.size), static_cast<unsigned long long>(threshold));
  if (notifyLowSpace(volume, space.available, threshold, veryLow) != 0) {
    VANTOR_LOG(3, "%s LowSpace signal not sent: %s", kPoll, std::strerror(errno));
  }
}

}  // namespace vantor
