// The recent-info records: their archived form and their validation.

#include <gtest/gtest.h>

#include "platform/clock/clock.h"
#include "platform/values/plist_io.h"
#include "support/recent_info.h"
#include "support/volumes.h"

namespace vantor {
namespace {

constexpr Date kNow{1795300000LL * 1000000 + 123456};

Date secondsAgo(double s) {
  return Date{kNow.microsecondsSinceEpoch - static_cast<std::int64_t>(s * 1e6)};
}

class RecentInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    clock::setWallClockForTesting([] { return kNow; });
  }
  void TearDown() override { clock::setWallClockForTesting({}); }

  // A record for "/" whose free space matches the disk now.
  static std::shared_ptr<VantorRecentInfo> rootRecord(VantorRecentVolumeInfo::Services services,
                                                      std::int64_t freespaceOffset = 0) {
    const auto freespace = static_cast<std::uint64_t>(
        static_cast<std::int64_t>(volumeFreespace("/")) + freespaceOffset);
    return VantorRecentInfo::vantorRecentInfo(
        {{"/", VantorRecentVolumeInfo::vantorRecentVolumeInfo(std::move(services), freespace, kNow,
                                                              "/")}});
  }
  static std::shared_ptr<VantorRecentServiceInfo> answer(Value amount, Date when = kNow) {
    return VantorRecentServiceInfo::vantorRecentServiceInfo(std::move(amount), when);
  }
};

TEST_F(RecentInfo, ArchivesEveryAmountTypeAndReadsItBack) {
  auto record = rootRecord({{"com.example.u", answer(Value(std::uint64_t{1} << 40))},
                            {"com.example.i", answer(Value(std::int64_t{-3}), secondsAgo(10.5))},
                            {"com.example.r", answer(Value(2.5))},
                            {"com.example.s", answer(Value("lots"))},
                            {"com.example.n", answer(Value())}});
  record->volumes.emplace("/data", VantorRecentVolumeInfo::vantorRecentVolumeInfo(
                                       {{"com.example.u", answer(Value(7))}}, 42, kNow, "/data"));
  const auto bytes = archiveRecentInfo(*record);

  // The stored form is a keyed archive whose root is object 1.
  auto plist = parsePlist(bytes);
  ASSERT_TRUE(plist.value);
  EXPECT_EQ(*plist.value->find("$archiver"), Value("NSKeyedArchiver"));
  EXPECT_EQ(*plist.value->find("$version"), Value(100000));
  EXPECT_EQ(*plist.value->find("$top")->find("root"),
            Value(Value::Dictionary{{"CF$UID", Value(std::uint64_t{1})}}));
  EXPECT_EQ(plist.value->find("$objects")->get<Value::Array>().front(), Value("$null"));

  // What is read back archives to the same bytes: nothing was lost.
  std::string error;
  auto back = unarchiveRecentInfo(bytes, &error);
  ASSERT_TRUE(back) << error;
  ASSERT_EQ(back->volumes.size(), 2u);
  EXPECT_EQ(back->volumes.at("/")->services.at("com.example.s")->amount, Value("lots"));
  EXPECT_EQ(archiveRecentInfo(*back), bytes);
}

TEST_F(RecentInfo, MalformedArchivesAreRefusedWithAReason) {
  const auto good = archiveRecentInfo(*rootRecord({{"com.example.a", answer(Value(1))}}));
  // Edits go through checked accessors: a wrong shape throws and fails the
  // test instead of dereferencing nothing.
  auto variant = [&](auto edit) {
    Value archive = parsePlist(good).value.value();
    edit(archive.get<Value::Dictionary>());
    return encodePlist(archive, PlistFormat::kBinary);
  };
  auto objects = [](Value::Dictionary& archive) -> Value::Array& {
    return archive.at("$objects").get<Value::Array>();
  };
  const std::vector<std::vector<std::uint8_t>> bad = {
      {'n', 'o', 'p', 'e'},
      encodePlist(Value(Value::Array{}), PlistFormat::kBinary),
      variant([](Value::Dictionary& a) { a.at("$objects") = Value("x"); }),
      variant([](Value::Dictionary& a) {
        a.at("$top") = Value(Value::Dictionary{
            {"root", Value(Value::Dictionary{{"CF$UID", Value(std::uint64_t{9999})}})}});
      }),
      // The root's volumes refer back to the root itself.
      variant([&](Value::Dictionary& a) {
        objects(a).at(1).get<Value::Dictionary>().at("volumes") =
            Value(Value::Dictionary{{"CF$UID", Value(std::uint64_t{1})}});
      }),
      variant([&](Value::Dictionary& a) {
        for (auto& o : objects(a)) {
          if (o.find("$classname") && *o.find("$classname") == Value("VantorRecentInfo"))
            o.get<Value::Dictionary>().at("$classname") = Value("SomethingElse");
        }
      }),
  };
  for (std::size_t i = 0; i < bad.size(); ++i) {
    std::string error;
    EXPECT_FALSE(unarchiveRecentInfo(bad[i], &error)) << i;
    EXPECT_FALSE(error.empty()) << i;
  }
}

// Answers older than the window, or dated well ahead (the clock was set
// back), fall one by one; a volume whose free space moved beyond the
// tolerance, in either direction, falls as a whole; an empty record goes.
TEST_F(RecentInfo, StaleAnswersAndMovedVolumesFall) {
  auto record = rootRecord({{"com.example.fresh", answer(Value(1), secondsAgo(119))},
                            {"com.example.stale", answer(Value(1), secondsAgo(121))},
                            {"com.example.ahead", answer(Value(1), secondsAgo(-60))},
                            {"com.example.now", answer(Value(1), secondsAgo(-1))}});
  EXPECT_EQ(record->validate(5242880, 120.0), VantorRecentInfo::kStoreAgain);
  const auto& services = record->volumes.at("/")->services;
  EXPECT_EQ(services.count("com.example.stale") + services.count("com.example.ahead"), 0u);
  EXPECT_EQ(services.size(), 2u);
  EXPECT_EQ(record->validate(5242880, 120.0), VantorRecentInfo::kUnchanged);
  clock::setWallClockForTesting([] { return Date{kNow.microsecondsSinceEpoch + 2000000}; });
  EXPECT_EQ(record->validate(5242880, 120.0), VantorRecentInfo::kStoreAgain);
  clock::setWallClockForTesting([] { return Date{kNow.microsecondsSinceEpoch + 200000000}; });
  EXPECT_EQ(record->validate(5242880, 120.0), VantorRecentInfo::kRemoveRecord);
  EXPECT_TRUE(record->volumes.empty());
  clock::setWallClockForTesting([] { return kNow; });

  for (std::int64_t offset : {std::int64_t{64} << 20, -(std::int64_t{64} << 20)}) {
    auto moved = rootRecord({{"com.example.a", answer(Value(1))}}, offset);
    EXPECT_EQ(moved->validate(5242880, 120.0), VantorRecentInfo::kRemoveRecord) << offset;
  }
  auto steady = rootRecord({{"com.example.a", answer(Value(1))}}, 4096);
  EXPECT_EQ(steady->validate(5242880, 120.0), VantorRecentInfo::kUnchanged);
}

}  // namespace
}  // namespace vantor
