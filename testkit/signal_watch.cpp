#include "testkit/signal_watch.h"

namespace vantor::testkit {

void SignalWatch::record(const std::string& what) {
  std::lock_guard lock(mutex_);
  seen_.push_back(what);
  cv_.notify_all();
}

void SignalWatch::clear() {
  std::lock_guard lock(mutex_);
  seen_.clear();
}

bool SignalWatch::waitFor(const std::string& what, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return cv_.wait_for(lock, timeout, [&] {
    for (const auto& s : seen_) {
      if (s == what)
        return true;
    }
    return false;
  });
}

}  // namespace vantor::testkit
