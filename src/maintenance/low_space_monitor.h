#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/timer_source.h"
#include "support/low_space.h"

namespace vantor {

// One volume's low-space condition, with hysteresis: it enters low (very low)
// when its available bytes fall below the threshold, and leaves only when
// they are back above 1.25 × the threshold, so space moving around the line
// does not fire again and again.
//
// It also decides when the volume raises an event: on entering low or very
// low, and again every repeat interval while it stays there, counted from the
// end of the last event's handling. At most one event is outstanding (raised
// and not yet handled), and none is raised while nobody could act on it; an
// event owed meanwhile is raised at the first sample that may raise it.
class VolumeCondition {
 public:
  using Clock = std::chrono::steady_clock;

  // What one sample of the volume calls for.
  struct Step {
    std::uint64_t eventFlags = 0;    // "_Flags" of the event to raise; 0 for none
    std::uint64_t enteredFlags = 0;  // the conditions entered by this sample
  };

  // Takes one sample. `canAct` says whether anybody could act on an event
  // now. An event's flags are the conditions entered by this sample when it
  // entered any, else the conditions the volume is in. Once an event is
  // raised, none is until `handled` is called.
  Step sample(std::uint64_t available, const LowSpaceThresholds& thresholds, Clock::time_point now,
              Clock::duration repeat, bool canAct);

  // The event raised last has been handled, at `end`.
  void handled(Clock::time_point end);

  bool low() const { return low_; }
  bool veryLow() const { return veryLow_; }
  bool eventOutstanding() const { return outstanding_; }

 private:
  bool low_ = false;
  bool veryLow_ = false;
  bool owed_ = false;         // an event is due and has not been raised yet
  bool outstanding_ = false;  // raised and not yet handled
  Clock::time_point lastHandled_{};
};

// Watches every local volume's free space and raises a VolumeEvent when one
// enters low or very low space, and again while it stays there, as
// VolumeCondition decides.
//
// One thread of its own sleeps in poll() on a timer that fires every poll
// interval, on the mount table (which wakes it at once when a volume comes or
// goes), on a wake descriptor (`pollNow`) and on a stop descriptor; it wakes
// for nothing else. Each wake is one statvfs per volume. The per-volume
// conditions belong to that thread alone. On entering low or very low it also
// emits the LowSpace signal and logs one level-3 line with the figures.
// `handler` is called on the monitor's thread and must hand the event on
// rather than work on it there; whoever handles it calls the `handled`
// callback it was given once handling has ended, from any thread. Nothing
// thrown while polling or handing on ends the thread: it is logged.
class LowSpaceMonitor {
 public:
  using Handled = std::function<void()>;
  using EventHandler = std::function<void(const VolumeEvent&, Handled handled)>;
  using VolumeLister = std::function<std::vector<std::string>()>;
  using Gate = std::function<bool()>;

  // Starts watching at once; the first poll runs when the thread starts.
  // `volumes` lists what to watch (default: the local volumes); `canAct`
  // says whether anybody could act on an event (default: always).
  LowSpaceMonitor(LowSpaceSettings settings, EventHandler handler, VolumeLister volumes = {},
                  Gate canAct = {});
  // Stops the thread and waits for it.
  ~LowSpaceMonitor();
  LowSpaceMonitor(const LowSpaceMonitor&) = delete;
  LowSpaceMonitor& operator=(const LowSpaceMonitor&) = delete;

  // Polls at once rather than at the next interval. Safe from any thread.
  void pollNow();

  // The CPU time the monitor's thread has used so far (for the benchmark).
  std::chrono::nanoseconds threadCpuTime() const { return timer_.threadCpuTime(); }
  // Polls completed so far.
  std::uint64_t polls() const { return polls_.load(); }

 private:
  void onWake(const dispatch::TimerSource::Wake& wake);
  void guardedPoll();
  void pollVolumes();
  void raise(const std::string& volume, std::uint64_t flags);
  void applyHandled();
  void announce(const std::string& volume, const VolumeSpace& space,
                const LowSpaceThresholds& thresholds, std::uint64_t entered) const;

  const LowSpaceSettings settings_;
  const EventHandler handler_;
  const VolumeLister volumes_;
  const Gate canAct_;
  // The monitor thread's own.
  struct Watched {
    VolumeCondition condition;
    std::uint64_t lastPoll = 0;    // the poll that last saw the volume
    std::uint64_t generation = 0;  // tells a handled event from one of an earlier life
  };
  std::vector<std::string> watched_;
  std::map<std::string, Watched> conditions_;
  std::uint64_t generations_ = 0;
  // Events whose handling has ended, by volume and generation, with the time
  // it ended; filled from any thread, applied by the monitor's thread.
  struct Finished {
    std::string volume;
    std::uint64_t generation;
    VolumeCondition::Clock::time_point end;
  };
  std::mutex finishedMutex_;
  std::vector<Finished> finished_;
  std::atomic<std::uint64_t> polls_{0};
  int mountsFd_ = -1;
  // Its thread is the monitor's thread.
  dispatch::TimerSource timer_{CLOCK_MONOTONIC};
};

}  // namespace vantor
