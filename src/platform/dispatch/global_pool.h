#pragma once

#include <cstddef>

#include "platform/dispatch/block.h"

namespace vantor::dispatch {

// The global concurrent queue. Blocks start in submission order on pool
// threads and may run concurrently. The pool never starves: when a block is
// submitted and no thread is idle, it starts a new thread (up to a hard limit
// far above what the daemon needs), because blocks may wait for minutes. A
// thread idle for a few seconds retires.
void globalAsync(Block block);

// Statistics for tests and benchmarks.
struct GlobalPoolStats {
  std::size_t threads = 0;  // live pool threads
  std::size_t idle = 0;     // of which waiting for work
  std::size_t queued = 0;   // blocks not yet started
};
GlobalPoolStats globalPoolStats();

// Parks the calling (main) thread for the life of the process.
[[noreturn]] void runMain();

}  // namespace vantor::dispatch
