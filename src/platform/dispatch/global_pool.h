#pragma once

#include <chrono>
#include <cstddef>

#include "platform/dispatch/block.h"

namespace vantor::dispatch {

// Which share of the global pool a block may use.
enum class Lane {
  // Client work that may wait for minutes. At most `kOrdinaryThreadLimit`
  // ordinary blocks run at once; further ones wait their turn.
  kOrdinary,
  // Work that others wait for and that is bounded by its nature (a serial
  // queue has at most one drainer). Runs ahead of waiting ordinary blocks and
  // gets a thread even when every ordinary thread is blocked, so blocked
  // callers can never starve the work that would release them.
  kReserve,
};

// The most ordinary blocks that run at the same time: far above what the
// daemon needs, so only a runaway reaches it.
inline constexpr std::size_t kOrdinaryThreadLimit = 1024;

// The most threads the pool sends on their way to ordinary blocks at once
// (woken, or started, and not yet running anything). Each that takes a block
// sends the next while blocks are still waiting, so a long queue of blocks
// still gets a thread each if they all take long; short ones are taken one
// after another by the first few threads, rather than each starting a
// thread that then idles until it retires.
inline constexpr std::size_t kWakeAhead = 4;

// How long a pool thread stays idle before it retires. Long enough that work
// coming in bursts about two seconds apart (each level of a purge, the
// queries queued behind it) finds the threads of the last burst still there:
// starting them anew each time cost hundreds of thread starts a minute under
// load, each at the busiest moment. Short enough that the threads of one
// large burst do not linger through several quieter ones.
inline constexpr std::chrono::milliseconds kIdleRetirement{2000};

// The global concurrent queue. Blocks of a lane start in submission order on
// pool threads and may run concurrently. No block waits for a busy thread
// (within the lane's limit), because blocks may wait for minutes: when blocks
// are waiting and no thread is idle, the pool starts new ones. A thread idle
// for kIdleRetirement retires.
void globalAsync(Block block, Lane lane = Lane::kOrdinary);

// Statistics for tests and benchmarks.
struct GlobalPoolStats {
  std::size_t threads = 0;  // live pool threads
  std::size_t idle = 0;     // of which waiting for work
  std::size_t queued = 0;   // blocks not yet started
};
GlobalPoolStats globalPoolStats();

// Lowers the ordinary limit so tests can reach it cheaply.
void setOrdinaryThreadLimitForTesting(std::size_t limit);
// Shortens how long an idle thread waits before it retires, for tests that
// watch threads retire.
void setIdleRetirementForTesting(std::chrono::milliseconds retirement);

// Parks the calling (main) thread for the life of the process.
[[noreturn]] void runMain();

}  // namespace vantor::dispatch
