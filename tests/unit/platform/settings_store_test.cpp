#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/store/durable_copy.h"
#include "platform/store/settings_store.h"
#include "platform/values/plist_io.h"
#include "platform/values/value.h"
#include "testkit/temp_dir.h"

namespace vantor {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

Bytes readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const fs::path& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// The stored value of `key`, null when there is none.
Value valueAt(const SettingsStore& store, const std::string& key) {
  const auto* value = store.objectForKey(key);
  return value != nullptr ? *value : Value();
}

const Bytes kGarbage = {'n', 'o', 't', ' ', 'a', ' ', 'p', 'l', 'i', 's', 't', 0x00, 0xff};

class SettingsStoreTest : public testing::Test {
 protected:
  // The store at path_; throws, failing the test, when it cannot be opened.
  std::unique_ptr<SettingsStore> open(SettingsStore::Diagnostics* diagnostics = nullptr,
                                      FileCalls& files = FileCalls::system()) const {
    auto store = SettingsStore::open(path_, diagnostics, files);
    if (store == nullptr)
      throw std::runtime_error("the store did not open: " +
                               (diagnostics ? diagnostics->warning : ""));
    return store;
  }

  // The contents of the files next to the store whose names start with
  // "store.plist.corrupt-".
  std::multiset<Bytes> movedAside() const {
    std::multiset<Bytes> found;
    for (const auto& entry : fs::directory_iterator(dir_)) {
      if (entry.path().filename().string().starts_with("store.plist.corrupt-"))
        found.insert(readBytes(entry.path()));
    }
    return found;
  }

  testkit::TempDir tmp_;
  const fs::path dir_ = tmp_.path();
  const fs::path path_ = dir_ / "store.plist";
};

TEST_F(SettingsStoreTest, UnreadableOrNonDictionaryFilesAreMovedAsideNotDeleted) {
  const std::vector<Bytes> bad = {kGarbage,
                                  encodePlist(Value(Value::Array{Value(1)}), PlistFormat::kBinary)};
  for (const auto& bytes : bad) {
    fs::remove(dir_ / "store.plist.backup");  // nothing to fall back on
    writeBytes(path_, bytes);
    SettingsStore::Diagnostics diagnostics;
    auto store = open(&diagnostics);
    EXPECT_FALSE(diagnostics.warning.empty());
    EXPECT_EQ(store->objectForKey("fresh"), nullptr);
    ASSERT_TRUE(store->setObject("fresh", Value(1)));
  }
  // Both happened within the same second; neither copy may overwrite the other.
  EXPECT_EQ(movedAside(), std::multiset<Bytes>(bad.begin(), bad.end()));
}

TEST_F(SettingsStoreTest, FileIsAlwaysCompleteWhateverWasLeftBeside) {
  // A writer killed while filling the next file leaves it half-written, longer
  // than what comes next, readable by everyone, or a symbolic link; none of
  // that may show, and nothing is written through a link.
  const fs::path victim = dir_ / "victim";
  writeBytes(victim, kGarbage);
  fs::create_symlink(victim, dir_ / "store.plist.next");
  auto store = open();
  std::string error;
  ASSERT_TRUE(store->setObject("first", Value(0), &error)) << error;
  EXPECT_EQ(readBytes(victim), kGarbage);
  writeBytes(dir_ / "store.plist.next", Bytes(100000, 'x'));
  fs::permissions(dir_ / "store.plist.next", fs::perms(0644));

  // Growing, then shrinking, contents.
  auto check = [&](std::size_t entries) {
    const auto parsed = parsePlist(readBytes(path_));
    ASSERT_TRUE(parsed.value.has_value()) << entries << ": " << parsed.error;
    ASSERT_EQ(parsed.value->get<Value::Dictionary>().size(), entries);
  };
  for (int i = 1; i < 100; ++i) {
    ASSERT_TRUE(store->setObject("key" + std::to_string(i), Value(i), &error)) << error;
    check(static_cast<std::size_t>(i) + 1);
  }
  for (int i = 99; i >= 50; --i) {
    ASSERT_TRUE(store->setObject("key" + std::to_string(i), std::nullopt, &error)) << error;
    check(static_cast<std::size_t>(i));
  }
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
  EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "store.plist.next")));

  store = open();
  EXPECT_EQ(valueAt(*store, "key49"), Value(49));
  EXPECT_EQ(store->objectForKey("key50"), nullptr);
  EXPECT_TRUE(movedAside().empty());
}

