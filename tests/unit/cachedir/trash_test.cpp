#include "trash.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;
using vantor::cachedir::openRootDirectory;
using vantor::cachedir::purgeTrash;
using vantor::cachedir::scanTrash;
using vantor::cachedir::TrashIndex;

namespace {

constexpr std::int64_t kDay = 24 * 60 * 60;
constexpr std::uintmax_t kOutsideBytes = 1 << 20;
constexpr char kChildVariable[] = "VANTOR_TRASH_TEST_PURGE";

std::shared_ptr<const TrashIndex> scan(const fs::path& trash) {
  const std::atomic<bool> stop{false};
  return scanTrash(openRootDirectory(trash), stop);
}

// The second half of the mount test, in a process started for it inside a
// private mount namespace: the seam that turns openat2 off is read once per
// process. Scans and purges the Trash named by kChildVariable, then exits:
// 0 when nothing outside was counted, 2 when the Trash could not be read, 3
// when an item's size took in the outside directory.
const bool kChild = [] {
  const char* trash = std::getenv(kChildVariable);
  if (trash == nullptr)
    return false;
  const auto index = scan(trash);
  if (!index)
    ::_exit(2);
  for (const auto& item : index->items) {
    if (item.bytes >= kOutsideBytes)
      ::_exit(3);
  }
  purgeTrash(*index, std::time(nullptr), UINT64_MAX, [] { return false; });
  ::_exit(0);
}();

void writeFile(const fs::path& path, std::size_t size) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << std::string(size, 't');
}

std::uint64_t allocated(const fs::path& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_blocks) * 512 : 0;
}

// A Trash below a fresh temporary directory, removed afterwards.
class TrashTest : public ::testing::Test {
 protected:
  TrashTest() {
    std::string pattern = (fs::temp_directory_path() / "trash_test.XXXXXX").string();
    top_ = ::mkdtemp(pattern.data());
    trash_ = top_ / "Trash";
    fs::create_directories(trash_ / "files");
    fs::create_directories(trash_ / "info");
  }
  ~TrashTest() override { fs::remove_all(top_); }

  fs::path item(const std::string& name) const { return trash_ / "files" / name; }
  fs::path record(const std::string& name) const { return trash_ / "info" / (name + ".trashinfo"); }
  // Writes the record of `name`, trashed `age` seconds ago.
  void trashed(const std::string& name, std::int64_t age) const {
    const std::time_t when = std::time(nullptr) - age;
    struct tm tm;
    ::localtime_r(&when, &tm);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &tm);
    std::ofstream(record(name)) << "[Trash Info]\nPath=/home/u/" << name
                                << "\nDeletionDate=" << date << "\n";
  }

  fs::path top_;
  fs::path trash_;
};

TEST_F(TrashTest, ItemsTrashedBeforeTheCutoffGoWithTheirRecordsAndNothingElse) {
  struct Case {
    const char* name;
    bool directory;
    std::int64_t age;  // -1: no record, -2: an invalid one
    bool goes;
  };
  const Case cases[] = {
      {"old.txt", false, 40 * kDay, true},
      {"old dir", true, 10 * kDay, true},
      {"recent.txt", false, 1 * kDay, false},
      {"recent dir", true, 3600, false},
      {"unrecorded", false, -1, false},
      {"badly recorded", true, -2, false},
      {"far future.txt", false, -365 * kDay, false},
  };
  for (const Case& c : cases) {
    if (c.directory) {
      writeFile(item(c.name) / "a", 5000);
      writeFile(item(c.name) / "sub/deeper/b", 9000);
      fs::create_directory_symlink("/", item(c.name) / "sub/root");
    } else {
      writeFile(item(c.name), 7000);
    }
    if (c.age == -2)
      std::ofstream(record(c.name)) << "[Trash Info]\nPath=/x\nDeletionDate=yesterday\n";
    else if (c.age != -1)
      trashed(c.name, c.age);
  }
  trashed("no item", 90 * kDay);
  const auto index = scan(trash_);
  ASSERT_TRUE(index);
  ASSERT_EQ(index->items.size(), 5u);  // the recorded ones
  EXPECT_EQ(index->items.front().name, "old.txt");
  EXPECT_EQ(index->items.back().name, "far future.txt");
  const std::int64_t cutoff = std::time(nullptr) - 7 * kDay;
  const std::uint64_t expected = index->bytesDeletedBefore(cutoff);
  EXPECT_GE(expected, 21000u);

  const auto outcome = purgeTrash(*index, cutoff, UINT64_MAX, [] { return false; });
  EXPECT_EQ(outcome.items, 2u);
  EXPECT_EQ(outcome.freed, expected);
  for (const Case& c : cases) {
    EXPECT_EQ(fs::exists(fs::symlink_status(item(c.name))), !c.goes) << c.name;
    EXPECT_EQ(fs::exists(record(c.name)), !c.goes && c.age != -1) << c.name;
  }
  EXPECT_TRUE(fs::exists(record("no item")));
  // Every entry of the Trash went by its own name; none was left aside.
  EXPECT_EQ(std::distance(fs::directory_iterator(trash_ / "files"), {}), 5);
}

