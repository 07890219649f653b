// Which statistic a low-disk event counts, and that the low volumes, not the
// flags, decide what is purged.

#include <gtest/gtest.h>

#include "maintenance/low_disk.h"
#include "support/log.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

// Runs the handler against fake low volumes and records what it does.
class LowDiskEvent : public ::testing::Test {
 protected:
  void handle(std::uint64_t flags, std::vector<std::string> lowVolumes) {
    setLogHandleForTesting(true, 5);
    handleLowDiskEvent(
        VolumeEvent{flags, "/"},
        LowDiskActions{
            [lowVolumes] { return lowVolumes; },
            [this](const Value& request) { purged_.push_back(request); },
            [this](const std::optional<std::string>& statistic) { counted_.push_back(statistic); },
        });
    setLogHandleForTesting(false, 0);
  }

  LogCapture log_;
  std::vector<Value> purged_;
  std::vector<std::optional<std::string>> counted_;
};

TEST_F(LowDiskEvent, BothBitsCountAsLowDiskAfterTheFixedPurge) {
  handle(0x204, {"/"});
  ASSERT_EQ(purged_.size(), 1u);
  EXPECT_EQ(purged_[0], Value(Value::Dictionary{
                            {"VANTOR_VOLUME", Value("/")},
                            {"VANTOR_AMOUNT", Value(std::uint64_t{262'144'000})},
                            {"VANTOR_ASYNC", Value(true)},
                            {"VANTOR_PURGE_TIMEOUT", Value(std::int32_t{300})},
                        }));
  EXPECT_EQ(counted_, (std::vector<std::optional<std::string>>{"VT_LOWDISK_EVENT"}));
  EXPECT_TRUE(log_.contains("<3>-[Vantor handleVFSStreamXPCEvent:] caught VQ_LOWDISK"));
  EXPECT_FALSE(log_.contains("VQ_VERYLOWDISK"));
}

TEST_F(LowDiskEvent, NoFlagsStillPurgesEveryLowVolumeInOrderAndCountsWithoutAName) {
  handle(0, {"/", "/data"});
  ASSERT_EQ(purged_.size(), 2u);
  EXPECT_EQ(*purged_[0].find("VANTOR_VOLUME"), Value("/"));
  EXPECT_EQ(*purged_[1].find("VANTOR_VOLUME"), Value("/data"));
  EXPECT_EQ(counted_, (std::vector<std::optional<std::string>>{std::nullopt}));
}

TEST_F(LowDiskEvent, VeryLowWithNoLowVolumeDoesNothing) {
  handle(0x200, {});
  EXPECT_TRUE(purged_.empty());
  EXPECT_TRUE(counted_.empty());
  EXPECT_TRUE(log_.contains("No volumes report low disk space, skipping purge"));
}

}  // namespace
}  // namespace vantor::test