// Makes the first call of one chosen file operation fail. A short write
// first writes half of what it is given, then fails the next write.
class FaultyFiles : public FileCalls {
 public:
  enum class Op { kOpen, kWrite, kShortWrite, kFdatasync, kClose, kRename };
  FaultyFiles(Op op, int err) : op_(op), err_(err) {}

  int open(const char* path, int flags, mode_t mode) override {
    return fails(Op::kOpen) ? -1 : FileCalls::open(path, flags, mode);
  }
  ssize_t write(int fd, const void* data, std::size_t size) override {
    if (op_ == Op::kShortWrite && size > 1 && !shortened_) {
      shortened_ = true;  // half goes to disk, the rest finds the disk full
      return FileCalls::write(fd, data, size / 2);
    }
    return fails(Op::kWrite) || fails(Op::kShortWrite) ? -1 : FileCalls::write(fd, data, size);
  }
  int fdatasync(int fd) override { return fails(Op::kFdatasync) ? -1 : FileCalls::fdatasync(fd); }
  int close(int fd) override {
    const int result = FileCalls::close(fd);
    return fails(Op::kClose) ? -1 : result;
  }
  int rename(const char* from, const char* to) override {
    return fails(Op::kRename) ? -1 : FileCalls::rename(from, to);
  }
  int exchange(const char* a, const char* b) override {
    return fails(Op::kRename) ? -1 : FileCalls::exchange(a, b);
  }

 private:
  bool fails(Op op) {
    if (op != op_ || std::exchange(failed_, true))
      return false;
    errno = err_;
    return true;
  }
  Op op_;
  int err_;
  bool failed_ = false;
  bool shortened_ = false;
};

TEST_F(SettingsStoreTest, AWriteThatFailsAtAnyStepLosesNothing) {
  using Op = FaultyFiles::Op;
  const std::vector<std::pair<Op, int>> faults = {
      {Op::kOpen, EACCES},  {Op::kWrite, EIO}, {Op::kShortWrite, ENOSPC},
      {Op::kWrite, ENOSPC}, {Op::kClose, EIO}, {Op::kRename, EIO},
  };
  for (const auto& [op, err] : faults) {
    SCOPED_TRACE(::testing::Message() << "step " << static_cast<int>(op) << ", " << err);
    ASSERT_TRUE(open()->setObject("k", Value("old")));
    FaultyFiles files(op, err);
    auto store = open(nullptr, files);
    std::string error;
    EXPECT_FALSE(store->setObject("k", Value(std::string(5000, 'n')), &error));
    EXPECT_NE(error.find(std::strerror(err)), std::string::npos) << error;
    EXPECT_EQ(valueAt(*store, "k"), Value("old")) << "memory keeps what the disk holds";
    EXPECT_FALSE(fs::exists(dir_ / "store.plist.next"));
    store.reset();
    EXPECT_EQ(valueAt(*open(), "k"), Value("old"));
    EXPECT_TRUE(movedAside().empty());
  }

  // A merge that fails puts back what it removed, replaced and added; while
  // its file is being written, what it replaced can still be read.
  const Value before(Value::Dictionary{{"a", Value(1)}, {"b", Value(2)}});
  ASSERT_TRUE(open()->setObject("d", before));
  FaultyFiles files(Op::kRename, EIO);
  auto store = open(nullptr, files);
  auto staged = store->stageMerge("d", {{"a", Value()}, {"b", Value(3)}, {"c", Value(4)}});
  Value::Dictionary readable = valueAt(*store, "d").get<Value::Dictionary>();
  staged->restore(readable);
  EXPECT_EQ(Value(readable), before);
  EXPECT_FALSE(store->writeStaged(*staged, nullptr));
  store->finishStaged(*staged, false);
  EXPECT_EQ(valueAt(*store, "d"), before);
  EXPECT_TRUE(store->mergeIntoDictionary("d", {{"a", Value()}, {"c", Value(4)}}));
  EXPECT_EQ(valueAt(*open(), "d"), Value(Value::Dictionary{{"b", Value(2)}, {"c", Value(4)}}));
}

TEST_F(SettingsStoreTest, ABackupRoundThatFailsAtAnyStepKeepsThePreviousBackup) {
  using Op = FaultyFiles::Op;
  const fs::path backup = dir_ / "copy";
  const Bytes previous = {1, 2, 3};
  for (const auto& [op, err] : std::vector<std::pair<Op, int>>{{Op::kOpen, EACCES},
                                                               {Op::kShortWrite, ENOSPC},
                                                               {Op::kFdatasync, EIO},
                                                               {Op::kClose, EIO},
                                                               {Op::kRename, ENOSPC}}) {
    SCOPED_TRACE(static_cast<int>(op));
    writeBytes(backup, previous);
    FaultyFiles files(op, err);
    DurableCopy copy(backup, std::chrono::milliseconds(1), files);
    std::string error;
    EXPECT_FALSE(copy.writeNow(Bytes(5000, 9), &error));
    EXPECT_NE(error.find(std::strerror(err)), std::string::npos) << error;
    EXPECT_EQ(readBytes(backup), previous);
  }
}

