#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/files/file_calls.h"

namespace vantor {

// Keeps a copy of the latest contents of a file that survives a power
// failure, a short while after they changed, without making the writer wait
// for the disk: a background thread writes the newest contents it was given to
// "<copy>.tmp", flushes that to disk (fdatasync), renames it over the copy and
// flushes the directory (fsync), at most once per `delay` however many
// changes came in between. The copy is never written in place, so whenever
// the power fails it holds complete contents: those of the last finished
// round. A round that fails leaves the copy as it was and is tried again with
// the next change.
class DurableCopy {
 public:
  using Bytes = std::shared_ptr<const std::vector<std::uint8_t>>;

  DurableCopy(std::filesystem::path copyPath, std::chrono::milliseconds delay,
              FileCalls& files = FileCalls::system());
  ~DurableCopy();  // writes what is pending, then stops the thread
  DurableCopy(const DurableCopy&) = delete;
  DurableCopy& operator=(const DurableCopy&) = delete;

  // These are the newest contents. Starts the thread on first use.
  void schedule(Bytes bytes);

  // Writes `bytes` as the copy now, on the calling thread; false with a
  // reason when a step failed. Call before the first `schedule`.
  bool writeNow(const std::vector<std::uint8_t>& bytes, std::string* error);

  const std::filesystem::path& path() const { return path_; }

  // Rounds finished so far, and the reason the last round failed ("" when it
  // did not).
  unsigned long flushes() const;
  std::string lastError() const;

 private:
  void run();

  const std::filesystem::path path_;
  const std::chrono::milliseconds delay_;
  FileCalls& files_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  Bytes pending_;
  bool stopping_ = false;
  unsigned long flushes_ = 0;
  std::string lastError_;
  std::thread thread_;
};

}  // namespace vantor
