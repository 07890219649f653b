// vantor-cachedir against real directories, run as a real process on a
// private bus: what it offers, what it deletes, and what it never touches
// however the tree is rearranged under it.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "common/test_context.h"
#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"

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

// Why mounts cannot be made for a test, or "" when they can: runs `probe`
// as root in a private mount namespace.
std::string cannotMount(const std::string& probe = "true") {
  if (::geteuid() != 0)
    return "needs root to mount";
  const std::string command =
      "unshare -m /bin/sh -c 'mount --make-rprivate / && " + probe + "' >/dev/null 2>&1";
  return std::system(command.c_str()) == 0 ? "" : "cannot mount in a private namespace: " + probe;
}

void writeTag(const fs::path& dir) {
  fs::create_directories(dir);
  std::ofstream(dir / "CACHEDIR.TAG") << "Signature: 8a477f597d28d172789f06886806bc55\n";
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

  // Starts a user's instance for `home`, which owns no name; it is up once
  // its sources have checked in with the daemon.
  void startUser(const fs::path& home) {
    std::map<std::string, std::string> env = env_;
    env["ZEPHON_SIMULATOR_ROOT"] = ctx_.root().string();
    env["DBUS_SYSTEM_BUS_ADDRESS"] = ctx_.busAddress();
    env["HOME"] = home.string();
    service_ =
        std::make_unique<ChildProcess>(std::vector<std::string>{kBinary, "--user"}, env, logFile());
  }

  // Waits until the log shows each of `ids` checked in.
  bool checkedIn(const std::vector<std::string>& ids) {
    return waitUntil(
        [&] {
          const std::string text = log();
          return std::all_of(ids.begin(), ids.end(), [&](const std::string& id) {
            return text.find("checked in " + id + "\n") != std::string::npos;
          });
        },
        seconds(30));
  }

  // Starts the service in a mount namespace of its own after running `setup`
  // there, so that the mounts it makes are seen by the service alone.
  bool startWithMounts(const std::string& setup) {
    return start({"/usr/bin/unshare", "-m", "/bin/sh", "-c",
                  "mount --make-rprivate / && " + setup + " && exec \"$0\""});
  }

  // A second connection's proxy, for calls made while another one waits.
  struct Caller {
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> proxy;
  };
  Caller caller() {
    Caller c{ctx_.connect(), nullptr};
    c.proxy = sdbus::createProxy(*c.connection, kName, "/com/tessaly/vantor/Service");
    return c;
  }

  sdbus::IConnection* connection() {
    if (!connection_)
      connection_ = ctx_.connect();
    return connection_.get();
  }
  fs::path logFile() const { return ctx_.root().parent_path() / "cachedir.log"; }
  std::string log() const { return readText(logFile()); }

  // Calls `method` of the service interface with `args`; answers its reply.
  template <typename Reply, typename... Args>
  Reply invoke(const std::string& method, const Args&... args) {
    return invokeOn<Reply>(*proxy_, method, args...);
  }
  template <typename Reply, typename... Args>
  static Reply invokeOn(sdbus::IProxy& proxy, const std::string& method, const Args&... args) {
    Reply result;
    proxy.callMethod(method)
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
  std::uint64_t purge(int urgency, std::uint64_t amount, const fs::path& volume = {}) {
    return call("ServicePurge", urgency,
                {{"VANTOR_VOLUME", Value((volume.empty() ? cache_ : volume).string())},
                 {"VANTOR_AMOUNT", Value(amount)}})
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

TEST_F(CacheDir, RefusesDangerousOrIllTypedEntriesAndFindsDirectoriesByTagsOfOneLink) {
  const fs::path home = ctx_.root().parent_path() / "home";
  writeTag(home / "alice/.cache/thumbs");
  makeFile(home / "alice/.cache/thumbs/a.png", 4096, 90 * kDay);
  makeFile(home / "alice/notes/CACHEDIR.TAG", 0, 90 * kDay);
  std::ofstream(home / "alice/notes/CACHEDIR.TAG") << "Signature: 0000\n";
  makeFile(home / "alice/notes/keep.txt", 4096, 90 * kDay);
  // Bob's tag over a directory of root's: his files go, and his directories.
  constexpr uid_t kBob = 4242;
  const fs::path odd = home / "bob/caf\xe9 \\ cache";  // not UTF-8
  writeTag(odd);
  makeFile(odd / "his/old", 4096, 90 * kDay);
  makeFile(odd / "roots/old", 4096, 90 * kDay);
  for (const fs::path& p :
       {odd, odd / "CACHEDIR.TAG", odd / "his", odd / "his/old", odd / "roots/old"})
    ASSERT_EQ(::chown(p.c_str(), kBob, kBob), 0) << p;
  // Root's tag linked in from elsewhere is no tag.
  writeTag(outside_);
  fs::create_directories(home / "mallory/evil");
  fs::create_hard_link(outside_ / "CACHEDIR.TAG", home / "mallory/evil/CACHEDIR.TAG");
  makeFile(home / "mallory/evil/roots", 4096, 90 * kDay);
  // Values of the wrong type void their whole entry.
  const fs::path typed = ctx_.root().parent_path() / "typed";
  for (const char* dir : {"bool", "real", "tagnum", "tagrel"})
    makeFile(typed / dir / "old", 4096, 90 * kDay);
  configure({dict({{"Path", Value("/")}}), dict({{"Path", Value("/usr")}}),
             dict({{"Path", Value("var/cache")}}), dict({{"Path", Value(cache_.string())}}),
             dict({{"TaggedBelow", Value(home.string())}}),
             dict({{"Path", Value((typed / "bool").string())}, {"MaximumSize", Value(true)}}),
             dict({{"Path", Value((typed / "real").string())}, {"MinimumAge", Value(1.5)}}),
             dict({{"Path", Value((typed / "tagnum").string())}, {"TaggedBelow", Value(5)}}),
             dict({{"Path", Value((typed / "tagrel").string())}, {"TaggedBelow", Value("home")}})});
  ASSERT_TRUE(start());

  std::set<std::string> found;
  const Value::Dictionary scanned = rescan();
  const Value::Array* dirs = scanned.at("Directories").asArray();
  ASSERT_NE(dirs, nullptr);
  for (const Value& dir : *dirs) {
    if (const std::string* path = dir.asString())
      found.insert(*path);
  }
  const std::set<std::string> expected{cache_.string(), (home / "alice/.cache/thumbs").string(),
                                       (home / "bob").string() + "/caf\\xe9 \\\\ cache"};
  EXPECT_EQ(found, expected);
  for (const char* refused :
       {"refusing \"/\"", "refusing \"/usr\"", "refusing \"var/cache\"",
        "\"MaximumSize\" is not a number of bytes", "\"MinimumAge\" is not a number of seconds",
        "\"TaggedBelow\" is not an absolute path"})
    EXPECT_NE(log().find(refused), std::string::npos) << refused;

  EXPECT_GT(purge(4, 1ULL << 40), 0u);
  for (const fs::path& gone : {home / "alice/.cache/thumbs/a.png", odd / "his", odd / "roots/old"})
    EXPECT_FALSE(fs::exists(gone)) << gone;
  for (const fs::path& kept :
       {home / "alice/.cache/thumbs/CACHEDIR.TAG", home / "alice/notes/keep.txt", odd / "roots",
        home / "mallory/evil/roots", typed / "bool/old", typed / "real/old"})
    EXPECT_TRUE(fs::exists(kept)) << kept;
}

TEST_F(CacheDir, EachFileFollowsItsInnermostDirectoryAndNoConfiguredDirectoryGoes) {
  configure({dict({{"Path", Value(cache_.string())}, {"MinimumAge", Value(0)}}),
             dict({{"Path", Value((cache_ / "inner").string())},
                   {"Patterns", Value(Value::Array{Value("*.tmp")})}}),
             dict({{"Path", Value((cache_ / "inner/deeper").string())}})});
  for (const char* file : {"outer.dat", "inner/x.tmp", "inner/keep.dat", "inner/deeper/f.dat"})
    makeFile(cache_ / file, 4096, kDay);
  ASSERT_TRUE(start());

  EXPECT_EQ(purge(4, 1ULL << 40), 3 * allocated(cache_ / "outer.dat"));
  for (const char* gone : {"outer.dat", "inner/x.tmp", "inner/deeper/f.dat"})
    EXPECT_FALSE(fs::exists(cache_ / gone)) << gone;
  EXPECT_TRUE(fs::exists(cache_ / "inner/keep.dat"));
  EXPECT_TRUE(fs::is_directory(cache_ / "inner/deeper"));
}

// Exchanges young and locked files into old files' names, and replaces old
// files the way applications do (rename over), while the service purges.
TEST_F(CacheDir, DeletesNoProtectedFileSwappedOrRenamedIntoAnOldFilesName) {
  configureCache();  // MinimumAge 3600
  constexpr int kPairs = 32, kReplaced = 64;
  const auto at = [this](const char* kind, int i) {
    return (cache_ / (kind + std::to_string(i))).string();
  };
  // Old files appear at a name only whole: made aside, then renamed in.
  const auto refill = [&](const char* kind, int count) {
    for (int i = 0; i < count; ++i) {
      if (fs::exists(at(kind, i)))
        continue;
      makeFile(cache_ / ".fill", 10, 90 * kDay);
      ::renameat2(AT_FDCWD, (cache_ / ".fill").c_str(), AT_FDCWD, at(kind, i).c_str(),
                  RENAME_NOREPLACE);
    }
  };
  std::mutex mutex;
  std::vector<int> held;  // protected files, open
  const auto hold = [&](const std::string& path, bool lock) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << path;
    if (lock) {
      ASSERT_EQ(::flock(fd, LOCK_SH), 0);
    }
    std::lock_guard guard(mutex);
    held.push_back(fd);
  };
  for (int i = 0; i < kPairs; ++i) {
    makeFile(at("p", i), 10, i % 2 == 0 ? 60 : 90 * kDay);
    hold(at("p", i), i % 2 != 0);
  }
  refill("q", kPairs);
  refill("r", kReplaced);
  ASSERT_TRUE(start());

  std::atomic<bool> stop{false};
  std::atomic<int> swaps{0};
  std::thread racer([&] {
    for (int n = 0, replaced = 0; !stop; ++n) {
      const int i = n % kPairs;
      if (::renameat2(AT_FDCWD, at("p", i).c_str(), AT_FDCWD, at("q", i).c_str(),
                      RENAME_EXCHANGE) == 0)
        ++swaps;
      if (n % 256 == 0 && replaced < kReplaced) {
        const fs::path fresh = cache_ / ".fresh";
        makeFile(fresh, 10, 0);
        hold(fresh.string(), false);
        ::rename(fresh.c_str(), at("r", replaced++).c_str());
      }
    }
  });
  std::uint64_t freed = 0;
  int rounds = 0;
  for (const auto end = std::chrono::steady_clock::now() + seconds(3);
       std::chrono::steady_clock::now() < end; ++rounds) {
    refill("p", kPairs);
    refill("q", kPairs);
    refill("r", kReplaced);
    rescan();
    freed += purge(4, 1ULL << 40);
  }
  stop = true;
  racer.join();
  EXPECT_GT(freed, 0u);
  EXPECT_GT(swaps, rounds);
  std::lock_guard guard(mutex);
  for (const int fd : held) {
    struct stat st;
    ASSERT_EQ(::fstat(fd, &st), 0);
    EXPECT_EQ(st.st_nlink, 1u) << "a protected file was deleted in " << rounds << " rounds";
    ::close(fd);
  }
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

// Mounted inside the cache: a directory and a file of the same file system,
// and a directory inside a ramfs cache, where (without openat2) mounts cannot
// be told apart and so are never entered.
TEST_P(CacheDirResolving, NeitherCountsNorEntersNorOpensWhatIsMountedInside) {
  const fs::path ram = ctx_.root().parent_path() / "ram", seed = ram.string() + ".seed";
  fs::create_directories(ram);
  if (auto why = cannotMount("mount -t ramfs ramfs " + ram.string()); !why.empty())
    GTEST_SKIP() << why;
  configure({dict({{"Path", Value(cache_.string())}, {"MinimumAge", Value(0)}}),
             dict({{"Path", Value(ram.string())}, {"MinimumAge", Value(0)}})});
  for (const fs::path& file : {outside_ / "dir/precious", outside_ / "file", cache_ / "own",
                               cache_ / "sub/own", cache_ / "victim", seed / "own"})
    makeFile(file, 4096, 90 * kDay);
  fs::create_directories(cache_ / "mnt");
  fs::create_directories(seed / "mnt");
  const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(::inotify_add_watch(watch, (outside_ / "file").c_str(), IN_ALL_EVENTS), 0);
  const auto quoted = [](const fs::path& p) { return "'" + p.string() + "'"; };
  ASSERT_TRUE(startWithMounts(
      "mount --bind " + quoted(outside_ / "dir") + " " + quoted(cache_ / "mnt") +
      " && mount --bind " + quoted(outside_ / "file") + " " + quoted(cache_ / "victim") +
      " && mount -t ramfs ramfs " + quoted(ram) + " && cp -a " + quoted(seed) + "/. " +
      quoted(ram) + " && mount --bind " + quoted(outside_ / "dir") + " " + quoted(ram / "mnt")));
  char events[4096];
  while (::read(watch, events, sizeof events) > 0) {
  }

  EXPECT_EQ(rescan().at("Files").uint64Value(), 3u);  // cache/own, cache/sub/own, ram/own
  EXPECT_EQ(purge(4, 1ULL << 40), 2 * allocated(outside_ / "file"));
  purge(4, 1ULL << 40, ram);
  EXPECT_EQ(rescan().at("Files").uint64Value(), 0u);
  EXPECT_TRUE(fs::exists(outside_ / "dir/precious"));
  EXPECT_TRUE(fs::exists(outside_ / "file"));
  EXPECT_LT(::read(watch, events, sizeof events), 0)
      << "the file mounted over a cache file was used";
  ::close(watch);
  EXPECT_EQ(log().find("without openat2") != std::string::npos, !GetParam());
  EXPECT_EQ(log().find("cannot tell mounts apart") != std::string::npos, !GetParam());
}

// The tagged directory's parent is exchanged for one where a mount of the
// outside directory, tag and all, stands at the same path.
TEST_P(CacheDirResolving, EntersNoMountSwappedInForATaggedDirectory) {
  if (auto why = cannotMount(); !why.empty())
    GTEST_SKIP() << why;
  const fs::path home = ctx_.root().parent_path() / "home";
  writeTag(home / "alice/cache");
  fs::create_directories(home / "alice2/cache");
  writeTag(outside_);
  constexpr int kFiles = 50;
  for (int i = 0; i < kFiles; ++i)
    makeFile(outside_ / ("f" + std::to_string(i)), 10, 90 * kDay);
  configure({dict({{"TaggedBelow", Value(home.string())}})});
  ASSERT_TRUE(startWithMounts("mount --bind '" + outside_.string() + "' '" +
                              (home / "alice2/cache").string() + "'"));

  std::atomic<bool> stop{false};
  std::atomic<int> swaps{0};
  std::thread swapper([&] {
    while (!stop) {
      if (::renameat2(AT_FDCWD, (home / "alice").c_str(), AT_FDCWD, (home / "alice2").c_str(),
                      RENAME_EXCHANGE) == 0)
        ++swaps;
    }
  });
  int rounds = 0;
  for (const auto end = std::chrono::steady_clock::now() + seconds(3);
       std::chrono::steady_clock::now() < end; ++rounds) {
    rescan();
    purge(4, 1ULL << 40);
  }
  stop = true;
  swapper.join();
  EXPECT_GT(swaps, rounds);
  for (int i = 0; i < kFiles; ++i)
    ASSERT_TRUE(fs::exists(outside_ / ("f" + std::to_string(i)))) << i << " after " << rounds;
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

// `dirs` directories of `perDir` empty files, last used an hour ago. Empty
// files free nothing, so a purge goes through every one.
void makeEmptyFiles(const fs::path& cache, std::size_t dirs, std::size_t perDir) {
  for (std::size_t d = 0; d < dirs; ++d) {
    fs::create_directories(cache / std::to_string(d));
    for (std::size_t f = 0; f < perDir; ++f)
      ::close(::open((cache / std::to_string(d) / std::to_string(f)).c_str(),
                     O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  }
  ASSERT_EQ(
      std::system(("find " + cache.string() + " -type f -exec touch -d '-1 hour' {} +").c_str()),
      0);
}

// The modification times of those directories: they move as soon as a purge
// removes a first entry.
std::vector<std::int64_t> changeTimes(const fs::path& cache, std::size_t dirs) {
  std::vector<std::int64_t> times;
  for (std::size_t d = 0; d < dirs; ++d) {
    struct stat st;
    ::stat((cache / std::to_string(d)).c_str(), &st);
    times.push_back(std::int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec);
  }
  return times;
}

// (How soon a cancel ends a purge of 100,000 files: the cache-directory
// benchmark.)
TEST_F(CacheDir, CancelEndsAPurgeOfAHundredThousandFilesAtOnce) {
  configureCache({{"MinimumAge", Value(0)}});
  constexpr std::size_t kDirs = 100, kPerDir = 1000;
  makeEmptyFiles(cache_, kDirs, kPerDir);
  ASSERT_TRUE(start());
  ASSERT_EQ(rescan().at("Files").uint64Value(), kDirs * kPerDir);

  const auto before = changeTimes(cache_, kDirs);
  auto purging = std::async(std::launch::async, [this] { return purge(4, 1); });
  ASSERT_TRUE(waitUntil([&] { return changeTimes(cache_, kDirs) != before; }, seconds(30)))
      << "the purge did not start";
  auto other = caller();
  other.proxy->callMethod("ServiceCancelPurge").onInterface("com.tessaly.vantor.Service");
  ASSERT_EQ(purging.wait_for(seconds(2)), std::future_status::ready);
  EXPECT_EQ(purging.get(), 0u);
  std::size_t left = 0;
  for (const auto& entry : fs::recursive_directory_iterator(cache_))
    left += entry.is_regular_file() ? 1 : 0;
  EXPECT_GT(left, kDirs * kPerDir / 2);
}

TEST_F(CacheDir, SigtermDuringPurgesStopsCleanlyAndAnswersEveryCall) {
  configureCache({{"MinimumAge", Value(0)}});
  constexpr std::size_t kDirs = 50, kPerDir = 200;
  makeEmptyFiles(cache_, kDirs, kPerDir);
  ASSERT_TRUE(start());
  rescan();

  const auto before = changeTimes(cache_, kDirs);
  // One purge under way, two queued behind it, and a rescan waiting.
  std::vector<std::future<VariantMap>> calls;
  for (int i = 0; i < 4; ++i) {
    calls.push_back(std::async(std::launch::async, [this, i] {
      auto c = caller();
      if (i == 3)
        return invokeOn<VariantMap>(*c.proxy, "ServiceCallback",
                                    toVariantMap({{"Rescan", Value(true)}}));
      return invokeOn<VariantMap>(*c.proxy, "ServicePurge", 4,
                                  toVariantMap({{"VANTOR_AMOUNT", Value(1)}}));
    }));
  }
  ASSERT_TRUE(waitUntil([&] { return changeTimes(cache_, kDirs) != before; }, seconds(30)))
      << "the purge did not start";
  // Every call has reached the service before it is told to stop.
  ASSERT_TRUE(waitUntil(
      [&] {
        const std::string text = log();
        const auto count = [&text](const std::string& what) {
          std::size_t n = 0;
          for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            ++n;
          return n;
        };
        // The rescan before the calls asked once already.
        return count("bytes: queued") == 3 && count("rescan requested") == 2;
      },
      seconds(30)));
  service_->signal(SIGTERM);
  const auto status = service_->waitExit(seconds(30));
  ASSERT_TRUE(status.has_value()) << "still running";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
  for (auto& call : calls)
    EXPECT_NO_THROW(call.get());
}

// Each configuration file is a source of its own: it checks in under its own
// ID, and vantord's answers and purges show it apart from the others.
TEST_F(CacheDir, EachSourceChecksInUnderItsOwnIdAndFreesRealBytesThroughTheDaemon) {
  ctx_.grantUser("me.plist", ::getuid(),
                 {"CLIENT_ENTITLEMENT", "PURGEABLE_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT",
                  "PURGE_ENTITLEMENT", "SERVICE_ENTITLEMENT"});
  const fs::path other = ctx_.root().parent_path() / "other";
  configureCache();  // 50-test.plist: the source "test"
  auto bytes = encodePlist(dict({{"Path", Value(other.string())}, {"Name", Value("second")}}),
                           PlistFormat::kXml);
  ctx_.writeFile(ctx_.root() / "etc/vantor/cachedirs.d/60-other.plist",
                 std::string(bytes.begin(), bytes.end()));
  constexpr std::size_t kSize = 16 << 20;
  for (int i = 0; i < 4; ++i)
    makeFile(cache_ / ("blob" + std::to_string(i)), kSize, (40 + i) * kDay);
  for (int i = 0; i < 2; ++i)
    makeFile(other / ("blob" + std::to_string(i)), kSize, (40 + i) * kDay);
  ::sync();
  const std::uint64_t each = allocated(cache_ / "blob0");
  ASSERT_TRUE(ctx_.startDaemon());
  ASSERT_TRUE(start());
  const std::string test = std::string(kName) + ".test", second = std::string(kName) + ".second";
  ASSERT_TRUE(checkedIn({test, second})) << "the sources did not check in";
  rescan();
  auto client = ctx_.connect();
  const Value volume(volumeHolding(cache_));

  auto offered = callClient(*client, "ClientItemizedPurgeableSpace",
                            {{"VANTOR_VOLUME", volume}, {"VANTOR_URGENCY", Value(1)}});
  EXPECT_EQ(offered[test], Value(4 * each)) << Value(offered).description();
  EXPECT_EQ(offered[second], Value(2 * each)) << Value(offered).description();
  EXPECT_EQ(offered["VANTOR_TOTAL_AVAILABLE"].uint64Value(), 6 * each);

  const auto purged = callClient(*client, "ClientPurge",
                                 {{"VANTOR_VOLUME", volume}, {"VANTOR_AMOUNT", Value(3 * each)}});
  // Within each source the oldest go first; together at least what was asked.
  std::uint64_t gone = 0;
  for (const auto& [dir, count] : {std::pair{cache_, 4}, std::pair{other, 2}}) {
    int dirGone = 0;
    while (dirGone < count && !fs::exists(dir / ("blob" + std::to_string(count - 1 - dirGone))))
      ++dirGone;
    for (int i = 0; i < count - dirGone; ++i)
      EXPECT_TRUE(fs::exists(dir / ("blob" + std::to_string(i)))) << dir << i;
    gone += static_cast<std::uint64_t>(dirGone);
  }
  EXPECT_GE(gone, 3u);
  EXPECT_EQ(purged.at("VANTOR_AMOUNT_REPORTED").uint64Value(), gone * each)
      << Value(purged).description();
  // The volume is shared with whatever else runs: its free space moved by
  // at least most of what went.
  EXPECT_GT(purged.at("VANTOR_FREESPACE_END").uint64Value(),
            purged.at("VANTOR_FREESPACE_BEGIN").uint64Value() + each);
}

// A shipped source is known to vantord from its descriptor alone: the first
// query starts the service through D-Bus activation of the source's own bus
// name, which the service takes, and the source answers under its ID.
TEST_F(CacheDir, AShippedSourceIsStartedByBusActivationOfItsId) {
  ctx_.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT"});
  const std::string id = std::string(kName) + ".apt-archives";
  ctx_.writeDescriptor(
      id + ".plist",
      dict({{"VANTOR_ID", Value(id)},
            {"VANTOR_SERVICES", Value(Value::Array{Value("PURGE"), Value("PERIODIC")})}}));
  auto bytes = encodePlist(dict({{"Path", Value(cache_.string())}}), PlistFormat::kXml);
  ctx_.writeFile(ctx_.root() / "etc/vantor/cachedirs.d/00-apt-archives.plist",
                 std::string(bytes.begin(), bytes.end()));
  makeFile(cache_ / "old.deb", 1 << 20, 40 * kDay);
  ::sync();
  const fs::path script = ctx_.root().parent_path() / "activated.sh";
  ctx_.writeFile(script, "#!/bin/sh\nZEPHON_SIMULATOR_ROOT='" + ctx_.root().string() +
                             "' DBUS_SYSTEM_BUS_ADDRESS='" + ctx_.busAddress() + "' exec '" +
                             kBinary + "' >>'" + logFile().string() + "' 2>&1\n");
  fs::permissions(script, fs::perms::owner_all);
  ctx_.writeFile(ctx_.busServiceDir() / (id + ".service"),
                 "[D-BUS Service]\nName=" + id + "\nExec=" + script.string() + "\n");
  ASSERT_TRUE(ctx_.startDaemon());
  auto client = ctx_.connect();
  // The first query sets off the start; the source then answers at its name.
  const auto offered = callClient(*client, "ClientItemizedPurgeableSpace",
                                  {{"VANTOR_VOLUME", Value(volumeHolding(cache_))}});
  ASSERT_TRUE(ctx_.signals().waitFor("NameOwnerChanged:" + id + ":owned", seconds(30)))
      << Value(offered).description();
  auto proxy = sdbus::createProxy(*connection(), id, "/com/tessaly/vantor/Service");
  proxy_ = sdbus::createProxy(*connection(), kName, "/com/tessaly/vantor/Service");
  rescan();
  const auto answer = fromVariantMap(invokeOn<VariantMap>(
      *proxy, "ServicePurgeable", 1, toVariantMap({{"VANTOR_VOLUME", Value(cache_.string())}})));
  EXPECT_EQ(answer.at("VANTOR_AMOUNT"), Value(allocated(cache_ / "old.deb")));
}

// A command source, root's: measures the files of `dir` and purges with
// `purge`, a script written here.
void configureCommand(TestContext& ctx, const std::string& name, const fs::path& dir,
                      const std::string& purge) {
  const fs::path script = ctx.root().parent_path() / (name + ".sh");
  std::ofstream(script) << "#!/bin/sh\n" << purge << "\n";
  fs::permissions(script, fs::perms(0755));
  auto bytes =
      encodePlist(dict({{"Requires", Value(Value::Array{Value(dir.string())})},
                        {"MeasurePaths", Value(Value::Array{Value((dir / "*").string())})},
                        {"Purge", Value(Value::Array{Value(script.string()), Value("{bytes}")})}}),
                  PlistFormat::kXml);
  ctx.writeFile(ctx.root() / "etc/vantor/commands.d" / (name + ".plist"),
                std::string(bytes.begin(), bytes.end()));
}

// What a command source answers is what its measurement shows went, however
// much the command claims; a command that hangs is ended by a cancel, and
// the client is answered.
TEST_F(CacheDir, ACommandSourceAnswersWhatWentAndACancelEndsAHangingCommand) {
  ctx_.grantUser("me.plist", ::getuid(),
                 {"CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT", "SERVICE_ENTITLEMENT"});
  const fs::path data = ctx_.root().parent_path() / "data";
  makeFile(data / "a", 8 << 20, 0);
  makeFile(data / "b", 8 << 20, 0);
  ::sync();
  const std::uint64_t each = allocated(data / "a");
  configureCommand(ctx_, "liar", data,
                   "rm -f " + (data / "a").string() + "; echo freed 99999999999 bytes");
  ASSERT_TRUE(ctx_.startDaemon());
  ASSERT_TRUE(start());
  ASSERT_TRUE(checkedIn({std::string(kName) + ".liar"}));
  rescan();
  auto client = ctx_.connect();
  const Value volume(volumeHolding(data));
  const auto purged = callClient(*client, "ClientPurge",
                                 {{"VANTOR_VOLUME", volume}, {"VANTOR_AMOUNT", Value(each)}});
  EXPECT_FALSE(fs::exists(data / "a"));
  EXPECT_EQ(purged.at("VANTOR_AMOUNT_REPORTED").uint64Value(), each) << Value(purged).description();

  const fs::path started = ctx_.root().parent_path() / "started";
  configureCommand(ctx_, "liar", data, "touch " + started.string() + "; exec /bin/sleep 1000");
  service_->signal(SIGHUP);
  rescan();
  auto purging = std::async(std::launch::async, [&] {
    auto caller = ctx_.connect();
    return callClient(*caller, "ClientPurge",
                      {{"VANTOR_VOLUME", volume}, {"VANTOR_AMOUNT", Value(each)}});
  });
  ASSERT_TRUE(waitUntil([&] { return fs::exists(started); }, seconds(60)));
  sdbus::createProxy(*client, "com.tessaly.vantor", "/com/tessaly/vantor")
      ->callMethod("ClientCancelPurge")
      .onInterface("com.tessaly.vantor.Client");
  ASSERT_EQ(purging.wait_for(seconds(60)), std::future_status::ready) << "the purge was not ended";
  EXPECT_EQ(purging.get().at("VANTOR_AMOUNT_REPORTED").uint64Value(), 0u);
  EXPECT_TRUE(fs::exists(data / "b"));
}

// Writes a trashed file of `size` bytes, trashed `age` seconds ago.
void trashFile(const fs::path& trash, const std::string& name, std::size_t size, std::int64_t age) {
  makeFile(trash / "files" / name, size, 0);
  fs::create_directories(trash / "info");
  const std::time_t when = std::time(nullptr) - age;
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", std::localtime(&when));
  std::ofstream(trash / "info" / (name + ".trashinfo"))
      << "[Trash Info]\nPath=/home/u/" << name << "\nDeletionDate=" << date << "\n";
}

// A user's instance checks in its own sources under the user's ID: the
// thumbnails, the tagged caches below ~/.cache and the Trash, whose items go
// by the date they were trashed, each with its record.
TEST_F(CacheDir, AUserInstanceChecksInTheUsersSourcesAndEmptiesTheTrashByDeletionDate) {
  ctx_.grantUser("me.plist", ::getuid(),
                 {"CLIENT_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT", "SERVICE_ENTITLEMENT"});
  const fs::path home = ctx_.root().parent_path() / "home";
  const fs::path trash = home / ".local/share/Trash";
  makeFile(home / ".cache/thumbnails/large/a.png", 1 << 20, 40 * kDay);
  writeTag(home / ".cache/app");
  makeFile(home / ".cache/app/blob", 2 << 20, 40 * kDay);
  trashFile(trash, "old.iso", 3 << 20, 40 * kDay);
  trashFile(trash, "recent.txt", 1 << 20, 2 * kDay);
  ::sync();
  ASSERT_TRUE(ctx_.startDaemon());
  startUser(home);
  const std::string prefix = std::string(kName) + ".user" + std::to_string(::getuid()) + ".";
  ASSERT_TRUE(checkedIn({prefix + "thumbnails", prefix + "cache", prefix + "trash"}));
  auto client = ctx_.connect();
  Value::Dictionary offered;
  // The first scan may still be under way when the sources check in.
  EXPECT_TRUE(waitUntil(
      [&] {
        offered = callClient(
            *client, "ClientItemizedPurgeableSpace",
            {{"VANTOR_VOLUME", Value(volumeHolding(home))}, {"VANTOR_URGENCY", Value(1)}});
        return offered[prefix + "cache"].uint64Value() > 0;
      },
      seconds(30)));
  EXPECT_EQ(offered[prefix + "thumbnails"],
            Value(allocated(home / ".cache/thumbnails/large/a.png")))
      << Value(offered).description();
  EXPECT_EQ(offered[prefix + "cache"], Value(allocated(home / ".cache/app/blob")));
  const std::uint64_t old =
      allocated(trash / "files/old.iso") + allocated(trash / "info/old.iso.trashinfo");
  EXPECT_EQ(offered[prefix + "trash"], Value(old));

  // The Trash source itself, at the path it checked in with on the
  // instance's own connection: at urgency 2 (a week unused) the old item goes
  // with its record and the recent one stays with its own.
  const std::string text = log();
  const std::size_t as = text.find(" as :");
  ASSERT_NE(as, std::string::npos) << text;
  const std::string unique =
      text.substr(as + 4, text.find_first_not_of(":0123456789.", as + 4) - as - 4);
  auto trashProxy = sdbus::createProxy(*connection(), unique, "/com/tessaly/vantor/Service/trash");
  const auto purged = fromVariantMap(
      invokeOn<VariantMap>(*trashProxy, "ServicePurge", 2,
                           toVariantMap({{"VANTOR_AMOUNT", Value(std::uint64_t{1} << 40)}})));
  EXPECT_EQ(purged.at("VANTOR_AMOUNT"), Value(old));
  EXPECT_FALSE(fs::exists(trash / "files/old.iso"));
  EXPECT_FALSE(fs::exists(trash / "info/old.iso.trashinfo"));
  EXPECT_TRUE(fs::exists(trash / "files/recent.txt"));
  EXPECT_TRUE(fs::exists(trash / "info/recent.txt.trashinfo"));
}

}  // namespace
}  // namespace vantor::test
