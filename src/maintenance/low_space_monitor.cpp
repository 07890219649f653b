#include "maintenance/low_space_monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
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

}  // namespace

VolumeCondition::Step VolumeCondition::sample(std::uint64_t available,
                                              const LowSpaceThresholds& thresholds,
                                              Clock::time_point now, Clock::duration repeat,
                                              bool canAct) {
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

  if (!low_ && !veryLow_) {
    owed_ = false;  // recovered before anybody could act: nothing is owed
  } else if (step.enteredFlags != 0) {
    owed_ = true;
  } else if (!outstanding_ && now - lastHandled_ >= repeat) {
    owed_ = true;  // the repeat, counted from the end of the last handling
  }
  if (owed_ && !outstanding_ && canAct) {
    step.eventFlags = step.enteredFlags != 0
                          ? step.enteredFlags
                          : (low_ ? kVqLowDisk : 0) | (veryLow_ ? kVqVeryLowDisk : 0);
    owed_ = false;
    outstanding_ = true;
  }
  return step;
}

void VolumeCondition::handled(Clock::time_point end) {
  // What was entered meanwhile waits for the repeat: the handling just ended
  // purged every volume that was low by then.
  owed_ = false;
  outstanding_ = false;
  lastHandled_ = end;
}

LowSpaceMonitor::LowSpaceMonitor(LowSpaceSettings settings, EventHandler handler,
                                 VolumeLister volumes, Gate canAct)
    : settings_(std::move(settings)),
      handler_(std::move(handler)),
      volumes_(volumes ? std::move(volumes) : VolumeLister(getLocalVolumes)),
      canAct_(canAct ? std::move(canAct) : Gate([] { return true; })),
      // The kernel flags an open mount table with POLLPRI once per change.
      mountsFd_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {
  if (const int error = timer_.creationError()) {
    VANTOR_LOG(3, "%s cannot watch free space: %s", kPoll, std::strerror(error));
    return;
  }
  if (const int error = timer_.armInterval(settings_.pollInterval)) {
    // Mount changes and wakes still poll; the interval's polls do not.
    VANTOR_LOG(3, "%s cannot set the poll timer: %s", kPoll, std::strerror(error));
  }
  // A missing mount table (no /proc) leaves a negative descriptor, which is
  // not watched: the timer alone then drives the polls.
  timer_.start([this](const dispatch::TimerSource::Wake& wake) { onWake(wake); },
               [](dispatch::TimerSource::Failure failure, int error) {
                 if (failure == dispatch::TimerSource::Failure::kPoll) {
                   VANTOR_LOG(3, "%s poll failed: %s", kPoll, std::strerror(error));
                 } else {
                   VANTOR_LOG(3, "%s cannot read a wake-up: %s", kPoll, std::strerror(error));
                 }
               },
               {mountsFd_, POLLPRI});
}

LowSpaceMonitor::~LowSpaceMonitor() {
  if (const int error = timer_.stop()) {
    // The thread cannot be told to stop; waiting for it would hang.
    VANTOR_LOG(3, "%s cannot stop the thread: %s", kPoll, std::strerror(error));
  }
  if (mountsFd_ >= 0)
    ::close(mountsFd_);
}

void LowSpaceMonitor::pollNow() {
  if (const int error = timer_.wake())
    VANTOR_LOG(3, "%s cannot wake the monitor: %s", kPoll, std::strerror(error));
}

void LowSpaceMonitor::onWake(const dispatch::TimerSource::Wake& wake) {
  // The first poll runs as the thread starts. A mount table change is seen
  // by the volume list, which reads the new table itself.
  if (wake.started || wake.timer || wake.watched || wake.woken)
    guardedPoll();
}

void LowSpaceMonitor::guardedPoll() {
  // Nothing thrown by one poll (an allocation, a handler that cannot hand
  // on) stops the watch: it is logged and the next poll comes as usual.
  try {
    pollVolumes();
  } catch (const std::exception& e) {
    VANTOR_LOG(3, "%s a poll failed: %s", kPoll, e.what());
  } catch (...) {
    VANTOR_LOG(3, "%s a poll failed", kPoll);
  }
}

void LowSpaceMonitor::applyHandled() {
  std::vector<Finished> finished;
  {
    std::lock_guard lock(finishedMutex_);
    finished.swap(finished_);
  }
  for (const auto& done : finished) {
    auto it = conditions_.find(done.volume);
    if (it != conditions_.end() && it->second.generation == done.generation)
      it->second.condition.handled(done.end);
  }
}

void LowSpaceMonitor::raise(const std::string& volume, std::uint64_t flags) {
  Watched& watched = conditions_[volume];
  const std::uint64_t generation = watched.generation;
  Handled handled = [this, volume, generation] {
    std::lock_guard lock(finishedMutex_);
    finished_.push_back({volume, generation, VolumeCondition::Clock::now()});
  };
  try {
    handler_(VolumeEvent{flags, volume}, handled);
  } catch (const std::exception& e) {
    // Not handed on: the volume must not wait for an end that never comes.
    VANTOR_LOG(3, "%s cannot hand on the event for %s: %s", kPoll, volume.c_str(), e.what());
    handled();
  }
}

void LowSpaceMonitor::pollVolumes() {
  applyHandled();
  const auto now = VolumeCondition::Clock::now();
  const std::vector<std::string> volumes = volumes_();
  if (volumes != watched_) {
    std::string list;
    for (const auto& volume : volumes)
      list += (list.empty() ? "" : ", ") + volume;
    VANTOR_LOG(5, "%s watching %s", kPoll, list.c_str());
    watched_ = volumes;
  }
  const bool canAct = canAct_();
  // Numbered from 1, so that 0 marks a volume no poll has seen yet.
  const std::uint64_t poll = polls_.load(std::memory_order_relaxed) + 1;
  for (const auto& volume : volumes) {
    Watched& watched = conditions_[volume];
    if (watched.lastPoll == poll)
      continue;  // listed twice
    if (watched.lastPoll == 0)
      watched.generation = ++generations_;
    watched.lastPoll = poll;
    const auto space = volumeSpace(volume);
    if (!space || space->size == 0)
      continue;
    const LowSpaceThresholds thresholds = thresholdsFor(space->size, settings_);
    const auto step = watched.condition.sample(space->available, thresholds, now,
                                               settings_.repeatInterval, canAct);
    if (step.enteredFlags != 0)
      announce(volume, *space, thresholds, step.enteredFlags);
    if (step.eventFlags != 0)
      raise(volume, step.eventFlags);
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
      3, "%s %s is %s on space: %llu bytes available of %llu, below %llu", kPoll, volume.c_str(),
      veryLow ? "very low" : "low", static_cast<unsigned long long>(space.available),
      static_cast<unsigned long long>(space.size), static_cast<unsigned long long>(threshold));
  if (notifyLowSpace(volume, space.available, threshold, veryLow) != 0) {
    VANTOR_LOG(3, "%s LowSpace signal not sent: %s", kPoll, std::strerror(errno));
  }
}

}  // namespace vantor
