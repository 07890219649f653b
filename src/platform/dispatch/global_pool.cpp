#include "platform/dispatch/global_pool.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/dispatch/time.h"

namespace vantor::dispatch {
namespace {

void writeUncaught(const char* where, const char* what) {
  std::fprintf(stderr, "<3>%s: a block ended by throwing: %s\n", where, what);
}

std::atomic<UncaughtExceptionHandler> gUncaughtHandler{&writeUncaught};

// Blocks wait in two FIFOs, one per lane, and are taken from their heads, so
// the blocks of a lane start in submission order; reserve blocks are taken
// first. A thread is "on its way" from the moment it is started or called on
// until it first looks at the FIFOs, where it takes a block if one is there.
// The pool keeps at least as many threads on their way as there are blocks
// waiting that a thread may take, except that it sends at most
// kWakeAhead threads on their way for ordinary blocks at once; every thread
// that takes a block sends another while more wait than are on their way.
// So a block never waits for a busy thread, however long the running blocks
// take, unless the ordinary limit holds it back: at worst it waits for a
// chain of threads to arrive, which depends on no block ending. And a burst
// of short blocks, such as one task per service, is run by the few threads
// that arrive first, each taking block after block, instead of starting a
// thread per block that then idles until it retires. A thread called on
// when no other is idle starts one to stand by, so that starting threads
// mostly falls to the pool itself rather than to whoever submits.
//
// Idle threads are called on last in, first out. Steady work then keeps the
// same few threads busy, and the threads a burst started stay idle until they
// retire; were idle threads called on in turn, every one of them would be
// called on again before it could retire, and the pool would keep the
// largest size a burst ever gave it, each thread holding its own stack and
// allocator cache.
class Pool {
 public:
  void submit(Block block, Lane lane) {
    Wake wake;
    {
      std::lock_guard lock(mutex_);
      if (lane == Lane::kReserve) {
        reserve_.push_back(std::move(block));
      } else {
        ordinary_.push_back(std::move(block));
      }
      wake = sendOneLocked();
    }
    // Woken outside the lock: the woken thread, which wants the lock at
    // once, may well run before this one gets to release it.
    perform(wake);
  }

  GlobalPoolStats stats() {
    std::lock_guard lock(mutex_);
    return GlobalPoolStats{threads_, idle_.size(), reserve_.size() + ordinary_.size()};
  }

  void setLimit(std::size_t limit) {
    std::lock_guard lock(mutex_);
    limit_ = limit;
  }

  void setRetirement(std::chrono::milliseconds retirement) {
    std::lock_guard lock(mutex_);
    retirement_ = retirement;
  }

 private:
  // An idle thread, waiting on its own condition variable to be called on.
  // Shared, so that a submitter may notify it after releasing the lock even
  // if the thread has woken, run its blocks and retired meanwhile.
  struct Idle {
    std::condition_variable cv;
    bool calledOn = false;
  };

  // What `sendOneLocked` decided, to be done outside the lock.
  struct Wake {
    std::shared_ptr<Idle> callOn;
    bool start = false;
  };

  std::size_t onTheirWayLocked() const { return starting_ + calledOn_; }

  // The blocks waiting that a thread arriving now could take.
  std::size_t takeableLocked() const {
    const std::size_t ordinaryRoom = limit_ > ordinaryRunning_ ? limit_ - ordinaryRunning_ : 0;
    return reserve_.size() + std::min(ordinary_.size(), ordinaryRoom);
  }

  // Sends one more thread on its way when more blocks wait than threads are
  // on their way, and the wake-ahead bound allows it (reserve blocks are
  // never held to it): the latest idle thread, else a new one.
  Wake sendOneLocked() {
    const std::size_t onTheirWay = onTheirWayLocked();
    if (takeableLocked() <= onTheirWay)
      return {};
    if (onTheirWay >= kWakeAhead && reserve_.size() <= onTheirWay)
      return {};
    Wake wake;
    if (!idle_.empty()) {
      wake.callOn = std::move(idle_.back());
      idle_.pop_back();
      wake.callOn->calledOn = true;
      ++calledOn_;
    } else {
      ++threads_;
      ++starting_;
      wake.start = true;
    }
    return wake;
  }

  void perform(const Wake& wake) {
    if (wake.callOn) {
      wake.callOn->cv.notify_one();
    } else if (wake.start) {
      startThread();
    }
  }

