#include "platform/dispatch/semaphore.h"

namespace vantor::dispatch {

void Semaphore::signal() {
  std::lock_guard lock(mutex_);
  ++count_;
  cv_.notify_one();
}

bool Semaphore::wait(Deadline deadline) {
  std::unique_lock lock(mutex_);
  const auto available = [this] { return count_ > 0; };
  if (deadline == kForever) {
    // A plain wait: converting the largest time point for a timed wait
    // would overflow.
    cv_.wait(lock, available);
  } else if (!cv_.wait_until(lock, deadline, available)) {
    return false;
  }
  --count_;
  return true;
}

}  // namespace vantor::dispatch
