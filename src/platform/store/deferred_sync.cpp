#include "platform/store/deferred_sync.h"

#include <fcntl.h>
#include <unistd.h>

namespace vantor {

DeferredSync::DeferredSync(std::filesystem::path path, std::chrono::milliseconds delay)
    : path_(std::move(path)), delay_(delay) {}

DeferredSync::~DeferredSync() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

void DeferredSync::schedule() {
  {
    std::lock_guard lock(mutex_);
    pending_ = true;
    if (!thread_.joinable())
      thread_ = std::thread([this] { run(); });
  }
  wake_.notify_all();
}

unsigned long DeferredSync::flushes() const {
  std::lock_guard lock(mutex_);
  return flushes_;
}

void DeferredSync::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return pending_ || stopping_; });
    if (!pending_)
      return;
    // Let the writes of the next moment join this flush; stopping cuts the
    // wait short.
    wake_.wait_for(lock, delay_, [this] { return stopping_; });
    pending_ = false;
    lock.unlock();
    flush();
    lock.lock();
    ++flushes_;
    if (stopping_ && !pending_)
      return;
  }
}

// Best effort: a file that is gone or cannot be opened has nothing to flush,
// and the writes themselves already succeeded.
void DeferredSync::flush() const {
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    ::fdatasync(fd);
    ::close(fd);
  }
  const auto dir = path_.parent_path().empty() ? std::filesystem::path(".") : path_.parent_path();
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
}

}  // namespace vantor
