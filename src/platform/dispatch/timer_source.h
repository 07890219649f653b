#pragma once

#include <time.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

#include "platform/dispatch/time.h"

namespace vantor::dispatch {

// A thread of its own that sleeps in poll() on a timer, a wake-up counter, an
// optional descriptor of the owner's and a stop counter, and hands each wake
// to the owner's handler; it wakes for nothing else.
//
// The owner picks the timer's clock (CLOCK_MONOTONIC for intervals,
// CLOCK_REALTIME for wall-clock times) and arms it, before `start` or from the
// handler. The handler runs on the source's thread, one call at a time: first
// once with `started`, then once per wake with everything that woke the
// thread; neither it nor the error handler may throw. Nothing here logs: calls
// that fail return the errno, and failures on the thread go to the error
// handler. A failed poll() ends the thread.
//
// `arm*` and `wake` are safe from any thread, `wakeAfter` from the handler
// only; `stop` from any thread but the source's own. The destructor stops the
// thread.
class TimerSource {
 public:
  // What woke the thread; several at once are reported in one call.
  struct Wake {
    bool started = false;           // the first call, before the thread first sleeps
    bool timer = false;             // the timer's descriptor was ready
    std::uint64_t expirations = 0;  // read from it; 0 when the read failed
    bool clockSet = false;          // the clock was set: a cancel-on-set timer is disarmed
    bool woken = false;             // `wake` was called
    bool watched = false;           // the owner's descriptor was ready
    bool timedOut = false;          // the delay given to `wakeAfter` passed
  };
  enum class Failure { kRead, kPoll };
  using Handler = std::function<void(const Wake&)>;
  using ErrorHandler = std::function<void(Failure, int error)>;

  // A descriptor of the owner's that also wakes the thread, for `events`. It
  // stays the owner's and must stay open while the thread runs. Its readiness
  // is taken to be a mark that poll() itself clears (as the mount table's
  // POLLPRI is): one already set when the `started` call returns is dropped,
  // being older than what that call saw.
  struct Watch {
    int fd;
    short events;
  };

  // Whether setting the clock disarms a wall-clock timer (`armAt`), so the
  // owner can look at the new time.
  enum class ClockSet { kIgnore, kCancel };

  // Creates the descriptors; `creationError` tells whether that worked.
  explicit TimerSource(clockid_t clock);
  ~TimerSource();
  TimerSource(const TimerSource&) = delete;
  TimerSource& operator=(const TimerSource&) = delete;

  // 0 when every descriptor was created, else the errno of the first failure.
  // A source that failed must not be started.
  int creationError() const { return creationError_; }

  // Arms the timer to fire every `interval`, the first time one interval from
  // now. Returns 0 or the errno.
  int armInterval(std::chrono::nanoseconds interval);
  // Arms the timer to fire once at `sinceEpoch` on its clock; a time at or
  // before the epoch fires at once. Returns 0 or the errno.
  int armAt(std::chrono::nanoseconds sinceEpoch, ClockSet onClockSet);

  // Wakes the thread with `timedOut` after `delay` unless something else wakes
  // it first: a fallback for a timer that cannot be armed. Every wake clears it.
  void wakeAfter(std::chrono::milliseconds delay);

  // Wakes the thread with `woken`. Wakes that come before the thread gets to
  // them count as one. Returns 0 or the errno.
  int wake();

  // Starts the thread. Call at most once.
  void start(Handler handler, ErrorHandler onError, Watch watch = Watch{-1, 0});

  // Stops the thread and waits for it, after the handler call in progress.
  // Returns 0, or the errno when the thread cannot be told to stop: it is then
  // left running rather than waited for, as waiting would hang.
  int stop();

  // The CPU time the thread has used so far.
  std::chrono::nanoseconds threadCpuTime() const;

 private:
  void run(Watch watch);
  // The poll() timeout that `wakeAfter` asks for, -1 for none.
  int pollTimeout() const;
  // Reads a counter that was ready; false when the read failed.
  bool readCounter(int fd, std::uint64_t* count, Wake* wake);

  int creationError_ = 0;
  int timerFd_ = -1;
  int wakeFd_ = -1;
  int stopFd_ = -1;
  Handler handler_;
  ErrorHandler onError_;
  std::optional<Deadline> wakeDeadline_;  // the thread's own
  std::thread thread_;
};

}  // namespace vantor::dispatch
