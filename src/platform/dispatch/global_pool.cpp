#include "platform/dispatch/global_pool.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/dispatch/time.h"

namespace vantor::dispatch {
namespace {

// Far above what the daemon needs; only a runaway would reach it.
constexpr std::size_t kMaxThreads = 1024;
constexpr auto kIdleRetirement = std::chrono::seconds(5);

// Blocks wait in one FIFO and are taken from its head, so they start in
// submission order. Every submission either calls on an idle thread that no
// earlier submission has called on yet, or starts a new thread. Each such
// thread looks at the queue at least once more, so a block never waits for a
// thread that is busy, however long the running blocks take.
class Pool {
 public:
  void submit(Block block) {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back(std::move(block));
      if (idle_ > 0) {
        --idle_;
        ++wakeups_;
        cv_.notify_one();
        return;
      }
      if (threads_ >= kMaxThreads) {
        return;  // taken by the next thread to finish its block
      }
      ++threads_;
    }
    startThread();
  }

  GlobalPoolStats stats() {
    std::lock_guard lock(mutex_);
    return GlobalPoolStats{threads_, idle_, queue_.size()};
  }

 private:
  void startThread() {
    try {
      std::thread([this] { work(); }).detach();
    } catch (const std::system_error& error) {
      std::lock_guard lock(mutex_);
      --threads_;
      std::fprintf(stderr, "cannot start a pool thread: %s\n", error.what());
      if (threads_ == 0) {
        std::abort();  // nothing would ever run the queued blocks
      }
    }
  }

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      while (!queue_.empty()) {
        Block block = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        block();
        block = nullptr;  // captures are released outside the lock
        lock.lock();
      }

      ++idle_;
      const Deadline retireAt = MonotonicClock::now() + kIdleRetirement;
      bool calledOn = false;
      for (;;) {
        // Any idle thread may answer a call; the submitter already took one
        // off `idle_` for it.
        if (wakeups_ > 0) {
          --wakeups_;
          calledOn = true;
          break;
        }
        if (cv_.wait_until(lock, retireAt) == std::cv_status::timeout && wakeups_ == 0) {
          break;
        }
      }
      if (!calledOn) {
        --idle_;
        --threads_;
        return;
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Block> queue_;
  std::size_t threads_ = 0;
  std::size_t idle_ = 0;     // waiting for work, not yet called on
  std::size_t wakeups_ = 0;  // idle threads called on that have not woken yet
};

Pool& pool() {
  // Never destroyed: detached pool threads may still use it while the process
  // exits and static objects are being torn down.
  static Pool* const instance = new Pool;
  return *instance;
}

}  // namespace

void globalAsync(Block block) {
  pool().submit(std::move(block));
}

GlobalPoolStats globalPoolStats() {
  return pool().stats();
}

void runMain() {
  for (;;) {
    ::pause();
  }
}

}  // namespace vantor::dispatch
