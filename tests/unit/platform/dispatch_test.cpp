#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/group.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/semaphore.h"
#include "platform/dispatch/time.h"

namespace vantor::dispatch {
namespace {

using namespace std::chrono_literals;

// Deadline for things that must happen; generous, since sanitizers are slow.
Deadline soon() {
  return after(10s);
}
// Deadline for things that must not happen: long enough to give them a chance.
Deadline shortly() {
  return after(50ms);
}

// Blocks from many threads, bursts of async ones each followed by a sync,
// run one at a time and, per submitter, in submission order; sync runs its
// block on the calling thread.
TEST(SerialQueue, RunsBlocksOneAtATimeInSubmissionOrder) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 60;
  constexpr int kBurst = 5;  // four async blocks, then a sync one
  auto queue = SerialQueue::create("test.fifo");
  std::vector<std::pair<int, int>> ran;  // touched only on the queue
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false}, syncOffCaller{false};
  std::vector<std::thread> submitters;
  for (int t = 0; t < kThreads; ++t) {
    submitters.emplace_back([&, t] {
      const auto self = std::this_thread::get_id();
      for (int i = 0; i < kRounds * kBurst; ++i) {
        const auto record = [&, t, i] {
          if (inside.fetch_add(1) != 0)
            overlapped = true;
          ran.emplace_back(t, i);
          inside.fetch_sub(1);
        };
        if (i % kBurst != kBurst - 1) {
          queue->async(record);
          continue;
        }
        queue->sync([&] {
          record();
          if (std::this_thread::get_id() != self)
            syncOffCaller = true;
        });
      }
    });
  }
  for (auto& thread : submitters)
    thread.join();
  const auto seen = queue->syncResult([&] { return ran; });

  ASSERT_EQ(seen.size(), std::size_t{kThreads * kRounds * kBurst});
  std::vector<int> next(kThreads, 0);
  for (const auto& [thread, index] : seen) {
    ASSERT_EQ(index, next[thread]) << "submitter " << thread;
    ++next[thread];
  }
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(syncOffCaller) << "sync must run the block on the calling thread";
}