  void startThread() {
    try {
      std::thread([this] { work(); }).detach();
    } catch (const std::system_error& error) {
      std::lock_guard lock(mutex_);
      --threads_;
      --starting_;
      std::fprintf(stderr, "<3>cannot start a pool thread: %s\n", error.what());
      if (threads_ == 0) {
        std::abort();  // nothing would ever run the queued blocks
      }
    }
  }

  // Takes the next block this thread may run, or returns false.
  bool takeLocked(Block& block, bool& ordinary) {
    if (!reserve_.empty()) {
      block = std::move(reserve_.front());
      reserve_.pop_front();
      ordinary = false;
      return true;
    }
    if (!ordinary_.empty() && ordinaryRunning_ < limit_) {
      block = std::move(ordinary_.front());
      ordinary_.pop_front();
      ordinary = true;
      ++ordinaryRunning_;
      return true;
    }
    return false;
  }

  void work() {
    const auto self = std::make_shared<Idle>();
    std::unique_lock lock(mutex_);
    --starting_;
    for (;;) {
      Block block;
      bool ordinary = false;
      while (takeLocked(block, ordinary)) {
        // Blocks still waiting get threads of their own before this one
        // runs its block, which may take long.
        const Wake wake = sendOneLocked();
        lock.unlock();
        perform(wake);
        try {
          block();
        } catch (...) {
          reportUncaughtException("global queue");
        }
        block = nullptr;  // captures are released outside the lock
        lock.lock();
        if (ordinary) {
          --ordinaryRunning_;
        }
      }

      self->calledOn = false;
      idle_.push_back(self);
      const Deadline retireAt = MonotonicClock::now() + retirement_;
      while (!self->calledOn) {
        if (self->cv.wait_until(lock, retireAt) == std::cv_status::timeout && !self->calledOn) {
          // The submitter takes a thread off `idle_` when it calls on it, so
          // one that was not called on is still there.
          std::erase(idle_, self);
          --threads_;
          return;
        }
      }
      --calledOn_;
      // The last idle thread was called on. Start another to stand by, so
      // the next submitter (most often the bus thread, which every caller
      // waits for) finds one idle rather than starting a thread itself. One
      // already on its way will do: it goes idle if nothing takes it first.
      if (idle_.empty() && starting_ == 0) {
        ++threads_;
        ++starting_;
        lock.unlock();
        startThread();
        lock.lock();
      }
    }
  }

  std::mutex mutex_;
  std::deque<Block> reserve_;
  std::deque<Block> ordinary_;
  std::size_t limit_ = kOrdinaryThreadLimit;
  std::chrono::milliseconds retirement_ = kIdleRetirement;
  std::size_t threads_ = 0;
  std::size_t starting_ = 0;  // started, not yet looked at the FIFOs
  std::size_t calledOn_ = 0;  // called on while idle, not yet looked at the FIFOs
  std::size_t ordinaryRunning_ = 0;
  std::vector<std::shared_ptr<Idle>> idle_;  // waiting for work, not yet called on; latest last
};

Pool& pool() {
  // Never destroyed: detached pool threads may still use it while the process
  // exits and static objects are being torn down.
  static Pool* const instance = new Pool;
  return *instance;
}

}  // namespace

UncaughtExceptionHandler setUncaughtExceptionHandler(UncaughtExceptionHandler handler) {
  return gUncaughtHandler.exchange(handler != nullptr ? handler : &writeUncaught);
}

void reportUncaughtException(const char* where) noexcept {
  const UncaughtExceptionHandler handler = gUncaughtHandler.load();
  try {
    throw;
  } catch (const std::exception& e) {
    handler(where, e.what());
  } catch (...) {
    handler(where, "an exception of unknown type");
  }
}

void globalAsync(Block block, Lane lane) {
  pool().submit(std::move(block), lane);
}

GlobalPoolStats globalPoolStats() {
  return pool().stats();
}

void setOrdinaryThreadLimitForTesting(std::size_t limit) {
  pool().setLimit(limit);
}

void setIdleRetirementForTesting(std::chrono::milliseconds retirement) {
  pool().setRetirement(retirement);
}

void runMain() {
  for (;;) {
    ::pause();
  }
}

}  // namespace vantor::dispatch
