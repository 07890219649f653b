// A purge's two removers share its files: every byte they free is counted
// once, the oldest files go first, the purge stops at the amount asked, and a
// cancel from another thread stops it between two files.

#include "purger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

namespace vantor::cachedir {
namespace {

namespace fs = std::filesystem;

constexpr int kFiles = 400;
constexpr std::size_t kSize = 8192;

class Purger : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantor-purger-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    const std::string bytes(kSize, 'p');
    const std::time_t now = std::time(nullptr);
    // File i was last used i hours before the oldest-but-one: file 0 is the
    // newest. Four subdirectories, so the removers work in several.
    for (int i = 0; i < kFiles; ++i) {
      const fs::path path = dir_ / ("d" + std::to_string(i % 4)) / ("f" + std::to_string(i));
      fs::create_directories(path.parent_path());
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      ASSERT_GE(fd, 0);
      ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
      const struct timespec used { now - 86400 - i * 3600L, 0 };
      const struct timespec times[2] = {used, used};
      ::futimens(fd, times);
      ::close(fd);
    }
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::shared_ptr<const RootIndex> index() {
    DirPolicy policy;
    policy.source = "test";
    policy.path = dir_.string();
    policy.minimumAge = 0;
    const std::atomic<bool> stop{false};
    return Scanner::scan(policy, Scanner::openRoot(policy), stop, {});
  }
  bool exists(int i) const {
    return fs::exists(dir_ / ("d" + std::to_string(i % 4)) / ("f" + std::to_string(i)));
  }

  fs::path dir_;
};

TEST_F(Purger, FreesWhatWasAskedOldestFirstCountingEachByteOnce) {
  const auto idx = index();
  ASSERT_TRUE(idx);
  ASSERT_EQ(idx->files.size(), static_cast<std::size_t>(kFiles));
  const std::uint64_t each = idx->files.front().blocks * std::uint64_t{512};
  const std::uint64_t asked = each * kFiles / 2;
  const PurgeOutcome outcome =
      deleteOldest({{idx, std::time(nullptr)}}, asked, [] { return false; });
  EXPECT_FALSE(outcome.cancelled);
  EXPECT_EQ(outcome.kept, 0u);
  int gone = 0;
  for (int i = 0; i < kFiles; ++i)
    gone += exists(i) ? 0 : 1;
  EXPECT_EQ(outcome.files, static_cast<std::uint64_t>(gone));
  EXPECT_EQ(outcome.freed, each * static_cast<std::uint64_t>(gone));
  // What was asked, and no more than the files the removers held at once.
  EXPECT_GE(outcome.freed, asked);
  EXPECT_LE(gone, kFiles / 2 + 2);
  // The oldest went: every file that stays is newer than every file gone.
  for (int i = 0; i < kFiles - gone; ++i)
    EXPECT_TRUE(exists(i)) << i;
}

TEST_F(Purger, ACancelFromAnotherThreadStopsThePurgeBetweenTwoFiles) {
  const auto idx = index();
  ASSERT_TRUE(idx);
  std::atomic<bool> cancel{false};
  std::atomic<int> asked{0};
  std::thread canceller([&] {
    while (asked.load() < 20)
      std::this_thread::yield();
    cancel.store(true);
  });
  const PurgeOutcome outcome = deleteOldest({{idx, std::time(nullptr)}}, UINT64_MAX, [&] {
    asked.fetch_add(1);
    return cancel.load();
  });
  canceller.join();
  EXPECT_TRUE(outcome.cancelled);
  int gone = 0;
  for (int i = 0; i < kFiles; ++i)
    gone += exists(i) ? 0 : 1;
  EXPECT_EQ(outcome.files, static_cast<std::uint64_t>(gone));
  EXPECT_LT(gone, kFiles);
  // A cancelled purge leaves the directories it emptied, and none was.
  for (int d = 0; d < 4; ++d)
    EXPECT_TRUE(fs::exists(dir_ / ("d" + std::to_string(d))));
}

}  // namespace
}  // namespace vantor::cachedir
