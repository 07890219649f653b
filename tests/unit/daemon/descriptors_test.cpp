// Descriptor files as the coordinator reads them at start-up: the protocol's
// directory at any depth, the Linux homes beside it, and what a file must
// hold to make a service record.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "common/test_context.h"
#include "daemon/vantor.h"
#include "platform/values/plist_io.h"
#include "support/log.h"

namespace vantor::test {
namespace {

namespace fs = std::filesystem;

void writePlist(const fs::path& path, const Value& value, PlistFormat format = PlistFormat::kXml) {
  fs::create_directories(path.parent_path());
  const auto bytes = encodePlist(value, format);
  std::ofstream(path) << std::string(bytes.begin(), bytes.end());
}

Value descriptor(const std::string& id, Value::Dictionary rest = {}) {
  rest.emplace("VANTOR_ID", Value(id));
  return Value(std::move(rest));
}

Value names(std::initializer_list<const char*> items) {
  return Value(Value::Array(items.begin(), items.end()));
}

// A coordinator off the bus on `dir` as its root, started with errors logged.
std::shared_ptr<Vantor> startOn(const TempDir& dir) {
  setLogHandleForTesting(true, 3);
  auto v = startCoordinator(dir);
  setLogHandleForTesting(false, 0);
  return v;
}

// How a service record reads: its kinds, its mark and its notification names.
std::string reading(const Vantor& v, const std::string& id) {
  const auto& s = *v.services.at(id);
  return std::string(s.doesPurge() ? "purge " : "") + (s.doesPeriodic() ? "periodic " : "") +
         (s.doNotQuery() ? "do-not-query " : "") + s.desiredNotifications().description();
}

// In either encoding, also in a subdirectory; an ID alone makes a purging
// service, an empty list of kinds neither kind, any VANTOR_DO_NOT_QUERY marks
// it, notification names are a set, and of two descriptors of one ID the one
// read last wins. Files that do not parse or hold no dictionary are logged
// and skipped, one without an ID skipped, and the rest read.
// The Linux homes beside the protocol's directory: /etc masks /usr/lib by
// file name, an empty file or a link to /dev/null disables a name, only
// `*.plist` files count, and an ID known already stays as it was first read.
TEST(Descriptors, ReadEveryHomeAtAnyDepthAndSkipWhatHoldsNoDictionaryWithANewId) {
  TempDir dir;
  const fs::path top = dir.path() / "System/Library/Vantor",
                 etc = dir.path() / "etc/vantor/services.d",
                 lib = dir.path() / "usr/lib/vantor/services.d";
  writePlist(top / "tidy.plist",
             descriptor("tidy", {{"VANTOR_SERVICES", names({"PERIODIC"})},
                                 {"VANTOR_DO_NOT_QUERY", Value(false)},
                                 {"VANTOR_NOTIFICATIONS", names({"N1", "N1", "N2"})}}),
             PlistFormat::kBinary);
  writePlist(top / "sub/plain.plist", descriptor("plain"));
  writePlist(top / "neither.plist", descriptor("neither", {{"VANTOR_SERVICES", names({})}}));
  writePlist(top / "one.plist", descriptor("same", {{"VANTOR_SERVICES", names({"PURGE"})}}));
  writePlist(top / "two.plist", descriptor("same", {{"VANTOR_SERVICES", names({"PERIODIC"})}}));
  writePlist(top / "noid.plist", Value(Value::Dictionary{{"VANTOR_SERVICES", Value("x")}}));
  writePlist(top / "array.plist", names({"x"}));
  std::ofstream(top / "garbage.plist") << "this is not a property list";
  fs::create_symlink("/nonexistent/target", top / "dangling.plist");
  ASSERT_EQ(::mkfifo((top / "fifo.plist").c_str(), 0600), 0);
  writePlist(top / "first.plist", descriptor("first"));
  writePlist(lib / "a.plist", descriptor("shipped"));
  writePlist(etc / "a.plist", descriptor("local", {{"VANTOR_SERVICES", names({"PERIODIC"})}}));
  writePlist(lib / "b.plist", descriptor("emptied"));
  std::ofstream(etc / "b.plist").flush();
  writePlist(lib / "c.plist", descriptor("nulled"));
  fs::create_symlink("/dev/null", etc / "c.plist");
  writePlist(lib / "d.plist", descriptor("first", {{"VANTOR_SERVICES", names({"PERIODIC"})}}));
  writePlist(lib / "e.conf", descriptor("notplist"));

  LogCapture capture;
  auto v = startOn(dir);
  EXPECT_EQ(v->daemons, (Vantor::StringSet{"tidy", "plain", "neither", "same", "first", "local"}));
  EXPECT_EQ(reading(*v, "tidy"), "periodic do-not-query (\"N1\", \"N2\")");
  EXPECT_EQ(reading(*v, "plain"), "purge (null)");
  EXPECT_EQ(reading(*v, "neither"), "(null)");
  EXPECT_EQ(reading(*v, "first"), "purge (null)");
  EXPECT_EQ(reading(*v, "local"), "periodic (null)");
  EXPECT_TRUE(capture.contains("first is already known"));
  // Which file is read last is the directory's order.
  std::vector<std::string> order;
  for (const auto& entry : fs::directory_iterator(top))
    order.push_back(entry.path().filename().string());
  const bool twoLast =
      std::ranges::find(order, "two.plist") > std::ranges::find(order, "one.plist");
  EXPECT_EQ(reading(*v, "same"), twoLast ? "periodic (null)" : "purge (null)");

  // The four bad files and the subdirectory's entry itself are each logged
  // once; the top level that is no dictionary parsed, so its error is absent.
  const auto lines = capture.lines();
  const auto failed = [](const std::string& l) {
    return l.find("propertyListWithData failed") != l.npos;
  };
  EXPECT_EQ(std::ranges::count_if(lines, failed), 5) << ::testing::PrintToString(lines);
  EXPECT_TRUE(capture.contains("propertyListWithData failed: (null)"));
}

// A chain of nested directories that goes on past the longest path the
// system opens, so even root gets an error when the scan reaches its end.
// Removed here, bottom up: the temporary directory's removal cannot.
class TooDeep {
 public:
  explicit TooDeep(const fs::path& top) {
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

TEST(Descriptors, ADirectoryThatCannotBeOpenedIsLoggedAndTheScanGoesOn) {
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
    writePlist(top / chain / (id + ".plist"), descriptor(id));
    expected.insert(id);
  }
  TooDeep deep(top);
  LogCapture capture;
  EXPECT_EQ(startOn(dir)->daemons, expected);
  EXPECT_TRUE(capture.contains("cannot enumerate"));
}

}  // namespace
}  // namespace vantor::test
