#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/low_space.h"

namespace vantor {

// One volume's low-space condition, with hysteresis: it enters low (very low)
// when its available bytes fall below the threshold, and leaves only when
// they are back above 1.25 × the threshold, so space moving around the line
// does not fire again and again.
class VolumeCondition {
 public:
  using Clock = std::chrono::steady_clock;

  // What one sample of the volume calls for.
  struct Step {
    std::uint64_t eventFlags = 0;    // "_Flags" of the event to synthesise; 0 for none
    std::uint64_t enteredFlags = 0;  // the conditions entered by this sample
  };

  // Takes one sample: an event when the volume enters low or very low (its
  // flags are the conditions entered), and again every `repeat` while it
  // stays in either (its flags are the conditions it is in).
  Step sample(std::uint64_t available, const LowSpaceThresholds& thresholds, Clock::time_point now,
              Clock::duration repeat);

  bool low() const { return low_; }
  bool veryLow() const { return veryLow_; }

 private:
  bool low_ = false;
  bool veryLow_ = false;
  Clock::time_point lastEvent_{};
};

// Watches every local volume's free space and synthesises a VolumeEvent when
// one enters low or very low space, and again while it stays there.
//
// One thread of its own sleeps in poll() on a timer that fires every poll
// interval, on the mount table (which wakes it at once when a volume comes or
// goes) and on a stop descriptor; it wakes for nothing else. Each wake is one
// statvfs per volume. The per-volume conditions belong to that thread alone.
// On entering low or very low it also emits the LowSpace signal and logs one
// level-3 line with the figures; `handler` is called on the monitor's thread
// and must hand the event on rather than work on it there.
class LowSpaceMonitor {
 public:
  using EventHandler = std::function<void(const VolumeEvent&)>;
  using VolumeLister = std::function<std::vector<std::string>()>;

  // Starts watching at once; the first poll runs when the thread starts.
  // `volumes` lists what to watch (default: the local volumes).
  LowSpaceMonitor(LowSpaceSettings settings, EventHandler handler, VolumeLister volumes = {});
  // Stops the thread and waits for it.
  ~LowSpaceMonitor();
  LowSpaceMonitor(const LowSpaceMonitor&) = delete;
  LowSpaceMonitor& operator=(const LowSpaceMonitor&) = delete;

  // The CPU time the monitor's thread has used so far (for the benchmark).
  std::chrono::nanoseconds threadCpuTime() const;
  // Polls completed so far.
  std::uint64_t polls() const { return polls_.load(); }

 private:
  void run();
  void pollVolumes();
  void announce(const std::string& volume, const VolumeSpace& space,
                const LowSpaceThresholds& thresholds, std::uint64_t entered) const;

  const LowSpaceSettings settings_;
  const EventHandler handler_;
  const VolumeLister volumes_;
  // The monitor thread's own.
  struct Watched {
    VolumeCondition condition;
    std::uint64_t lastPoll = 0;  // the poll that last saw the volume
  };
  std::vector<std::string> watched_;
  std::map<std::string, Watched> conditions_;
  std::atomic<std::uint64_t> polls_{0};
  int timerFd_ = -1;
  int mountsFd_ = -1;
  int stopFd_ = -1;
  std::thread thread_;
};

}  // namespace vantor
