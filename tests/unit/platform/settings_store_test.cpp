#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/store/deferred_sync.h"
#include "platform/store/settings_store.h"
#include "platform/values/plist_io.h"
#include "platform/values/value.h"

namespace vantor {
namespace {

namespace fs = std::filesystem;

std::vector<std::uint8_t> readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const fs::path& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

const std::vector<std::uint8_t> kGarbage = {'n', 'o', 't', ' ', 'a',  ' ', 'p',
                                            'l', 'i', 's', 't', 0x00, 0xff};

class SettingsStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantor-store-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    path_ = dir_ / "store.plist";
  }
  void TearDown() override {
    std::error_code ec;
    fs::permissions(dir_, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(dir_, ec);
  }

  // Files next to the store whose names start with "store.plist.corrupt-".
  std::vector<fs::path> movedAside() const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(dir_)) {
      if (entry.path().filename().string().starts_with("store.plist.corrupt-")) {
        found.push_back(entry.path());
      }
    }
    return found;
  }

  fs::path dir_;
  fs::path path_;
};

TEST_F(SettingsStoreTest, ValuesSurviveReopeningAndMissingDirectoriesAreCreated) {
  const fs::path nested = dir_ / "a" / "b" / "store.plist";
  SettingsStore::Diagnostics diagnostics;
  auto store = SettingsStore::open(nested, &diagnostics);
  ASSERT_NE(store, nullptr) << diagnostics.warning;
  EXPECT_TRUE(diagnostics.warning.empty()) << diagnostics.warning;
  EXPECT_TRUE(fs::is_directory(nested.parent_path()));
  EXPECT_EQ(store->objectForKey("missing"), nullptr);

  const Value dict(Value::Dictionary{{"n", Value(-3)}, {"d", Value(Value::Data{0, 1})}});
  std::string error;
  ASSERT_TRUE(store->setObject("dict", dict, &error)) << error;
  ASSERT_TRUE(store->setObject("gone", Value("x"), &error)) << error;
  ASSERT_TRUE(store->setObject("gone", std::nullopt, &error)) << error;
  EXPECT_EQ(store->objectForKey("gone"), nullptr);

  store = SettingsStore::open(nested);
  ASSERT_NE(store, nullptr);
  ASSERT_NE(store->objectForKey("dict"), nullptr);
  EXPECT_EQ(*store->objectForKey("dict"), dict);
  EXPECT_EQ(store->objectForKey("gone"), nullptr);
}

TEST_F(SettingsStoreTest, UnreadableOrNonDictionaryFilesAreMovedAsideNotDeleted) {
  const std::vector<std::vector<std::uint8_t>> bad = {
      kGarbage, encodePlist(Value(Value::Array{Value(1)}), PlistFormat::kBinary)};
  for (const auto& bytes : bad) {
    writeBytes(path_, bytes);
    SettingsStore::Diagnostics diagnostics;
    auto store = SettingsStore::open(path_, &diagnostics);
    ASSERT_NE(store, nullptr) << diagnostics.warning;
    EXPECT_FALSE(diagnostics.warning.empty());
    EXPECT_EQ(store->objectForKey("fresh"), nullptr);
    ASSERT_TRUE(store->setObject("fresh", Value(1)));
  }
  // Both happened within the same second; neither copy may overwrite the other.
  const auto aside = movedAside();
  ASSERT_EQ(aside.size(), 2u);
  std::vector<std::string> contents, expected;
  for (const auto& path : aside) {
    const auto bytes = readBytes(path);
    contents.emplace_back(bytes.begin(), bytes.end());
  }
  for (const auto& bytes : bad)
    expected.emplace_back(bytes.begin(), bytes.end());
  std::sort(contents.begin(), contents.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(contents, expected);
}

TEST_F(SettingsStoreTest, FileIsAlwaysCompleteWhateverTheSpareHeld) {
  // A writer killed while filling the spare leaves it half-written, longer
  // than what comes next and readable by everyone; none of that may show.
  writeBytes(dir_ / "store.plist.next", std::vector<std::uint8_t>(100000, 'x'));
  fs::permissions(dir_ / "store.plist.next", fs::perms(0644));
  writeBytes(dir_ / "store.plist.tmp", kGarbage);
  auto store = SettingsStore::open(path_);
  ASSERT_NE(store, nullptr);
  // Growing, then shrinking, contents.
  auto check = [&](std::size_t entries) {
    const auto parsed = parsePlist(readBytes(path_));
    ASSERT_TRUE(parsed.value.has_value()) << entries << ": " << parsed.error;
    ASSERT_EQ(parsed.value->get<Value::Dictionary>().size(), entries);
  };
  std::string error;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(store->setObject("key" + std::to_string(i), Value(i), &error)) << error;
    check(static_cast<std::size_t>(i) + 1);
  }
  for (int i = 99; i >= 50; --i) {
    ASSERT_TRUE(store->setObject("key" + std::to_string(i), std::nullopt, &error)) << error;
    check(static_cast<std::size_t>(i));
  }
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
  // Only the store and its spare; nothing else of its own piles up.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir_))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names,
            (std::vector<std::string>{"store.plist", "store.plist.next", "store.plist.tmp"}));

  store = SettingsStore::open(path_);
  ASSERT_NE(store, nullptr);
  ASSERT_NE(store->objectForKey("key49"), nullptr);
  EXPECT_EQ(*store->objectForKey("key49"), Value(49));
  EXPECT_EQ(store->objectForKey("key50"), nullptr);
  EXPECT_TRUE(movedAside().empty());
}

