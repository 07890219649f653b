// A descriptor scan that meets a directory it cannot open. (How descriptors
// read is asserted through the daemon's listing in admin_test.)

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "daemon/vantor.h"
#include "platform/values/plist_io.h"
#include "support/log.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

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
    std::filesystem::create_directories(top / chain);
    const auto bytes =
        encodePlist(Value(Value::Dictionary{{"VANTOR_ID", Value(id)}}), PlistFormat::kXml);
    std::ofstream(top / chain / (id + ".plist")) << std::string(bytes.begin(), bytes.end());
    expected.insert(id);
  }
  TooDeep deep(top);
  setLogHandleForTesting(true, 3);
  LogCapture capture;
  Vantor::Options options;
  options.root = dir.path().string();
  options.stateDirectory = (dir.path() / "state").string();
  options.listen = false;
  auto v = Vantor::create(options);
  setLogHandleForTesting(false, 0);
  EXPECT_EQ(v->daemons, expected);
  EXPECT_TRUE(capture.contains("cannot enumerate"));
}

}  // namespace
}  // namespace vantor::test