// Suspension holds back queued blocks and sync callers alike until every
// suspend is resumed; a sync whose block throws releases the queue. (That
// sync waits for earlier blocks: the ordering test above.)
TEST(SerialQueue, SuspensionHoldsBackBlocksAndSyncCallersUntilEverySuspendIsResumed) {
  auto queue = SerialQueue::create("test.suspend");
  Semaphore started, release, firstDone, ran;
  queue->async([&] {
    started.signal();
    release.wait();
    firstDone.signal();
  });
  queue->async([&] { ran.signal(); });
  ASSERT_TRUE(started.wait(soon()));
  queue->suspend();
  queue->suspend();
  queue->async([&] { ran.signal(); });  // submitted while suspended
  std::thread caller([&] { queue->sync([&] { ran.signal(); }); });
  release.signal();
  EXPECT_TRUE(firstDone.wait(soon())) << "the running block finishes";
  EXPECT_FALSE(ran.wait(shortly()));
  queue->resume();
  EXPECT_FALSE(ran.wait(shortly())) << "one resume must not undo two suspends";
  queue->resume();
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(ran.wait(soon()));
  caller.join();

  EXPECT_THROW(queue->sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
  EXPECT_TRUE(queue->syncResult([] { return true; })) << "the queue runs on after the throw";
}

// Misuse stops the process, naming the queue: a sync onto the queue the
// caller runs on (directly or through another queue's sync), asserting a
// queue off it, resuming one that is not suspended; and leaving a group more
// often than it was entered.
TEST(DispatchDeathTest, MisuseAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto queue = SerialQueue::create("test.reentrant");
  auto other = SerialQueue::create("test.other");
  EXPECT_DEATH(queue->sync([&] { queue->sync([] {}); }),
               "sync onto queue 'test.reentrant' from a block running on it would deadlock");
  EXPECT_DEATH(
      {
        Semaphore never;
        queue->async([&] { other->sync([&] { queue->sync([] {}); }); });
        never.wait(soon());
      },
      "sync onto queue 'test.reentrant'");
  EXPECT_DEATH(queue->assertCurrent("Tester::poke"), "Tester::poke.*'test.reentrant'");
  EXPECT_DEATH(other->sync([&] { queue->assertCurrent("Tester::poke"); }),
               "Tester::poke.*'test.reentrant'");
  EXPECT_DEATH(queue->resume(), "'test.reentrant'.*not suspended");
  auto group = Group::create();
  EXPECT_DEATH(group->leave(), "left more often than entered");
}

// Holds `count` pool threads with blocks that wait on the returned gate,
// once each has started; signal the gate once per block to let them go.
std::shared_ptr<Semaphore> holdPoolThreads(std::size_t count) {
  auto gate = std::make_shared<Semaphore>();
  auto started = std::make_shared<Semaphore>();
  for (std::size_t i = 0; i < count; ++i) {
    globalAsync([=] {
      started->signal();
      gate->wait();
    });
  }
  for (std::size_t i = 0; i < count; ++i)
    EXPECT_TRUE(started->wait(soon()));
  return gate;
}

// Blocked callers may hold every ordinary thread; the drains of serial
// queues, which everyone waits for, still get threads of their own. (That
// the pool grows past hundreds of blocked callers at its usual limit: the
// flood in robustness_test.)
TEST(GlobalPool, SerialQueuesKeepRunningWhenEveryOrdinaryThreadIsBlocked) {
  constexpr std::size_t kLimit = 4;
  setOrdinaryThreadLimitForTesting(kLimit);
  auto gate = holdPoolThreads(kLimit);
  ASSERT_FALSE(::testing::Test::HasFailure());
  Semaphore ordinaryRan;
  globalAsync([&] { ordinaryRan.signal(); });
  EXPECT_FALSE(ordinaryRan.wait(shortly())) << "the limit holds ordinary blocks back";

  auto queue = SerialQueue::create("test.reserve");
  Semaphore queueRan;
  for (int i = 0; i < 3; ++i)
    queue->async([&] { queueRan.signal(); });
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(queueRan.wait(soon()));
  EXPECT_TRUE(queue->syncResult([] { return true; }));

  gate->signal();
  EXPECT_TRUE(ordinaryRan.wait(soon())) << "a freed thread takes the waiting block";
  for (std::size_t i = 1; i < kLimit; ++i)
    gate->signal();
  setOrdinaryThreadLimitForTesting(kOrdinaryThreadLimit);
}

// The threads a burst started retire once the work is light again, even
// though blocks keep coming: the latest idle thread takes each one.
TEST(GlobalPool, ThreadsABurstStartedRetireUnderSteadyLightWork) {
  constexpr std::size_t kBurst = 32;
  setIdleRetirementForTesting(std::chrono::seconds(1));
  auto gate = holdPoolThreads(kBurst);
  ASSERT_FALSE(::testing::Test::HasFailure());
  EXPECT_GE(globalPoolStats().threads, kBurst);
  for (std::size_t i = 0; i < kBurst; ++i)
    gate->signal();

  const Deadline deadline = soon();
  while (globalPoolStats().threads > 4 && MonotonicClock::now() < deadline) {
    auto ran = std::make_shared<Semaphore>();
    globalAsync([=] { ran->signal(); });
    ASSERT_TRUE(ran->wait(soon()));
  }
  EXPECT_LE(globalPoolStats().threads, std::size_t{4});
  setIdleRetirementForTesting(kIdleRetirement);
}

// A burst of short blocks, such as a task per service, is run by a few
// threads taking one block after another; a thread per block would idle for
// seconds afterwards.
TEST(GlobalPool, ABurstOfShortBlocksStartsFewThreads) {
  constexpr int kBlocks = 1000;
  [[maybe_unused]] const std::size_t before = globalPoolStats().threads;
  auto ran = std::make_shared<std::atomic<int>>(0);
  auto done = std::make_shared<Semaphore>();
  for (int i = 0; i < kBlocks; ++i) {
    globalAsync([=] {
      if (ran->fetch_add(1) + 1 == kBlocks)
        done->signal();
    });
  }
  ASSERT_TRUE(done->wait(soon()));
#ifndef __SANITIZE_THREAD__
  // Under ThreadSanitizer threads run nearly one at a time, so the blocks
  // are taken no faster than submitted and the count tells nothing.
  EXPECT_LE(globalPoolStats().threads, before + 2 * kWakeAhead + 2);
#endif
}

// A block that throws is reported, and its pool thread, its queue and its
// group all go on.
TEST(Dispatch, ABlockThatThrowsIsReportedAndTheRestRuns) {
  static std::mutex mutex;
  static std::vector<std::string> reports;
  static Semaphore reported;
  auto previous = setUncaughtExceptionHandler([](const char* where, const char* what) {
    std::lock_guard lock(mutex);
    reports.push_back(std::string(where) + ": " + what);
    reported.signal();
  });
  auto queue = SerialQueue::create("test.throwing");
  auto group = Group::create();
  Semaphore ran;
  globalAsync([] { throw std::runtime_error("from the pool"); });
  queue->async([] { throw std::runtime_error("from a queue"); });
  queue->async([&] { ran.signal(); });
  group->async([] { throw 42; });
  EXPECT_TRUE(ran.wait(soon()));
  EXPECT_TRUE(group->wait(soon()));
  globalAsync([&] { ran.signal(); });
  EXPECT_TRUE(ran.wait(soon()));
  // A group's member leaves as its block unwinds, before the report.
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(reported.wait(soon()));

  setUncaughtExceptionHandler(previous);
  std::lock_guard lock(mutex);
  std::sort(reports.begin(), reports.end());
  EXPECT_EQ(reports, (std::vector<std::string>{"global queue: an exception of unknown type",
                                               "global queue: from the pool",
                                               "test.throwing: from a queue"}));
}

TEST(Semaphore, DeadlineWaitsTimeOutUnlessSignalled) {
  EXPECT_EQ(after(std::chrono::nanoseconds::max()), kForever) << "saturates, never overflows";
  EXPECT_EQ(after(std::chrono::nanoseconds::min()), Deadline::min());
  Semaphore semaphore(2);
  EXPECT_TRUE(semaphore.wait(shortly()));
  EXPECT_TRUE(semaphore.wait(after(0ns))) << "an available unit is taken even at the deadline";
  const auto start = MonotonicClock::now();
  EXPECT_FALSE(semaphore.wait(after(30ms)));
  EXPECT_GE(MonotonicClock::now() - start, 30ms);
  EXPECT_FALSE(semaphore.wait(after(-1s)));

  semaphore.signal();
  EXPECT_TRUE(semaphore.wait(after(0ns))) << "a signal before the wait is not lost";

  std::thread signaller([&] {
    std::this_thread::sleep_for(10ms);
    semaphore.signal();
  });
  EXPECT_TRUE(semaphore.wait(kForever));
  signaller.join();
}

TEST(Group, WaitsForEveryMemberOnThePoolAndOnSerialQueues) {
  auto group = Group::create();
  EXPECT_TRUE(group->wait(after(0ns))) << "an empty group is done";

  auto queue = SerialQueue::create("test.group");
  Semaphore release;
  std::atomic<int> ran{0};
  std::atomic<bool> offQueue{false};
  for (int i = 0; i < 10; ++i) {
    group->async([&] { ++ran; });
    group->async(queue, [&] {
      if (!queue->isCurrent())
        offQueue = true;
      ++ran;
    });
  }
  group->async([&] {
    release.wait();
    ++ran;
  });
  EXPECT_FALSE(group->wait(shortly()));
  release.signal();
  EXPECT_TRUE(group->wait(soon()));
  EXPECT_EQ(ran.load(), 21);
  EXPECT_FALSE(offQueue);

  // Captures are released by the time the wait returns.
  auto token = std::make_shared<int>(0);
  group->async([token] {});
  ASSERT_TRUE(group->wait(soon()));
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace vantor::dispatch
