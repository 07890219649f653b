#include "platform/dispatch/queue.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/time.h"

namespace vantor::dispatch {

Deadline after(std::chrono::nanoseconds delay) {
  const Deadline now = MonotonicClock::now();
  const auto step = std::chrono::duration_cast<MonotonicClock::duration>(delay);
  // Compare against the room left on either side of `now` rather than adding
  // first, so that huge delays saturate instead of wrapping around.
  if (step > kForever - now) {
    return kForever;
  }
  if (step < Deadline::min().time_since_epoch() + now.time_since_epoch()) {
    return Deadline::min();
  }
  return now + step;
}

namespace {

// The queues whose blocks the current thread is running, innermost last. A
// block of one queue may `sync` onto another, so this is a stack.
thread_local std::vector<const SerialQueue*> tCurrentQueues;

// Marks the current thread as running blocks of `queue` for its lifetime.
class CurrentQueueScope {
 public:
  explicit CurrentQueueScope(const SerialQueue* queue) { tCurrentQueues.push_back(queue); }
  ~CurrentQueueScope() { tCurrentQueues.pop_back(); }
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;
};

// A drainer runs at most this many blocks, then gives its pool thread back and
// re-submits itself behind whatever else is waiting for the pool.
constexpr int kDrainBatch = 16;

}  // namespace

// A `sync` caller waiting for the queue. It sits in `items_` like any block;
// when it reaches the head, whoever owns the queue hands ownership over to it.
struct SerialQueue::SyncWaiter {
  std::condition_variable granted_cv;
  bool granted = false;
};

// One entry of the queue: either an async block or a waiting sync caller.
struct SerialQueue::Item {
  Block block;
  SyncWaiter* waiter = nullptr;
};

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label) {
  return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label)));
}

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {}

SerialQueue::~SerialQueue() = default;

void SerialQueue::async(Block block) {
  std::lock_guard lock(mutex_);
  items_.push_back(Item{std::move(block), nullptr});
  if (!owned_ && suspendCount_ == 0) {
    owned_ = true;
    scheduleDrainLocked();
  }
}

void SerialQueue::sync(const Block& block) {
  if (isCurrent()) {
    std::fprintf(stderr, "sync onto queue '%s' from a block running on it would deadlock\n",
                 label_.c_str());
    std::abort();
  }
  {
    std::unique_lock lock(mutex_);
    if (!owned_ && suspendCount_ == 0 && items_.empty()) {
      // Idle: take the queue and run the block straight away.
      owned_ = true;
    } else {
      SyncWaiter waiter;
      items_.push_back(Item{nullptr, &waiter});
      waiter.granted_cv.wait(lock, [&] { return waiter.granted; });
    }
  }
  // The queue is ours now; pass it on even if the block throws.
  struct Release {
    SerialQueue* queue;
    ~Release() {
      std::lock_guard lock(queue->mutex_);
      queue->handOnLocked();
    }
  } release{this};
  CurrentQueueScope current(this);
  block();
}

void SerialQueue::suspend() {
  std::lock_guard lock(mutex_);
  ++suspendCount_;
}

void SerialQueue::resume() {
  std::lock_guard lock(mutex_);
  if (suspendCount_ == 0) {
    std::fprintf(stderr, "resume of queue '%s' that is not suspended\n", label_.c_str());
    std::abort();
  }
  if (--suspendCount_ == 0 && !owned_ && !items_.empty()) {
    owned_ = true;
    handOnLocked();
  }
}

bool SerialQueue::isCurrent() const {
  return std::find(tCurrentQueues.begin(), tCurrentQueues.end(), this) != tCurrentQueues.end();
}

void SerialQueue::assertCurrent(const char* caller) const {
  if (!isCurrent()) {
    std::fprintf(stderr, "%s must be called on queue '%s'\n", caller, label_.c_str());
    std::abort();
  }
}

void SerialQueue::scheduleDrainLocked() {
  // A drainer is what every waiting block of this queue, and whoever waits for
  // them, depends on; a queue has at most one, so it may use the reserve.
  globalAsync([self = shared_from_this()] { self->drain(); }, Lane::kReserve);
}

void SerialQueue::handOnLocked() {
  if (suspendCount_ > 0 || items_.empty()) {
    owned_ = false;
    return;
  }
  if (SyncWaiter* waiter = items_.front().waiter) {
    items_.pop_front();
    waiter->granted = true;
    // Notified under the lock: the waiter cannot return and destroy the
    // condition variable before this call is done with it.
    waiter->granted_cv.notify_one();
    return;
  }
  scheduleDrainLocked();
}

void SerialQueue::drain() {
  CurrentQueueScope current(this);
  std::unique_lock lock(mutex_);
  for (int ran = 0;; ++ran) {
    if (ran == kDrainBatch || suspendCount_ > 0 || items_.empty() ||
        items_.front().waiter != nullptr) {
      handOnLocked();
      return;
    }
    Block block = std::move(items_.front().block);
    items_.pop_front();
    lock.unlock();
    try {
      block();
    } catch (...) {
      reportUncaughtException(label_.c_str());
    }
    // Release what the block captured before taking the lock again: its
    // destructors may well submit to this queue.
    block = nullptr;
    lock.lock();
  }
}

}  // namespace vantor::dispatch