// A power failure can leave the store file with only part of what was last
// written. The checksum tells, and the last flushed backup takes its place.
TEST_F(SettingsStoreTest, AStoreFileThatDidNotReachTheDiskWholeGivesWayToTheBackup) {
  const fs::path backup = dir_ / "store.plist.backup";
  // The backup is flushed before the store closes.
  ASSERT_TRUE(open()->setObject("k", Value(std::string(10000, 'a'))));
  const auto flushed = readBytes(backup);
  ASSERT_TRUE(open()->setObject("k", Value(std::string(10000, 'b'))));
  const auto latest = readBytes(path_);
  auto torn = [&](std::size_t from, std::size_t to) {
    auto bytes = latest;
    std::copy(flushed.begin() + static_cast<long>(from), flushed.begin() + static_cast<long>(to),
              bytes.begin() + static_cast<long>(from));
    return bytes;
  };
  const std::vector<Bytes> spoilt = {
      {},                                            // nothing reached the disk
      Bytes(latest.begin(), latest.begin() + 4096),  // a prefix
      torn(4096, 8192),                              // one old block in the middle: still parses
  };
  for (const auto& bytes : spoilt) {
    writeBytes(backup, flushed);  // as if the last flush had not happened
    writeBytes(path_, bytes);
    SettingsStore::Diagnostics diagnostics;
    auto store = open(&diagnostics);
    EXPECT_NE(diagnostics.warning.find("restored"), std::string::npos) << diagnostics.warning;
    EXPECT_EQ(valueAt(*store, "k"), Value(std::string(10000, 'a')));
  }
  EXPECT_EQ(movedAside().size(), 3u);

  // A sound store file is the newest: the backup is only a fallback, and
  // files other programs wrote carry no checksum and are read as they are.
  writeBytes(path_, encodePlist(Value(Value::Dictionary{{"k", Value(3)}}), PlistFormat::kBinary));
  EXPECT_EQ(valueAt(*open(), "k"), Value(3));
  const auto copied = parsePlist(readBytes(backup));
  ASSERT_TRUE(copied.value.has_value()) << "opening brings the backup up to date";
  EXPECT_EQ(*copied.value, Value(Value::Dictionary{{"k", Value(3)}}));
}

TEST_F(SettingsStoreTest, SynchronizePicksUpAnotherWritersChanges) {
  auto writer = open();
  auto reader = open();
  ASSERT_TRUE(writer->setObject("k", Value(1)));
  std::string error;
  ASSERT_TRUE(reader->synchronize(&error)) << error;
  EXPECT_EQ(valueAt(*reader, "k"), Value(1));

  // Same size and possibly the same mtime tick as the previous contents.
  ASSERT_TRUE(writer->setObject("k", Value(2)));
  ASSERT_TRUE(reader->synchronize(&error)) << error;
  EXPECT_EQ(valueAt(*reader, "k"), Value(2));
  // (A file spoilt under a running daemon: robustness_test.)
}

// Many changes in a burst, from several threads, share one round, which
// writes the newest; a round still comes for changes made while one ran.
TEST(DurableCopy, CoalescesABurstAndKeepsTheNewest) {
  testkit::TempDir dir;
  DurableCopy copy(dir.path() / "copy", std::chrono::milliseconds(100));
  auto waitForFlushes = [&](unsigned long n) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (copy.flushes() < n && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return copy.flushes() >= n;
  };
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&copy, t] {
      for (int i = 0; i < 50; ++i)
        copy.schedule(std::make_shared<const Bytes>(
            Bytes{static_cast<std::uint8_t>(t), static_cast<std::uint8_t>(i)}));
    });
  }
  for (auto& w : writers)
    w.join();
  ASSERT_TRUE(waitForFlushes(1));
  EXPECT_LE(copy.flushes(), 2u);
  copy.schedule(std::make_shared<const Bytes>(Bytes{7}));
  EXPECT_TRUE(waitForFlushes(2));
  EXPECT_EQ(copy.lastError(), "");
  EXPECT_EQ(readBytes(dir.path() / "copy"), Bytes{7});
}

}  // namespace
}  // namespace vantor
