// vantor-cachedir against real directories, run as a real process on a
// private bus: what it offers, what it deletes, and what it never touches
// however the tree is rearranged under it.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kName[] = "com.tessaly.vantor.cachedir";
constexpr char kBinary[] = VANTOR_CACHEDIR_BINARY;
constexpr std::int64_t kDay = 86400;
constexpr std::uint64_t kLongCallUs = 130'000'000;

// Writes `size` bytes to `path`, last used `age` seconds ago.
void makeFile(const fs::path& path, std::size_t size, std::int64_t age) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << std::string(size, 'c');
  struct timespec times[2];
  ::clock_gettime(CLOCK_REALTIME, &times[0]);
  times[0].tv_sec -= age;
  times[1] = times[0];
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

std::uint64_t allocated(const fs::path& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_blocks) * 512 : 0;
}

Value dict(Value::Dictionary d) {
  return Value(std::move(d));
}

class CacheDir : public ::testing::Test {
 protected:
  CacheDir()
      : cache_(ctx_.root().parent_path() / "cache"),
        outside_(ctx_.root().parent_path() / "outside") {
    fs::create_directories(cache_);
    fs::create_directories(outside_);
  }

  // One configuration file holding `entries`.
  void configure(Value::Array entries) {
    auto bytes = encodePlist(Value(std::move(entries)), PlistFormat::kXml);
    ctx_.writeFile(ctx_.root() / "etc/vantor/cachedirs.d/50-test.plist",
                   std::string(bytes.begin(), bytes.end()));
  }
  void configureCache(Value::Dictionary extra = {}) {
    extra.emplace("Path", Value(cache_.string()));
    configure({dict(std::move(extra))});
  }

  // Starts the service, through `wrapper` (e.g. a mount namespace) when
  // given, and waits until it owns its name.
  bool start(std::vector<std::string> wrapper = {}) {
    wrapper.push_back(kBinary);
    std::map<std::string, std::string> env = env_;
    env["ZEPHON_SIMULATOR_ROOT"] = ctx_.root().string();
    env["DBUS_SYSTEM_BUS_ADDRESS"] = ctx_.busAddress();
    service_ = std::make_unique<ChildProcess>(wrapper, env, logFile());
    if (!ctx_.signals().waitFor(std::string("NameOwnerChanged:") + kName + ":owned", seconds(20)))
      return false;
    connection_ = ctx_.connect();
    proxy_ = sdbus::createProxy(*connection_, kName, "/com/tessaly/vantor/Service");
    return true;
  }

  fs::path logFile() const { return ctx_.root().parent_path() / "cachedir.log"; }
  std::string log() const { return readText(logFile()); }

  // Calls `method` of the service interface with `args`; answers its reply.
  template <typename Reply, typename... Args>
  Reply invoke(const std::string& method, const Args&... args) {
    Reply result;
    proxy_->callMethod(method)
        .onInterface("com.tessaly.vantor.Service")
        .withTimeout(kLongCallUs)
        .withArguments(args...)
        .storeResultsTo(result);
    return result;
  }
  Value::Dictionary call(const std::string& method, int urgency, Value::Dictionary info) {
    return fromVariantMap(invoke<VariantMap>(method, urgency, toVariantMap(info)));
  }
  std::uint64_t purgeable(int urgency) {
    return call("ServicePurgeable", urgency, {{"VANTOR_VOLUME", Value(cache_.string())}})
        .at("VANTOR_AMOUNT")
        .uint64Value();
  }
  std::uint64_t purge(int urgency, std::uint64_t amount) {
    return call("ServicePurge", urgency,
                {{"VANTOR_VOLUME", Value(cache_.string())}, {"VANTOR_AMOUNT", Value(amount)}})
        .at("VANTOR_AMOUNT")
        .uint64Value();
  }
  // Waits for a scan that started after the call; answers what it found.
  Value::Dictionary rescan() {
    return fromVariantMap(
        invoke<VariantMap>("ServiceCallback", toVariantMap({{"Rescan", Value(true)}})));
  }