TEST_F(SettingsStoreTest, ASpareThatIsASymlinkIsNotFollowed) {
  const fs::path victim = dir_ / "victim";
  writeBytes(victim, kGarbage);
  fs::create_symlink(victim, dir_ / "store.plist.next");
  auto store = SettingsStore::open(path_);
  ASSERT_NE(store, nullptr);
  std::string error;
  EXPECT_FALSE(store->setObject("k", Value(1), &error));
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(readBytes(victim), kGarbage);
}

TEST_F(SettingsStoreTest, SynchronizePicksUpAnotherWritersChanges) {
  auto writer = SettingsStore::open(path_);
  auto reader = SettingsStore::open(path_);
  ASSERT_NE(writer, nullptr);
  ASSERT_NE(reader, nullptr);
  ASSERT_TRUE(writer->setObject("k", Value(1)));
  std::string error;
  ASSERT_TRUE(reader->synchronize(&error)) << error;
  ASSERT_NE(reader->objectForKey("k"), nullptr);
  EXPECT_EQ(*reader->objectForKey("k"), Value(1));

  // Same size and possibly the same mtime tick as the previous contents.
  ASSERT_TRUE(writer->setObject("k", Value(2)));
  ASSERT_TRUE(reader->synchronize(&error)) << error;
  ASSERT_NE(reader->objectForKey("k"), nullptr);
  EXPECT_EQ(*reader->objectForKey("k"), Value(2));

  writeBytes(path_, kGarbage);
  EXPECT_FALSE(reader->synchronize(&error));
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(movedAside().size(), 1u);
}

TEST_F(SettingsStoreTest, UnwritableDirectoryFailsToOpen) {
  if (::geteuid() == 0) {
    GTEST_SKIP() << "root ignores directory permissions";
  }
  fs::permissions(dir_, fs::perms::owner_read | fs::perms::owner_exec);
  for (const fs::path& path : {path_, dir_ / "sub" / "store.plist"}) {
    SettingsStore::Diagnostics diagnostics;
    EXPECT_EQ(SettingsStore::open(path, &diagnostics), nullptr) << path;
    EXPECT_FALSE(diagnostics.warning.empty()) << path;
  }
}

// Many writes in a burst, from several threads, share one flush; a flush
// still comes for writes made while the previous one ran.
TEST(DeferredSync, CoalescesABurstAndFlushesWhatCameLater) {
  const auto path = fs::temp_directory_path() / ("deferred-sync-" + std::to_string(::getpid()));
  writeBytes(path, {1, 2, 3});
  DeferredSync sync(path, std::chrono::milliseconds(100));
  auto waitForFlushes = [&](unsigned long n) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (sync.flushes() < n && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return sync.flushes() >= n;
  };
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&] {
      for (int i = 0; i < 50; ++i)
        sync.schedule();
    });
  }
  for (auto& w : writers)
    w.join();
  ASSERT_TRUE(waitForFlushes(1));
  EXPECT_LE(sync.flushes(), 2u);
  sync.schedule();
  EXPECT_TRUE(waitForFlushes(2));
  fs::remove(path);
}

}  // namespace
}  // namespace vantor
