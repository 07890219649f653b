#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace vantor::testkit {

// Records the signals of interest on a client connection. Thread-safe: the
// connection's event loop records, the test waits.
class SignalWatch {
 public:
  void record(const std::string& what);
  // Waits until `what` has been recorded, at most `timeout`.
  bool waitFor(const std::string& what, std::chrono::milliseconds timeout);
  // Forgets what was seen, e.g. before restarting the daemon.
  void clear();

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> seen_;
};

}  // namespace vantor::testkit