  void TearDown() override {
    if (HasFailure())
      std::cerr << "--- vantor-cachedir log\n" << log();
  }

  TestContext ctx_;
  std::map<std::string, std::string> env_;  // for the service, besides the bus and root
  fs::path cache_;
  fs::path outside_;
  std::unique_ptr<ChildProcess> service_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

TEST_F(CacheDir, OffersAndPurgesOnlyOldMatchingSingleLinkFilesOldestFirstNeverFollowingLinks) {
  configureCache({{"Patterns", Value(Value::Array{Value("*.deb")})}});
  makeFile(cache_ / "oldest.deb", 8192, 40 * kDay);
  makeFile(cache_ / "sub/dir/old.deb", 8192, 35 * kDay);
  makeFile(cache_ / "week.deb", 8192, 8 * kDay);
  makeFile(cache_ / "hour.deb", 8192, 2 * 3600);
  makeFile(cache_ / "young.deb", 8192, 60);          // younger than MinimumAge
  makeFile(cache_ / "notes.txt", 8192, 90 * kDay);   // not matching
  makeFile(cache_ / "linked.deb", 8192, 90 * kDay);  // second link elsewhere
  fs::create_hard_link(cache_ / "linked.deb", outside_ / "linked.deb");
  makeFile(cache_ / "locked.deb", 8192, 50 * kDay);
  // Symbolic links out of the cache are never followed.
  makeFile(outside_ / "precious.deb", 8192, 90 * kDay);
  makeFile(outside_ / "dir/precious.deb", 8192, 90 * kDay);
  fs::create_symlink(outside_ / "precious.deb", cache_ / "link.deb");
  fs::create_directory_symlink(outside_ / "dir", cache_ / "dirlink");
  const std::uint64_t each = allocated(cache_ / "oldest.deb");
  ASSERT_GT(each, 0u);
  ASSERT_TRUE(start());

  // Urgency 1: unused for 30 days; 2: 7 days; 3: a day; 4: MinimumAge.
  EXPECT_EQ(purgeable(1), 3 * each);
  EXPECT_EQ(purgeable(2), 4 * each);
  EXPECT_EQ(purgeable(3), 4 * each);
  EXPECT_EQ(purgeable(4), 5 * each);

  // Someone holds a lock on one file: it stays, the oldest other goes first.
  const int held = ::open((cache_ / "locked.deb").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_SH), 0);
  EXPECT_EQ(purge(4, 1), each);
  EXPECT_FALSE(fs::exists(cache_ / "oldest.deb"));
  EXPECT_TRUE(fs::exists(cache_ / "sub/dir/old.deb"));

  EXPECT_EQ(purge(4, 1ULL << 40), 3 * each);
  ::close(held);
  for (const char* kept : {"young.deb", "notes.txt", "linked.deb", "locked.deb"})
    EXPECT_TRUE(fs::exists(cache_ / kept)) << kept;
  for (const char* outside : {"linked.deb", "precious.deb", "dir/precious.deb"})
    EXPECT_TRUE(fs::exists(outside_ / outside)) << outside;
  EXPECT_TRUE(fs::is_symlink(cache_ / "link.deb"));
  for (const char* gone : {"week.deb", "hour.deb", "sub"})
    EXPECT_FALSE(fs::exists(cache_ / gone)) << gone;
  EXPECT_TRUE(fs::is_directory(cache_));
}

