// In-flight sets, opt-outs and the count of purging services.

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "support/log.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

using InFlight = CoordinatorTest;

TEST_F(InFlight, AddsOnceAndRemovesOnce) {
  Vantor& v = *vantor_;
  EXPECT_EQ(v.requestsInFlight(v.purgeableInFlight), 0u);
  EXPECT_TRUE(v.updateInFlight("a", v.purgeableInFlight, InFlightChange::kAdd));
  EXPECT_FALSE(v.updateInFlight("a", v.purgeableInFlight, InFlightChange::kAdd));
  EXPECT_TRUE(v.updateInFlight("b", v.purgeableInFlight, InFlightChange::kAdd));
  EXPECT_TRUE(v.updateInFlight("a", v.purgeInFlight, InFlightChange::kAdd));
  EXPECT_EQ(v.requestsInFlight(v.purgeableInFlight), 2u);
  EXPECT_EQ(v.requestsInFlight(v.purgeInFlight), 1u);
  EXPECT_TRUE(v.updateInFlight("a", v.purgeableInFlight, InFlightChange::kRemove));
  EXPECT_FALSE(v.updateInFlight("a", v.purgeableInFlight, InFlightChange::kRemove));
  EXPECT_FALSE(v.updateInFlight("never", v.periodicInFlight, InFlightChange::kRemove));
  EXPECT_EQ(v.requestsInFlight(v.purgeableInFlight), 1u);
}

TEST_F(InFlight, LogsADoubleAddOnlyWithAHandleAndAStrayRemoveWithout) {
  Vantor& v = *vantor_;
  setLogHandleForTesting(false, 0);
  LogCapture capture;
  v.updateInFlight("x", v.purgeInFlight, InFlightChange::kAdd);
  v.updateInFlight("x", v.purgeInFlight, InFlightChange::kAdd);
  EXPECT_FALSE(capture.contains("which is already inFlight"));
  v.updateInFlight("y", v.purgeInFlight, InFlightChange::kRemove);
  EXPECT_TRUE(
      capture.contains("<5>-[Vantor updateInFlight:set:add:] trying to remove \"y\", "
                       "which is not inFlight"));
  setLogHandleForTesting(true, 3);
  v.updateInFlight("x", v.purgeInFlight, InFlightChange::kAdd);
  EXPECT_TRUE(
      capture.contains("<3>-[Vantor updateInFlight:set:add:] trying to add \"x\", "
                       "which is already inFlight"));
}

TEST_F(InFlight, TestAndSetAdmitsExactlyOneOfManyConcurrentAdders) {
  Vantor& v = *vantor_;
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> winners{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        if (v.updateInFlight("svc", v.purgeableInFlight, InFlightChange::kAdd))
          ++winners;
      });
    }
    for (auto& t : threads)
      t.join();
    EXPECT_EQ(winners.load(), 1);
    EXPECT_TRUE(v.updateInFlight("svc", v.purgeableInFlight, InFlightChange::kRemove));
  }
}

TEST_F(InFlight, OptOutLastsLessThanTwoMinutesFromTheLatest) {
  Vantor& v = *vantor_;
  std::atomic<std::int64_t> nowUs{1'700'000'000'000'000};
  clock::setWallClockForTesting([&] { return Date{nowUs.load()}; });
  EXPECT_FALSE(v.optOutService("svc", OptOut::kQuery));
  EXPECT_FALSE(v.optOutService("svc", OptOut::kRecord));
  nowUs += 119'000'000;
  EXPECT_TRUE(v.optOutService("svc", OptOut::kQuery));
  nowUs += 1'000'000;  // 120 s after the opt-out
  EXPECT_FALSE(v.optOutService("svc", OptOut::kQuery));
  EXPECT_EQ(v.collection_queue->syncResult([&] { return v.optOuts.count("svc"); }), 0u);
  nowUs -= 60'000'000;  // even going back in time, the entry is gone
  EXPECT_FALSE(v.optOutService("svc", OptOut::kQuery));

  // A new opt-out restarts the two minutes.
  v.optOutService("svc", OptOut::kRecord);
  nowUs += 100'000'000;
  v.optOutService("svc", OptOut::kRecord);
  nowUs += 100'000'000;
  EXPECT_TRUE(v.optOutService("svc", OptOut::kQuery));
}

TEST_F(InFlight, CountsPurgingServicesWhateverTheirOptOutsOrRequests) {
  Vantor& v = *vantor_;
  v.operation_queue->sync([&] {
    for (auto [id, purges] : {std::pair{"a", true}, {"b", false}, {"c", true}}) {
      auto record = std::make_shared<VTService>();
      record->setID(id);
      record->setDoesPurge(purges);
      v.services[id] = record;
    }
  });
  v.optOutService("a", OptOut::kRecord);
  v.updateInFlight("c", v.purgeInFlight, InFlightChange::kAdd);
  EXPECT_EQ(v.operation_queue->syncResult([&] { return v.purgingServices(); }), 2);
}

TEST_F(InFlight, CountingPurgingServicesOffTheOperationQueueStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(vantor_->purgingServices(), "purgingServices");
}

}  // namespace
}  // namespace vantor::test
