#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>

#include "platform/dispatch/block.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/time.h"

namespace vantor::dispatch {

// Tracks a number of outstanding blocks. Shared, since blocks submitted
// through it keep it alive: create with `Group::create`.
class Group : public std::enable_shared_from_this<Group> {
 public:
  static std::shared_ptr<Group> create();

  void enter();
  void leave();  // leaving more often than entering aborts the process

  // Submits `block` to the global pool (or to `queue`) as a member of the group.
  void async(Block block);
  void async(const QueuePtr& queue, Block block);

  // Waits until every member has left or `deadline` passed; false on time-out.
  bool wait(Deadline deadline = kForever);

 private:
  Group() = default;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::size_t outstanding_ = 0;
};

}  // namespace vantor::dispatch