TEST_F(TrashTest, ACancelledPurgeLeavesTheRestInPlaceWithTheirRecords) {
  writeFile(item("first"), 4096);
  for (int i = 0; i < 20; ++i)
    writeFile(item("second") / ("f" + std::to_string(i)), 4096);
  writeFile(item("third"), 4096);
  trashed("first", 30 * kDay);
  trashed("second", 20 * kDay);
  trashed("third", 10 * kDay);
  const auto index = scan(trash_);
  ASSERT_TRUE(index);

  // Asked before each item and before each entry of a directory: the tenth
  // question comes in the middle of "second".
  int asked = 0;
  const auto outcome =
      purgeTrash(*index, std::time(nullptr), UINT64_MAX, [&asked] { return ++asked >= 10; });
  EXPECT_TRUE(outcome.cancelled);
  EXPECT_EQ(outcome.items, 1u);
  EXPECT_FALSE(fs::exists(item("first")));
  EXPECT_FALSE(fs::exists(record("first")));
  const auto left = std::distance(fs::directory_iterator(item("second")), {});
  EXPECT_GT(left, 0);
  EXPECT_LT(left, 20);
  // All of "first" and its record, and the files of "second" that went.
  EXPECT_EQ(outcome.freed, index->items[0].bytes +
                               static_cast<std::uint64_t>(20 - left) * allocated(item("third")));
  EXPECT_TRUE(fs::exists(record("second")));
  EXPECT_TRUE(fs::exists(item("third")));
  EXPECT_TRUE(fs::exists(record("third")));
  EXPECT_EQ(std::distance(fs::directory_iterator(trash_ / "files"), {}), 2);
}

// Run twice: resolving with openat2, and walking one component at a time as
// on kernels without it.
class TrashResolving : public TrashTest, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Both, TrashResolving, ::testing::Bool(),
                         [](const auto& p) { return p.param ? "openat2" : "walk"; });

TEST_P(TrashResolving, RemovesNothingOutsideThroughALinkOrAMountInside) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "needs root to mount";
  const fs::path outside = top_ / "outside";
  writeFile(outside / "precious", kOutsideBytes);
  writeFile(outside / "sub/precious", 4096);
  writeFile(item("tree") / "own", 4096);
  writeFile(item("tree") / "sub/own", 4096);
  fs::create_directory_symlink(outside, item("tree") / "sub/link");
  fs::create_directories(item("tree") / "mnt");
  fs::create_directory_symlink(outside, item("link"));
  trashed("tree", 40 * kDay);
  trashed("link", 40 * kDay);

  // The child, in a mount namespace of its own with the outside mounted in.
  // Where mounts cannot be made private (a chroot whose root is no mount
  // point, a container), the test is skipped rather than failed.
  const std::string child =
      "mount --make-rprivate / && mount --bind '" + outside.string() + "' '" +
      item("tree/mnt").string() + "' || exit 77; exec env -u VANTOR_CACHEDIR_NO_OPENAT2 " +
      (GetParam() ? "" : "VANTOR_CACHEDIR_NO_OPENAT2=1 ") + kChildVariable + "='" +
      trash_.string() + "' '" + fs::read_symlink("/proc/self/exe").string() + "'";
  const int status =
      std::system(("unshare -m --propagation unchanged /bin/sh -c \"" + child + "\"").c_str());
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77)
    GTEST_SKIP() << "cannot bind-mount in a private mount namespace";
  ASSERT_EQ(WEXITSTATUS(status), 0) << "2: the Trash was not read, 3: the outside was counted";

  std::error_code error;
  EXPECT_EQ(fs::file_size(outside / "precious", error), kOutsideBytes) << error.message();
  EXPECT_TRUE(fs::exists(outside / "sub/precious"));
  // The mount point stays, and with it the item and its record; the rest of
  // it went, and so did the link trashed on its own.
  EXPECT_TRUE(fs::is_directory(item("tree") / "mnt"));
  EXPECT_EQ(std::distance(fs::directory_iterator(item("tree")), {}), 1);
  EXPECT_TRUE(fs::exists(record("tree")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(item("link"))));
  EXPECT_FALSE(fs::exists(record("link")));
}

}  // namespace
