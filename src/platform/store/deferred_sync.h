#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

namespace vantor {

// Makes the latest contents of a file durable a short while after it was
// replaced: a background thread fdatasyncs the file and fsyncs its
// directory, at most once per `delay`, however many replacements came in
// between. This bounds what a power failure can take to the writes of the
// last `delay` without paying for a disk flush on every write.
class DeferredSync {
 public:
  DeferredSync(std::filesystem::path path, std::chrono::milliseconds delay);
  ~DeferredSync();  // flushes what is pending, then stops the thread
  DeferredSync(const DeferredSync&) = delete;
  DeferredSync& operator=(const DeferredSync&) = delete;

  // The file was just replaced. Starts the thread on first use.
  void schedule();

  // Number of flushes done so far.
  unsigned long flushes() const;

 private:
  void run();
  void flush() const;

  const std::filesystem::path path_;
  const std::chrono::milliseconds delay_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool pending_ = false;
  bool stopping_ = false;
  unsigned long flushes_ = 0;
  std::thread thread_;
};

}  // namespace vantor
