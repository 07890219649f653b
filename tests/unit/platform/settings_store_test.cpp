#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

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

TEST_F(SettingsStoreTest, FileIsAlwaysACompletePlistAndLeftoverTemporariesGo) {
  // What a writer killed between creating its temporary file and putting it
  // in place leaves behind goes at the next open; files of other shapes stay.
  const std::vector<std::string> leftovers = {"store.plist.a1B2c3", "store.plist.XXXXXX"};
  const std::vector<std::string> strays = {"store.plist.tmp", ".store.plist.a1B2c3",
                                           "store.plist.corrupt-1", "store.plist.a1-2c3"};
  for (const auto& name : leftovers)
    writeBytes(dir_ / name, kGarbage);
  for (const auto& name : strays)
    writeBytes(dir_ / name, kGarbage);
  auto store = SettingsStore::open(path_);
  ASSERT_NE(store, nullptr);
  for (int i = 0; i < 200; ++i) {
    const std::string key = "key" + std::to_string(i);
    std::string error;
    ASSERT_TRUE(store->setObject(key, Value(i), &error)) << error;
    const auto parsed = parsePlist(readBytes(path_));
    ASSERT_TRUE(parsed.value.has_value()) << "after " << key << ": " << parsed.error;
    ASSERT_NE(parsed.value->find(key), nullptr) << key;
    ASSERT_EQ(parsed.value->get<Value::Dictionary>().size(), static_cast<std::size_t>(i + 1));
  }
  // No temporary files of its own may pile up.
  for (const auto& entry : fs::directory_iterator(dir_)) {
    const std::string name = entry.path().filename().string();
    EXPECT_TRUE(name == "store.plist" || std::count(strays.begin(), strays.end(), name) == 1)
        << name;
  }
  store = SettingsStore::open(path_);
  ASSERT_NE(store, nullptr);
  ASSERT_NE(store->objectForKey("key199"), nullptr);
  EXPECT_EQ(*store->objectForKey("key199"), Value(199));
  EXPECT_EQ(movedAside().size(), 1u);  // the stray "store.plist.corrupt-1"
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

}  // namespace
}  // namespace vantor
