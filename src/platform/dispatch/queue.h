#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/dispatch/block.h"

namespace vantor::dispatch {

// A serial queue: blocks run one at a time, strictly in the order they were
// submitted, on threads of the global pool (or, for `sync`, on the caller's
// thread). Queues are shared objects: create them with `SerialQueue::create`;
// a block that is waiting or running keeps its queue alive.
//
// Suspension holds back blocks that have not started yet; the block running at
// the moment finishes. `suspend` and `resume` nest: the queue runs again once
// every `suspend` has been matched by a `resume`. Resuming a queue that is not
// suspended aborts the process, as it is a programming error.
//
// `sync` onto the queue the caller is running on aborts with a clear message
// instead of deadlocking. An async block that throws is reported (block.h) and
// the queue goes on; a `sync` block that throws releases the queue and the
// exception reaches the `sync` caller. All members are safe to call from any
// thread.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  static std::shared_ptr<SerialQueue> create(std::string label);

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  ~SerialQueue();

  const std::string& label() const { return label_; }

  // Submits `block` and returns at once.
  void async(Block block);

  // Runs `block` on the calling thread once every block submitted before it
  // has run and the queue is not suspended; returns when it has run.
  void sync(const Block& block);

  // `sync` that carries the block's result out.
  template <typename F>
  auto syncResult(F&& fn) -> std::invoke_result_t<F&> {
    using R = std::invoke_result_t<F&>;
    if constexpr (std::is_void_v<R>) {
      sync([&] { fn(); });
    } else {
      std::optional<R> result;
      sync([&] { result.emplace(fn()); });
      return std::move(*result);
    }
  }

  void suspend();
  void resume();

  // True when the calling thread is running a block of this queue (directly
  // or in a `sync` nested inside one).
  bool isCurrent() const;

  // Aborts the process with a message naming `caller` and the queue unless
  // the calling thread is running a block of this queue.
  void assertCurrent(const char* caller) const;

 private:
  struct SyncWaiter;
  struct Item;

  explicit SerialQueue(std::string label);
  void scheduleDrainLocked();
  // Called by the owner of the queue when it is done with it: passes ownership
  // to the sync caller at the head, to a new drainer, or to nobody.
  void handOnLocked();
  void drain();

  const std::string label_;
  mutable std::mutex mutex_;
  std::deque<Item> items_;
  std::size_t suspendCount_ = 0;
  bool owned_ = false;  // a drainer or a sync caller holds the queue
};

using QueuePtr = std::shared_ptr<SerialQueue>;

// Holds a queue suspended for as long as it lives: the queue is resumed
// however the scope is left, a throw included, so it is never left stopped.
class ScopedSuspension {
 public:
  explicit ScopedSuspension(SerialQueue& queue) : queue_(queue) { queue_.suspend(); }
  ~ScopedSuspension() { queue_.resume(); }
  ScopedSuspension(const ScopedSuspension&) = delete;
  ScopedSuspension& operator=(const ScopedSuspension&) = delete;

 private:
  SerialQueue& queue_;
};

}  // namespace vantor::dispatch
