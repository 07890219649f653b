// The arithmetic of a purge's shares and of its percentage buckets.

#include <gtest/gtest.h>

#include "purge/donation.h"

namespace vantor {
namespace {

TEST(Donation, DividesWhatIsMissingAmongTheViableDroppingTheRemainder) {
  EXPECT_EQ(purgeDonation(1000, 0, 3), 333u);
  EXPECT_EQ(purgeDonation(1000, 998, 3), 0u);    // less missing than services: nothing each
  EXPECT_EQ(purgeDonation(1000, 400, 0), 600u);  // nobody viable counts as one
  EXPECT_EQ(purgeDonation(1000, 400, -2), 600u);
  EXPECT_EQ(purgeDonation(UINT64_MAX, 0, 1), UINT64_MAX);
}

TEST(Donation, BucketsTakeTheQuotientInSinglePrecision) {
  EXPECT_EQ(purgePercentageBucket(10, 7), 60);  // 0.7f is a little below 0.7
  EXPECT_EQ(purgePercentageBucket(10, 10), 100);
  EXPECT_EQ(purgePercentageBucket(10, 15), 150);
  EXPECT_EQ(purgePercentageBucket(1000, 99), 0);
  EXPECT_EQ(purgePercentageBucket(1, INT64_MAX), 2147483640);  // saturates, never overflows
  EXPECT_EQ(purgePercentageBucket(10, -5), -50);
}

}  // namespace
}  // namespace vantor
