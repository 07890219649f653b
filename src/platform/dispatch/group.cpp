#include "platform/dispatch/group.h"

#include <cstdio>
#include <cstdlib>

#include "platform/dispatch/global_pool.h"

namespace vantor::dispatch {

namespace {

// Leaves the group however `block` ends; a throw goes on to the thread's own
// report once the group no longer counts the block.
void runThenLeave(Group& group, Block& block) {
  try {
    block();
  } catch (...) {
    block = nullptr;
    group.leave();
    throw;
  }
  // Whoever waits on the group may rely on the block's captures being gone.
  block = nullptr;
  group.leave();
}

}  // namespace

std::shared_ptr<Group> Group::create() {
  return std::shared_ptr<Group>(new Group());
}

void Group::enter() {
  std::lock_guard lock(mutex_);
  ++outstanding_;
}

void Group::leave() {
  std::lock_guard lock(mutex_);
  if (outstanding_ == 0) {
    std::fprintf(stderr, "dispatch group left more often than entered\n");
    std::abort();
  }
  if (--outstanding_ == 0) {
    cv_.notify_all();
  }
}

void Group::async(Block block) {
  enter();
  globalAsync([self = shared_from_this(), block = std::move(block)]() mutable {
    runThenLeave(*self, block);
  });
}

void Group::async(const QueuePtr& queue, Block block) {
  enter();
  queue->async([self = shared_from_this(), block = std::move(block)]() mutable {
    runThenLeave(*self, block);
  });
}

bool Group::wait(Deadline deadline) {
  std::unique_lock lock(mutex_);
  const auto done = [this] { return outstanding_ == 0; };
  if (deadline == kForever) {
    cv_.wait(lock, done);
    return true;
  }
  return cv_.wait_until(lock, deadline, done);
}

}  // namespace vantor::dispatch
