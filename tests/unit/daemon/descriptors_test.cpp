// Descriptor files becoming service records.

#include <fstream>

#include <gtest/gtest.h>

#include "daemon/vantor.h"
#include "platform/values/plist_io.h"
#include "support/log.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

class Descriptors : public ::testing::Test {
 protected:
  void write(const std::string& name, const Value& descriptor,
             PlistFormat format = PlistFormat::kXml) {
    auto path = dir_.path() / "System/Library/Vantor" / name;
    std::filesystem::create_directories(path.parent_path());
    auto bytes = encodePlist(descriptor, format);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }

  std::shared_ptr<Vantor> start() {
    Vantor::Options options;
    options.root = dir_.path().string();
    options.stateDirectory = (dir_.path() / "state").string();
    options.listen = false;
    return Vantor::create(options);
  }

  static Value dict(Value::Dictionary d) { return Value(std::move(d)); }
  static Value list(std::initializer_list<const char*> items) {
    Value::Array a;
    for (const char* i : items)
      a.emplace_back(i);
    return Value(a);
  }

  TempDir dir_;
};

TEST_F(Descriptors, AnIdAloneMakesAPurgingService) {
  write("a.plist", dict({{"VANTOR_ID", Value("com.example.a")}}));
  auto v = start();
  ASSERT_EQ(v->services.count("com.example.a"), 1u);
  const auto& record = *v->services["com.example.a"];
  EXPECT_TRUE(record.doesPurge());
  EXPECT_FALSE(record.doesPeriodic());
  EXPECT_FALSE(record.doNotQuery());
  EXPECT_TRUE(record.desiredNotifications().isNull());
  EXPECT_EQ(v->daemons, Vantor::StringSet{"com.example.a"});
}

TEST_F(Descriptors, ReadsKindsDoNotQueryAndNotificationsFromBothEncodings) {
  write("periodic.plist",
        dict({{"VANTOR_ID", Value("p")}, {"VANTOR_SERVICES", list({"PERIODIC"})}}),
        PlistFormat::kBinary);
  write("neither.plist", dict({{"VANTOR_ID", Value("n")}, {"VANTOR_SERVICES", list({})}}));
  write("quiet.plist", dict({{"VANTOR_ID", Value("q")},
                             {"VANTOR_DO_NOT_QUERY", Value(false)},
                             {"VANTOR_NOTIFICATIONS",
                              list({"VANTOR_CACHE_ENABLED", "VANTOR_CACHE_ENABLED", "OTHER"})}}));
  auto v = start();
  EXPECT_TRUE(v->services["p"]->doesPeriodic());
  EXPECT_FALSE(v->services["p"]->doesPurge());
  EXPECT_FALSE(v->services["n"]->doesPeriodic());
  EXPECT_FALSE(v->services["n"]->doesPurge());
  EXPECT_TRUE(v->services["q"]->doNotQuery());
  EXPECT_TRUE(v->services["q"]->wantsNotification("VANTOR_CACHE_ENABLED"));
  EXPECT_FALSE(v->services["q"]->wantsNotification("VANTOR_USER_DEFAULTS"));
  EXPECT_EQ(v->services["q"]->desiredNotifications().asArray()->size(), 2u);
}

TEST_F(Descriptors, SkipsFilesWithoutAnIdSilentlyAndBadFilesWithALog) {
  write("noid.plist", dict({{"VANTOR_SERVICES", list({"PURGE"})}}));
  write("array.plist", list({"a"}));
  auto path = dir_.path() / "System/Library/Vantor/text.plist";
  std::ofstream(path) << "hello";
  write("deep/deeper/ok.plist", dict({{"VANTOR_ID", Value("deep")}}));
  setLogHandleForTesting(true, 3);
  LogCapture capture;
  auto v = start();
  setLogHandleForTesting(false, 0);
  EXPECT_EQ(v->daemons, Vantor::StringSet{"deep"});
  std::size_t failures = 0;
  bool absentError = false;
  for (const auto& line : capture.lines()) {
    if (line.find("propertyListWithData failed") != std::string::npos) {
      ++failures;
      absentError = absentError || line.find("failed: (null)") != std::string::npos;
    }
  }
  // text.plist, array.plist and the two directories "deep" and "deep/deeper".
  EXPECT_EQ(failures, 4u);
  EXPECT_TRUE(absentError) << "a non-dictionary top level logs an absent error";
}

TEST_F(Descriptors, StartsEmptyWithoutADescriptorDirectory) {
  auto v = start();
  EXPECT_TRUE(v->services.empty());
  EXPECT_TRUE(v->daemons.empty());
  EXPECT_EQ(v->plistDir(), dir_.path().string() + "/System/Library/Vantor/");
  EXPECT_EQ(v->default_values, (Value::Dictionary{{"VANTOR_CACHE_ENABLED", Value(true)}}));
}

TEST_F(Descriptors, ALaterDescriptorOfTheSameIdWins) {
  write("one.plist", dict({{"VANTOR_ID", Value("same")}, {"VANTOR_SERVICES", list({"PURGE"})}}));
  write("two.plist", dict({{"VANTOR_ID", Value("same")}, {"VANTOR_SERVICES", list({"PERIODIC"})}}));
  auto v = start();
  ASSERT_EQ(v->services.size(), 1u);
  // Which file is read last is the directory's order; either way one record
  // remains with the kinds of exactly one of the files.
  const auto& r = *v->services["same"];
  EXPECT_NE(r.doesPurge(), r.doesPeriodic());
}

}  // namespace
}  // namespace vantor::test
