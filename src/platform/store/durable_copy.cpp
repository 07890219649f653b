#include "platform/store/durable_copy.h"

#include <cerrno>
#include <cstring>

namespace vantor {

DurableCopy::DurableCopy(std::filesystem::path copyPath, std::chrono::milliseconds delay,
                         StoreFiles& files)
    : path_(std::move(copyPath)), delay_(delay), files_(files) {}

DurableCopy::~DurableCopy() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

void DurableCopy::schedule(Bytes bytes) {
  {
    std::lock_guard lock(mutex_);
    pending_ = std::move(bytes);
    if (!thread_.joinable())
      thread_ = std::thread([this] { run(); });
  }
  wake_.notify_all();
}

unsigned long DurableCopy::flushes() const {
  std::lock_guard lock(mutex_);
  return flushes_;
}

std::string DurableCopy::lastError() const {
  std::lock_guard lock(mutex_);
  return lastError_;
}

void DurableCopy::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return pending_ != nullptr || stopping_; });
    if (pending_ == nullptr)
      return;
    // Let the changes of the next moment join this round; stopping cuts the
    // wait short.
    wake_.wait_for(lock, delay_, [this] { return stopping_; });
    Bytes bytes = std::move(pending_);
    pending_ = nullptr;
    lock.unlock();
    std::string error;
    writeNow(*bytes, &error);
    lock.lock();
    ++flushes_;
    lastError_ = error;
  }
}

bool DurableCopy::writeNow(const std::vector<std::uint8_t>& bytes, std::string* error) {
  const std::string tmp = path_.string() + ".tmp";
  const auto fail = [&](const std::string& step) {
    const int err = errno;
    if (error != nullptr)
      *error = step + " " + tmp + ": " + std::strerror(err);
    return false;
  };
  // The temporary file is never anything but a copy in the making, so it may
  // be truncated and rewritten; the copy itself only ever changes by rename.
  const int fd =
      files_.open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0)
    return fail("cannot open");
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = files_.write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      if (n == 0)
        errno = ENOSPC;
      files_.close(fd);
      return fail("cannot write");
    }
    done += static_cast<std::size_t>(n);
  }
  if (files_.fdatasync(fd) != 0) {
    files_.close(fd);
    return fail("cannot flush");
  }
  if (files_.close(fd) != 0)
    return fail("cannot close");
  if (files_.rename(tmp.c_str(), path_.c_str()) != 0)
    return fail("cannot rename");
  const auto dir = path_.parent_path().empty() ? std::filesystem::path(".") : path_.parent_path();
  const int dirFd = files_.open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (dirFd < 0)
    return fail("cannot open the directory of");
  const bool synced = files_.fsync(dirFd) == 0;
  files_.close(dirFd);
  if (!synced)
    return fail("cannot flush the directory of");
  return true;
}

}  // namespace vantor
