// The coordinator in process: in-flight sets, opt-outs and the count of
// purging services; urgency readings and purge-share buckets; a descriptor
// scan that meets a directory it cannot open.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_context.h"
#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "platform/values/plist_io.h"
#include "purge/donation.h"
#include "support/log.h"

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

// A chain of nested directories that goes on past the longest path the
// system opens, so even root gets an error when the scan reaches its end.
// Removed here, bottom up: the temporary directory's removal cannot.
class TooDeep {
 public:
  explicit TooDeep(const std::filesystem::path& top) {
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; fd >= 0 && level < 30; ++level) {
      ::mkdirat(fd, kName.c_str(), 0755);
      fds_.push_back(fd);
      fd = ::openat(fd, kName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    if (fd >= 0)
      ::close(fd);
  }
  ~TooDeep() {
    for (auto it = fds_.rbegin(); it != fds_.rend(); ++it) {
      ::unlinkat(*it, kName.c_str(), AT_REMOVEDIR);
      ::close(*it);
    }
  }
  static inline const std::string kName = std::string(200, 'd');

 private:
  std::vector<int> fds_;
};

// A coordinator off the bus on `dir` as its root, started with errors logged.
std::shared_ptr<Vantor> startLogging(const TempDir& dir) {
  setLogHandleForTesting(true, 3);
  Vantor::Options options;
  options.root = dir.path().string();
  options.stateDirectory = (dir.path() / "state").string();
  options.listen = false;
  auto v = Vantor::create(options);
  setLogHandleForTesting(false, 0);
  return v;
}

TEST(DescriptorScan, ADirectoryThatCannotBeOpenedIsLoggedAndTheScanGoesOn) {
  TempDir dir;
  const auto top = dir.path() / "System/Library/Vantor";
  // A descriptor beside the chain's first ten steps: in each directory the
  // file and the next step come in the file system's order, so some files are
  // reached only after the scan has come back from the failed depths.
  std::string chain;
  Vantor::StringSet expected;
  for (int level = 0; level < 10; ++level) {
    chain += TooDeep::kName + "/";
    const std::string id = "level" + std::to_string(level);
    std::filesystem::create_directories(top / chain);
    const auto bytes =
        encodePlist(Value(Value::Dictionary{{"VANTOR_ID", Value(id)}}), PlistFormat::kXml);
    std::ofstream(top / chain / (id + ".plist")) << std::string(bytes.begin(), bytes.end());
    expected.insert(id);
  }
  TooDeep deep(top);
  LogCapture capture;
  auto v = startLogging(dir);
  EXPECT_EQ(v->daemons, expected);
  EXPECT_TRUE(capture.contains("cannot enumerate"));
}

// The Linux homes beside the protocol's directory: /etc masks /usr/lib by
// file name, an empty file or a link to /dev/null disables a name, and an ID
// known already stays as it was first read.
TEST(DescriptorHomes, EtcMasksUsrLibByNameAndAKnownIdIsSkipped) {
  TempDir dir;
  const auto write = [&](const std::string& path, const std::string& id, bool purge) {
    std::filesystem::create_directories((dir.path() / path).parent_path());
    Value::Dictionary d{{"VANTOR_ID", Value(id)}};
    if (!purge)
      d.emplace("VANTOR_SERVICES", Value(Value::Array{Value("PERIODIC")}));
    const auto bytes = encodePlist(Value(d), PlistFormat::kXml);
    std::ofstream(dir.path() / path) << std::string(bytes.begin(), bytes.end());
  };
  const std::string etc = "etc/vantor/services.d/", lib = "usr/lib/vantor/services.d/";
  write("System/Library/Vantor/first.plist", "com.example.first", true);
  write(lib + "a.plist", "com.example.shipped", true);
  write(etc + "a.plist", "com.example.local", false);  // masks the shipped a.plist
  write(lib + "b.plist", "com.example.emptied", true);
  std::ofstream(dir.path() / (etc + "b.plist")).flush();  // empty: disables b
  write(lib + "c.plist", "com.example.nulled", true);
  std::filesystem::create_symlink("/dev/null", dir.path() / (etc + "c.plist"));
  write(lib + "d.plist", "com.example.first", false);  // known: skipped
  write(lib + "e.conf", "com.example.notplist", true);

  LogCapture capture;
  auto v = startLogging(dir);
  EXPECT_EQ(v->daemons, (Vantor::StringSet{"com.example.first", "com.example.local"}));
  EXPECT_TRUE(v->services.at("com.example.first")->doesPurge());
  EXPECT_FALSE(v->services.at("com.example.local")->doesPurge());
  EXPECT_TRUE(capture.contains("com.example.first is already known"));
}

}  // namespace
}  // namespace vantor::test
