// Which statistic a low-disk event counts, and that the low volumes, not the
// flags, decide what is purged. (The fixed request itself is asserted against
// the real daemon in low_space_test.)

#include <gtest/gtest.h>

#include "common/test_context.h"
#include "maintenance/low_disk.h"

namespace vantor::test {
namespace {

struct Outcome {
  std::vector<std::string> purged;  // the volume of each request, in order
  std::vector<std::optional<std::string>> counted;
};

Outcome handle(std::uint64_t flags, std::vector<std::string> lowVolumes) {
  Outcome out;
  handleLowDiskEvent(VolumeEvent{flags, "/"},
                     LowDiskActions{
                         [lowVolumes] { return lowVolumes; },
                         [&](const Value& request) {
                           out.purged.push_back(*request.find("VANTOR_VOLUME")->asString());
                         },
                         [&](const std::optional<std::string>& s) { out.counted.push_back(s); },
                     });
  return out;
}

TEST(LowDiskEvent, PurgesEveryLowVolumeInOrderAndCountsTheEventByItsFlags) {
  using Counted = std::vector<std::optional<std::string>>;
  const std::vector<std::string> both = {"/", "/data"};
  // Both bits count as low disk; neither still purges and counts unnamed.
  EXPECT_EQ(handle(0x204, both).counted, Counted{"VT_LOWDISK_EVENT"});
  EXPECT_EQ(handle(0x200, both).counted, Counted{"VT_VERYLOWDISK_EVENT"});
  const Outcome unnamed = handle(0, both);
  EXPECT_EQ(unnamed.purged, both);
  EXPECT_EQ(unnamed.counted, Counted{std::nullopt});

  // With no volume low, nothing is purged or counted.
  const Outcome none = handle(0x200, {});
  EXPECT_TRUE(none.purged.empty());
  EXPECT_TRUE(none.counted.empty());
}

}  // namespace
}  // namespace vantor::test
