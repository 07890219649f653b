// The coordinator in process: in-flight sets, opt-outs and the count of
// purging services; urgency readings and purge-share buckets.

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_context.h"
#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "purge/donation.h"

namespace vantor::test {
namespace {

using Coordinator = CoordinatorTest;

// Each set is a test-and-set: of many concurrent adders of one ID exactly one
// wins, and so does exactly one of many concurrent removers.
TEST_F(Coordinator, InFlightSetsAdmitExactlyOneOfManyConcurrentAddersOrRemovers) {
  Vantor& v = *vantor_;
  for (int round = 0; round < 20; ++round) {
    for (auto change : {InFlightChange::kAdd, InFlightChange::kRemove}) {
      std::atomic<int> winners{0};
      std::vector<std::thread> threads;
      for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
          if (v.updateInFlight("svc", v.purgeableInFlight, change))
            ++winners;
        });
      }
      for (auto& t : threads)
        t.join();
      EXPECT_EQ(winners.load(), 1);
    }
  }
  EXPECT_EQ(v.requestsInFlight(v.purgeableInFlight), 0u);
}

TEST_F(Coordinator, AnOptOutLastsLessThanTwoMinutesFromTheLatest) {
  Vantor& v = *vantor_;
  std::atomic<std::int64_t> nowUs{1'700'000'000'000'000};
  clock::setWallClockForTesting([&] { return Date{nowUs.load()}; });
  EXPECT_FALSE(v.optOutService("svc", OptOut::kQuery));
  EXPECT_FALSE(v.optOutService("svc", OptOut::kRecord));
  nowUs += 119'000'000;
  EXPECT_TRUE(v.optOutService("svc", OptOut::kQuery));
  nowUs += 1'000'000;  // 120 s after the opt-out
  EXPECT_FALSE(v.optOutService("svc", OptOut::kQuery));
  nowUs -= 60'000'000;  // even going back in time, the entry is gone
  EXPECT_FALSE(v.optOutService("svc", OptOut::kQuery));

  // A new opt-out restarts the two minutes.
  v.optOutService("svc", OptOut::kRecord);
  nowUs += 100'000'000;
  v.optOutService("svc", OptOut::kRecord);
  nowUs += 100'000'000;
  EXPECT_TRUE(v.optOutService("svc", OptOut::kQuery));
}

TEST_F(Coordinator, CountsPurgingServicesWhateverTheirOptOutsOrRequests) {
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

TEST_F(Coordinator, ReadsUrgenciesOneToFourAndEverythingElseAsZero) {
  const std::vector<std::pair<Value, std::int32_t>> cases = {
      {Value(4), 4},  {Value(1), 1},   {Value(5), 0},   {Value(0), 0},
      {Value(-1), 0}, {Value("2"), 2}, {Value(3.7), 3}, {Value(std::uint64_t{1} << 32 | 2), 0},
  };
  for (const auto& [value, urgency] : cases) {
    EXPECT_EQ(vantor_->urgencyFromInfo(Value(Value::Dictionary{{"VANTOR_URGENCY", value}}),
                                       "VANTOR_URGENCY"),
              urgency)
        << value.description();
  }
  EXPECT_EQ(vantor_->urgencyFromInfo(Value(Value::Dictionary{}), "VANTOR_URGENCY"), 0);
}

TEST(PurgeBuckets, TakeTheQuotientInSinglePrecisionAndSaturate) {
  EXPECT_EQ(purgePercentageBucket(10, 7), 60);  // 0.7f is a little below 0.7
  EXPECT_EQ(purgePercentageBucket(10, 15), 150);
  EXPECT_EQ(purgePercentageBucket(1000, 99), 0);
  EXPECT_EQ(purgePercentageBucket(1, INT64_MAX), 2147483640);
  EXPECT_EQ(purgePercentageBucket(10, -5), -50);
}

}  // namespace
}  // namespace vantor::test