TEST_F(CacheDir, RefusesDangerousPathsAndFindsTaggedDirectoriesByTheirSignature) {
  const fs::path home = ctx_.root().parent_path() / "home";
  makeFile(home / "alice/.cache/thumbs/CACHEDIR.TAG", 0, 90 * kDay);
  std::ofstream(home / "alice/.cache/thumbs/CACHEDIR.TAG")
      << "Signature: 8a477f597d28d172789f06886806bc55\n# a cache\n";
  makeFile(home / "alice/.cache/thumbs/a.png", 4096, 90 * kDay);
  makeFile(home / "alice/notes/CACHEDIR.TAG", 0, 90 * kDay);
  std::ofstream(home / "alice/notes/CACHEDIR.TAG") << "Signature: 0000\n";
  makeFile(home / "alice/notes/keep.txt", 4096, 90 * kDay);
  configure({dict({{"Path", Value("/")}}), dict({{"Path", Value("/usr")}}),
             dict({{"Path", Value("var/cache")}}), dict({{"Path", Value(cache_.string())}}),
             dict({{"TaggedBelow", Value(home.string())}})});
  ASSERT_TRUE(start());

  const Value::Dictionary found = rescan();
  const Value::Array expected{Value(cache_.string()),
                              Value((home / "alice/.cache/thumbs").string())};
  EXPECT_EQ(found.at("Directories"), Value(expected));
  for (const char* refused : {"refusing \"/\"", "refusing \"/usr\"", "refusing \"var/cache\""})
    EXPECT_NE(log().find(refused), std::string::npos) << refused;

  EXPECT_GT(purge(4, 1ULL << 40), 0u);
  EXPECT_FALSE(fs::exists(home / "alice/.cache/thumbs/a.png"));
  EXPECT_TRUE(fs::exists(home / "alice/.cache/thumbs/CACHEDIR.TAG"));
  EXPECT_TRUE(fs::exists(home / "alice/notes/keep.txt"));
}

// Swaps cache/a for a symbolic link to the outside directory and back, as
// fast as it can, until told to stop; holds still between swaps on request.
class Swapper {
 public:
  Swapper(fs::path dir, fs::path target) : dir_(std::move(dir)), target_(std::move(target)) {
    thread_ = std::thread([this] { run(); });
  }
  ~Swapper() {
    stop_ = true;
    thread_.join();
  }
  // Returns once the real directory is back in place and stays there.
  void hold() {
    hold_ = true;
    while (!held_)
      std::this_thread::yield();
  }
  // Returns once the swapping thread has seen the release, so that a hold
  // that follows at once cannot be missed.
  void release() {
    hold_ = false;
    while (held_)
      std::this_thread::yield();
  }
  int swaps() const { return swaps_; }

 private:
  void run() {
    const fs::path aside = dir_.string() + ".aside";
    while (!stop_) {
      if (hold_) {
        held_ = true;
        while (hold_ && !stop_)
          std::this_thread::yield();
        held_ = false;
        continue;
      }
      if (::rename(dir_.c_str(), aside.c_str()) != 0)
        continue;
      if (::symlink(target_.c_str(), dir_.c_str()) == 0)
        ::unlink(dir_.c_str());
      ::rename(aside.c_str(), dir_.c_str());
      ++swaps_;
    }
  }
  fs::path dir_, target_;
  std::atomic<bool> stop_{false}, hold_{false}, held_{false};
  std::atomic<int> swaps_{0};
  std::thread thread_;
};

// The attacks that depend on how paths are resolved run twice: with openat2,
// and walking one component at a time as on kernels without it.
class CacheDirResolving : public CacheDir, public ::testing::WithParamInterface<bool> {
 protected:
  CacheDirResolving() {
    if (!GetParam())
      env_["VANTOR_CACHEDIR_NO_OPENAT2"] = "1";
  }
};
INSTANTIATE_TEST_SUITE_P(Both, CacheDirResolving, ::testing::Bool(),
                         [](const auto& p) { return p.param ? "openat2" : "walk"; });

TEST_P(CacheDirResolving, DeletesNothingOutsideWhileADirectoryIsSwappedForASymlink) {
  configureCache({{"MinimumAge", Value(0)}});
  constexpr int kFiles = 300;
  for (int i = 0; i < kFiles; ++i)
    makeFile(outside_ / ("f" + std::to_string(i)), 10, 90 * kDay);
  fs::create_directories(cache_ / "a");
  ASSERT_TRUE(start());

  Swapper swapper(cache_ / "a", outside_);
  const auto fill = [&] {
    swapper.hold();
    for (int i = 0; i < kFiles; ++i)
      makeFile(cache_ / "a" / ("f" + std::to_string(i)), 10, 90 * kDay);
    rescan();
  };
  int rounds = 0;
  for (const auto end = std::chrono::steady_clock::now() + seconds(3);
       std::chrono::steady_clock::now() < end; ++rounds) {
    fill();
    swapper.release();
    // Under load most files may be kept: their directory is mid-swap
    // whenever the purge looks. Only what it deletes matters here.
    purge(4, 1ULL << 40);
  }
  EXPECT_GT(swapper.swaps(), rounds);
  for (int i = 0; i < kFiles; ++i)
    ASSERT_TRUE(fs::exists(outside_ / ("f" + std::to_string(i)))) << i << " after " << rounds;
  // With the directory left in place, the same purge deletes its files.
  fill();
  EXPECT_EQ(purge(4, 1ULL << 40), kFiles * allocated(outside_ / "f0"));
}

