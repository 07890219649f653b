#include "platform/store/durable_copy.h"

#include <cstring>

#include "platform/files/write_file.h"

namespace vantor {

DurableCopy::DurableCopy(std::filesystem::path copyPath, std::chrono::milliseconds delay,
                         FileCalls& files)
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
  const auto failure = replaceFile(
      path_, tmp, bytes, {.narrowedByUmask = true, .durability = Durability::kOnDisk}, files_);
  if (!failure)
    return true;
  if (error != nullptr) {
    const std::string step =
        failure->step == ReplaceStep::kCreate ? "open" : describe(failure->step);
    *error = "cannot " + step + " " + tmp + ": " + std::strerror(failure->error);
  }
  return false;
}

}  // namespace vantor
