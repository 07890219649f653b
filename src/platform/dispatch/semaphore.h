#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/dispatch/time.h"

namespace vantor::dispatch {

// A counting semaphore with deadline waits on the monotonic clock.
class Semaphore {
 public:
  explicit Semaphore(long count = 0) : count_(count) {}
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void signal();

  // Takes one unit, waiting until `deadline` for one to be signalled.
  // Returns false when the deadline passed first.
  bool wait(Deadline deadline = kForever);

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  long count_;
};

// Signals a semaphore when it goes out of scope, however the scope is left,
// a throw included, so whoever waits for the work is never stranded.
class SignalOnExit {
 public:
  explicit SignalOnExit(Semaphore& semaphore) : semaphore_(semaphore) {}
  ~SignalOnExit() { semaphore_.signal(); }
  SignalOnExit(const SignalOnExit&) = delete;
  SignalOnExit& operator=(const SignalOnExit&) = delete;

 private:
  Semaphore& semaphore_;
};

}  // namespace vantor::dispatch