TEST_P(CacheDirResolving, DoesNotCrossABindMount) {
  if (::geteuid() != 0 || std::system("unshare -m true 2>/dev/null") != 0)
    GTEST_SKIP() << "needs root and mount namespaces (unshare -m) to bind-mount a directory";
  configureCache({{"MinimumAge", Value(0)}});
  makeFile(outside_ / "precious", 4096, 90 * kDay);
  makeFile(cache_ / "own", 4096, 90 * kDay);
  fs::create_directories(cache_ / "mnt");
  // The mount lives only in the service's own mount namespace.
  ASSERT_TRUE(start({"/usr/bin/unshare", "-m", "/bin/sh", "-c",
                     "mount --make-rprivate / && mount --bind \"$0\" \"$1\" && exec \"$2\"",
                     outside_.string(), (cache_ / "mnt").string()}));

  EXPECT_EQ(purge(4, 1ULL << 40), allocated(cache_ / "own"));
  EXPECT_TRUE(fs::exists(outside_ / "precious"));
  EXPECT_FALSE(fs::exists(cache_ / "own"));
  EXPECT_EQ(log().find("without openat2") != std::string::npos, !GetParam());
}

TEST_F(CacheDir, TrimsToMaximumAgeAndMaximumSizeInTheDailyRun) {
  configureCache({{"MinimumAge", Value(3600)},
                  {"MaximumAge", Value(10 * kDay)},
                  {"MaximumSize", Value(3 * 8192)}});
  makeFile(cache_ / "ancient", 8192, 20 * kDay);
  for (int i = 1; i <= 5; ++i)
    makeFile(cache_ / ("day" + std::to_string(i)), 8192, i * kDay);
  makeFile(cache_ / "fresh", 8192, 60);
  const std::uint64_t each = allocated(cache_ / "fresh");
  ASSERT_EQ(each, 8192u) << "the size rule below assumes 8 KiB files take 8 KiB";
  ASSERT_TRUE(start());

  const auto reply = invoke<VariantArray>(
      "ServicePeriodic", 3, toVariantMap({{"VANTOR_VOLUME", Value(cache_.string())}}));
  // Seven files of 8 KiB, at most three stay: the youngest three.
  EXPECT_EQ(fromOptionalVariant(reply).find("VANTOR_AMOUNT")->uint64Value(), 4 * each);
  for (const char* gone : {"ancient", "day5", "day4", "day3"})
    EXPECT_FALSE(fs::exists(cache_ / gone)) << gone;
  for (const char* kept : {"day1", "day2", "fresh"})
    EXPECT_TRUE(fs::exists(cache_ / kept)) << kept;
}

// (How soon a cancel ends a purge of 100,000 files: the cache-directory
// benchmark.)
TEST_F(CacheDir, CancelEndsAPurgeOfAHundredThousandFilesAtOnce) {
  configureCache({{"MinimumAge", Value(0)}});
  constexpr std::size_t kDirs = 100, kPerDir = 1000;
  for (std::size_t d = 0; d < kDirs; ++d) {
    fs::create_directories(cache_ / std::to_string(d));
    for (std::size_t f = 0; f < kPerDir; ++f)
      ::close(::open((cache_ / std::to_string(d) / std::to_string(f)).c_str(),
                     O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  }
  // Last use an hour ago for all, so only the purge's own order counts.
  ASSERT_EQ(
      std::system(("find " + cache_.string() + " -type f -exec touch -d '-1 hour' {} +").c_str()),
      0);
  ASSERT_TRUE(start());
  ASSERT_EQ(rescan().at("Files").uint64Value(), kDirs * kPerDir);

  // Empty files free nothing, so the purge would go through every one.
  // Directory times move as soon as the purge removes a first entry.
  const auto changeTimes = [this] {
    std::vector<std::int64_t> times;
    for (std::size_t d = 0; d < kDirs; ++d) {
      struct stat st;
      ::stat((cache_ / std::to_string(d)).c_str(), &st);
      times.push_back(std::int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec);
    }
    return times;
  };
  const auto before = changeTimes();
  auto purging = std::async(std::launch::async, [this] { return purge(4, 1); });
  ASSERT_TRUE(waitUntil([&] { return changeTimes() != before; }, seconds(30)))
      << "the purge did not start";
  auto other = ctx_.connect();
  sdbus::createProxy(*other, kName, "/com/tessaly/vantor/Service")
      ->callMethod("ServiceCancelPurge")
      .onInterface("com.tessaly.vantor.Service");
  ASSERT_EQ(purging.wait_for(seconds(2)), std::future_status::ready);
  EXPECT_EQ(purging.get(), 0u);
  std::size_t left = 0;
  for (const auto& entry : fs::recursive_directory_iterator(cache_))
    left += entry.is_regular_file() ? 1 : 0;
  EXPECT_GT(left, kDirs * kPerDir / 2);
}

TEST_F(CacheDir, FreesRealBytesThroughTheDaemon) {
  ctx_.grantUser("me.plist", ::getuid(),
                 {"CLIENT_ENTITLEMENT", "PURGEABLE_ENTITLEMENT", "PURGE_ENTITLEMENT"});
  ctx_.writeDescriptor(
      std::string(kName) + ".plist",
      dict({{"VANTOR_ID", Value(kName)},
            {"VANTOR_SERVICES", Value(Value::Array{Value("PURGE"), Value("PERIODIC")})}}));
  configureCache();
  constexpr std::size_t kSize = 16 << 20;
  for (int i = 0; i < 4; ++i)
    makeFile(cache_ / ("blob" + std::to_string(i)), kSize, (40 + i) * kDay);
  ::sync();
  const std::uint64_t each = allocated(cache_ / "blob0");
  ASSERT_TRUE(ctx_.startDaemon());
  ASSERT_TRUE(start());
  rescan();
  auto client = ctx_.connect();
  const Value volume(volumeHolding(cache_));

  const auto offered = callClient(*client, "ClientPurgeableSpace",
                                  {{"VANTOR_VOLUME", volume}, {"VANTOR_URGENCY", Value(1)}});
  EXPECT_EQ(offered.count(kName) ? offered.at(kName).uint64Value() : 0, 4 * each)
      << Value(offered).description();

  const auto purged = callClient(*client, "ClientPurge",
                                 {{"VANTOR_VOLUME", volume}, {"VANTOR_AMOUNT", Value(2 * each)}});
  // vantord asks again when others' writes hid part of what went, so count
  // what went rather than expect exactly two files; the oldest go first.
  std::uint64_t gone = 0;
  while (gone < 4 && !fs::exists(cache_ / ("blob" + std::to_string(3 - gone))))
    ++gone;
  EXPECT_GE(gone, 2u);
  for (std::uint64_t i = 0; i < 4 - gone; ++i)
    EXPECT_TRUE(fs::exists(cache_ / ("blob" + std::to_string(i)))) << i;
  EXPECT_EQ(purged.at("VANTOR_AMOUNT_REPORTED").uint64Value(), gone * each)
      << Value(purged).description();
  // The volume is shared with whatever else runs: its free space moved by
  // at least most of what went.
  EXPECT_GT(purged.at("VANTOR_FREESPACE_END").uint64Value(),
            purged.at("VANTOR_FREESPACE_BEGIN").uint64Value() + each);
}

}  // namespace
}  // namespace vantor::test
