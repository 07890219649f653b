// vantor-cachedir against real directories, run as a real process on a
// private bus: what it offers, what it deletes, and what it never touches
// however the tree is rearranged under it.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <stop_token>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "common/test_context.h"
#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"

namespace vantor::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr char kName[] = "com.tessaly.vantor.cachedir";
constexpr char kPath[] = "/com/tessaly/vantor/Service";
constexpr char kBinary[] = VANTOR_CACHEDIR_BINARY;
constexpr std::int64_t kDay = 86400;
constexpr std::uint64_t kAll = 1ULL << 40;

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
Value strings(std::initializer_list<std::string> items) {
  Value::Array array;
  for (const std::string& item : items)
    array.emplace_back(item);
  return Value(std::move(array));
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

// Runs `step` over and over on a thread of its own while `round` runs over
// and over for three seconds. Answers how many rounds ran and how many steps
// answered true; on return the thread has stopped, between two steps.
std::pair<int, int> race(const std::function<bool()>& step, const std::function<void()>& round) {
  std::atomic<int> steps{0};
  int rounds = 0;
  {
    std::jthread racer([&](const std::stop_token& stop) {
      while (!stop.stop_requested())
        steps += step() ? 1 : 0;
    });
    for (const auto end = std::chrono::steady_clock::now() + seconds(3);
         std::chrono::steady_clock::now() < end; ++rounds)
      round();
  }
  return {rounds, steps.load()};
}

// How many times `what` occurs in `text`.
std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++n;
  return n;
}

class CacheDir : public ::testing::Test {
 protected:
  CacheDir()
      : cache_(ctx_.root().parent_path() / "cache"),
        outside_(ctx_.root().parent_path() / "outside") {
    fs::create_directories(cache_);
    fs::create_directories(outside_);
  }

  // Writes `value` as an XML property list at `relative` below the root.
  void writePlist(const fs::path& relative, const Value& value) {
    auto bytes = encodePlist(value, PlistFormat::kXml);
    ctx_.writeFile(ctx_.root() / relative, std::string(bytes.begin(), bytes.end()));
  }
  // One configuration file holding `entries`.
  void configure(Value::Array entries) {
    writePlist("etc/vantor/cachedirs.d/50-test.plist", Value(std::move(entries)));
  }
  void configureCache(Value::Dictionary extra = {}) {
    extra.emplace("Path", Value(cache_.string()));
    configure({dict(std::move(extra))});
  }
  // A command source, root's: measures the files of `dir` and purges with
  // `purge`, a script written here.
  void configureCommand(const std::string& name, const fs::path& dir, const std::string& purge) {
    const fs::path script = ctx_.root().parent_path() / (name + ".sh");
    std::ofstream(script) << "#!/bin/sh\n" << purge << "\n";
    fs::permissions(script, fs::perms(0755));
    writePlist("etc/vantor/commands.d/" + name + ".plist",
               dict({{"Requires", strings({dir.string()})},
                     {"MeasurePaths", strings({(dir / "*").string()})},
                     {"Purge", strings({script.string(), "{bytes}"})}}));
  }

  // Starts the service (a user's instance for `home` when given, which owns
  // no name), through `wrapper` (e.g. a mount namespace) when given; the
  // system instance is up once it owns its name.
  bool start(std::vector<std::string> wrapper = {}, const fs::path& home = {}) {
    wrapper.push_back(kBinary);
    std::map<std::string, std::string> env = env_;
    env["ZEPHON_SIMULATOR_ROOT"] = ctx_.root().string();
    env["DBUS_SYSTEM_BUS_ADDRESS"] = ctx_.busAddress();
    if (!home.empty()) {
      env["HOME"] = home.string();
      wrapper.push_back("--user");
    }
    service_ = std::make_unique<ChildProcess>(wrapper, env, logFile());
    if (!home.empty())
      return true;
    if (!ctx_.signals().waitFor(std::string("NameOwnerChanged:") + kName + ":owned", seconds(20)))
      return false;
    proxy_ = proxyTo();
    return true;
  }
  // Starts the service in a mount namespace of its own after running `setup`
  // there, so that the mounts it makes are seen by the service alone.
  bool startWithMounts(const std::string& setup) {
    return start({"/usr/bin/unshare", "-m", "/bin/sh", "-c",
                  "mount --make-rprivate / && " + setup + " && exec \"$0\""});
  }
  // Waits until the log shows each of `ids` (below the service's name)
  // checked in.
  bool checkedIn(const std::vector<std::string>& ids) {
    return std::all_of(ids.begin(), ids.end(), [this](const std::string& id) {
      return waitForText(logFile(), "checked in " + std::string(kName) + "." + id + "\n",
                         seconds(30));
    });
  }
  // A proxy on a connection of its own, so that a call through it does not
  // wait behind another one's.
  std::unique_ptr<sdbus::IProxy> proxyTo(const std::string& name = kName,
                                         const std::string& path = kPath) {
    return sdbus::createProxy(sdbus::createSessionBusConnectionWithAddress(ctx_.busAddress()), name,
                              path);
  }
  fs::path logFile() const { return ctx_.root().parent_path() / "cachedir.log"; }
  std::string log() const { return readText(logFile()); }

  // Calls `method` of the service interface on `proxy` with `info` (and
  // the urgency before it, when there is one); answers its reply.
  template <typename... Urgency>
  static Value::Dictionary callOn(sdbus::IProxy& proxy, const std::string& method,
                                  const Value::Dictionary& info, Urgency... urgency) {
    VariantMap result;
    proxy.callMethod(method)
        .onInterface("com.tessaly.vantor.Service")
        .withTimeout(std::uint64_t{130'000'000})
        .withArguments(urgency..., toVariantMap(info))
        .storeResultsTo(result);
    return fromVariantMap(result);
  }
  std::uint64_t purgeable(int urgency) {
    return callOn(*proxy_, "ServicePurgeable", {{"VANTOR_VOLUME", Value(cache_.string())}}, urgency)
        .at("VANTOR_AMOUNT")
        .uint64Value();
  }
  std::uint64_t purge(int urgency, std::uint64_t amount, const fs::path& volume = {}) {
    return callOn(*proxy_, "ServicePurge",
                  {{"VANTOR_VOLUME", Value((volume.empty() ? cache_ : volume).string())},
                   {"VANTOR_AMOUNT", Value(amount)}},
                  urgency)
        .at("VANTOR_AMOUNT")
        .uint64Value();
  }
  // Waits for a scan that started after the call; answers what it found.
  Value::Dictionary rescan() {
    return callOn(*proxy_, "ServiceCallback", {{"Rescan", Value(true)}});
  }

  // `count` files f0, f1, ... of 10 bytes in `dir`, unused for 90 days.
  static void makeFiles(const fs::path& dir, int count) {
    for (int i = 0; i < count; ++i)
      makeFile(dir / ("f" + std::to_string(i)), 10, 90 * kDay);
  }
  void expectOutsideKept(int count, int rounds) {
    for (int i = 0; i < count; ++i)
      ASSERT_TRUE(fs::exists(outside_ / ("f" + std::to_string(i)))) << i << " after " << rounds;
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
  std::unique_ptr<sdbus::IProxy> proxy_;
};

TEST_F(CacheDir, OffersAndPurgesOnlyOldMatchingSingleLinkFilesOldestFirstNeverFollowingLinks) {
  configureCache({{"Patterns", strings({"*.deb"})}});
  for (const auto& [name, age] : {std::pair{"oldest.deb", 40 * kDay},
                                  {"sub/dir/old.deb", 35 * kDay},
                                  {"week.deb", 8 * kDay},
                                  {"hour.deb", 2 * 3600},
                                  {"young.deb", 60},          // younger than MinimumAge
                                  {"notes.txt", 90 * kDay},   // not matching
                                  {"linked.deb", 90 * kDay},  // second link elsewhere
                                  {"locked.deb", 50 * kDay}})
    makeFile(cache_ / name, 8192, age);
  fs::create_hard_link(cache_ / "linked.deb", outside_ / "linked.deb");
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

  EXPECT_EQ(purge(4, kAll), 3 * each);
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
  Value::Array entries{dict({{"Path", Value("/")}}), dict({{"Path", Value("/usr")}}),
                       dict({{"Path", Value("var/cache")}}),
                       dict({{"Path", Value(cache_.string())}}),
                       dict({{"TaggedBelow", Value(home.string())}})};
  for (const auto& [dir, key, value] : {std::tuple{"bool", "MaximumSize", Value(true)},
                                        {"real", "MinimumAge", Value(1.5)},
                                        {"tagnum", "TaggedBelow", Value(5)},
                                        {"tagrel", "TaggedBelow", Value("home")}}) {
    makeFile(typed / dir / "old", 4096, 90 * kDay);
    entries.push_back(dict({{"Path", Value((typed / dir).string())}, {key, value}}));
  }
  configure(std::move(entries));
  ASSERT_TRUE(start());

  const Value::Dictionary scanned = rescan();
  std::set<std::string> found;
  for (const Value& dir : scanned.at("Directories").get<Value::Array>())
    found.insert(dir.get<std::string>());
  EXPECT_EQ(found, (std::set<std::string>{cache_.string(), (home / "alice/.cache/thumbs").string(),
                                          (home / "bob").string() + "/caf\\xe9 \\\\ cache"}));
  for (const char* refused :
       {"refusing \"/\"", "refusing \"/usr\"", "refusing \"var/cache\"",
        "\"MaximumSize\" is not a number of bytes", "\"MinimumAge\" is not a number of seconds",
        "\"TaggedBelow\" is not an absolute path"})
    EXPECT_NE(log().find(refused), std::string::npos) << refused;

  EXPECT_GT(purge(4, kAll), 0u);
  for (const fs::path& gone : {home / "alice/.cache/thumbs/a.png", odd / "his", odd / "roots/old"})
    EXPECT_FALSE(fs::exists(gone)) << gone;
  for (const fs::path& kept :
       {home / "alice/.cache/thumbs/CACHEDIR.TAG", home / "alice/notes/keep.txt", odd / "roots",
        home / "mallory/evil/roots", typed / "bool/old", typed / "real/old"})
    EXPECT_TRUE(fs::exists(kept)) << kept;
}

TEST_F(CacheDir, EachFileFollowsItsInnermostDirectoryAndNoConfiguredDirectoryGoes) {
  configure({dict({{"Path", Value(cache_.string())}, {"MinimumAge", Value(0)}}),
             dict({{"Path", Value((cache_ / "inner").string())}, {"Patterns", strings({"*.tmp"})}}),
             dict({{"Path", Value((cache_ / "inner/deeper").string())}})});
  for (const char* file : {"outer.dat", "inner/x.tmp", "inner/keep.dat", "inner/deeper/f.dat"})
    makeFile(cache_ / file, 4096, kDay);
  ASSERT_TRUE(start());

  EXPECT_EQ(purge(4, kAll), 3 * allocated(cache_ / "outer.dat"));
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
  std::vector<int> held;  // protected files, open; the racer adds to them
  const auto hold = [&](const std::string& path, bool lock) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path;
    EXPECT_TRUE(!lock || ::flock(fd, LOCK_SH) == 0);
    held.push_back(fd);
  };
  for (int i = 0; i < kPairs; ++i) {
    makeFile(at("p", i), 10, i % 2 == 0 ? 60 : 90 * kDay);
    hold(at("p", i), i % 2 != 0);
  }
  refill("q", kPairs);
  refill("r", kReplaced);
  ASSERT_TRUE(start());

  std::uint64_t freed = 0;
  const auto [rounds, swaps] = race(
      [&, n = 0, replaced = 0]() mutable {
        if (n % 256 == 0 && replaced < kReplaced) {
          const fs::path fresh = cache_ / ".fresh";
          makeFile(fresh, 10, 0);
          hold(fresh.string(), false);
          ::rename(fresh.c_str(), at("r", replaced++).c_str());
        }
        const int i = n++ % kPairs;
        return ::renameat2(AT_FDCWD, at("p", i).c_str(), AT_FDCWD, at("q", i).c_str(),
                           RENAME_EXCHANGE) == 0;
      },
      [&] {
        refill("p", kPairs);
        refill("q", kPairs);
        refill("r", kReplaced);
        rescan();
        freed += purge(4, kAll);
      });
  EXPECT_GT(freed, 0u);
  EXPECT_GT(swaps, rounds);
  for (const int fd : held) {
    struct stat st;
    ASSERT_EQ(::fstat(fd, &st), 0);
    EXPECT_EQ(st.st_nlink, 1u) << "a protected file was deleted in " << rounds << " rounds";
    ::close(fd);
  }
}

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

// cache/a is swapped for a symbolic link to the outside directory and back.
TEST_P(CacheDirResolving, DeletesNothingOutsideWhileADirectoryIsSwappedForASymlink) {
  configureCache({{"MinimumAge", Value(0)}});
  constexpr int kFiles = 300;
  makeFiles(outside_, kFiles);
  const fs::path dir = cache_ / "a", aside = cache_ / "a.aside";
  fs::create_directories(dir);
  ASSERT_TRUE(start());

  // The real directory is filled and scanned in place: the swapper takes no
  // new turn while `filling` is set, and any turn under way ends first.
  std::atomic<bool> filling{false};
  std::mutex swapping;
  const auto [rounds, swaps] = race(
      [&] {
        if (filling)
          return false;
        const std::lock_guard lock(swapping);
        if (::rename(dir.c_str(), aside.c_str()) != 0)
          return false;
        if (::symlink(outside_.c_str(), dir.c_str()) == 0)
          ::unlink(dir.c_str());
        ::rename(aside.c_str(), dir.c_str());
        return true;
      },
      [&] {
        filling = true;
        {
          const std::lock_guard lock(swapping);
          makeFiles(dir, kFiles);
          rescan();
        }
        filling = false;
        // Under load most files may be kept: their directory is mid-swap
        // whenever the purge looks. Only what it deletes matters here.
        purge(4, kAll);
      });
  EXPECT_GT(swaps, rounds);
  expectOutsideKept(kFiles, rounds);
  // With the directory left in place, the same purge deletes its files.
  makeFiles(dir, kFiles);
  rescan();
  EXPECT_EQ(purge(4, kAll), kFiles * allocated(outside_ / "f0"));
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
  const auto bind = [](const fs::path& from, const fs::path& to) {
    return "mount --bind '" + from.string() + "' '" + to.string() + "'";
  };
  ASSERT_TRUE(startWithMounts(
      bind(outside_ / "dir", cache_ / "mnt") + " && " + bind(outside_ / "file", cache_ / "victim") +
      " && mount -t ramfs ramfs '" + ram.string() + "' && cp -a '" + seed.string() + "/.' '" +
      ram.string() + "' && " + bind(outside_ / "dir", ram / "mnt")));
  char events[4096];
  while (::read(watch, events, sizeof events) > 0) {
  }

  EXPECT_EQ(rescan().at("Files").uint64Value(), 3u);  // cache/own, cache/sub/own, ram/own
  EXPECT_EQ(purge(4, kAll), 2 * allocated(outside_ / "file"));
  purge(4, kAll, ram);
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
  makeFiles(outside_, kFiles);
  configure({dict({{"TaggedBelow", Value(home.string())}})});
  ASSERT_TRUE(startWithMounts("mount --bind '" + outside_.string() + "' '" +
                              (home / "alice2/cache").string() + "'"));

  const auto [rounds, swaps] = race(
      [&] {
        return ::renameat2(AT_FDCWD, (home / "alice").c_str(), AT_FDCWD, (home / "alice2").c_str(),
                           RENAME_EXCHANGE) == 0;
      },
      [&] {
        rescan();
        purge(4, kAll);
      });
  EXPECT_GT(swaps, rounds);
  expectOutsideKept(kFiles, rounds);
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

  VariantArray reply;
  proxy_->callMethod("ServicePeriodic")
      .onInterface("com.tessaly.vantor.Service")
      .withArguments(3, toVariantMap({{"VANTOR_VOLUME", Value(cache_.string())}}))
      .storeResultsTo(reply);
  // Seven files of 8 KiB, at most three stay: the youngest three.
  EXPECT_EQ(fromOptionalVariant(reply).find("VANTOR_AMOUNT")->uint64Value(), 4 * each);
  for (const char* gone : {"ancient", "day5", "day4", "day3"})
    EXPECT_FALSE(fs::exists(cache_ / gone)) << gone;
  for (const char* kept : {"day1", "day2", "fresh"})
    EXPECT_TRUE(fs::exists(cache_ / kept)) << kept;
}

// The purge runs on several removers at once; a cancel from another thread
// stops them between two files. (How soon: the cache-directory benchmark.)
// SIGTERM, while one purge is under way and more calls wait, ends the service
// cleanly with every call answered.
TEST_F(CacheDir, CancelEndsAPurgeAtOnceAndSigtermStopsCleanlyAnsweringEveryCall) {
  // 100 directories of 1000 empty files, last used an hour ago: empty files
  // free nothing, so a purge goes through every one.
  configureCache({{"MinimumAge", Value(0)}});
  ASSERT_EQ(std::system(("cd '" + cache_.string() +
                         "' && for d in $(seq 0 99); do mkdir $d && cd $d && "
                         "seq 0 999 | xargs touch -d '-1 hour' && cd ..; done")
                            .c_str()),
            0);
  ASSERT_TRUE(start());
  ASSERT_EQ(rescan().at("Files").uint64Value(), 100'000u);
  // A purge has begun once it has removed a first entry: a directory's
  // modification time has moved.
  const auto changeTimes = [this] {
    std::vector<fs::file_time_type> times;
    for (int d = 0; d < 100; ++d)
      times.push_back(fs::last_write_time(cache_ / std::to_string(d)));
    return times;
  };
  auto before = changeTimes();
  auto purging = std::async(std::launch::async, [this] { return purge(4, 1); });
  ASSERT_TRUE(waitUntil([&] { return changeTimes() != before; }, seconds(30)))
      << "the purge did not start";
  proxyTo()->callMethod("ServiceCancelPurge").onInterface("com.tessaly.vantor.Service");
  ASSERT_EQ(purging.wait_for(seconds(2)), std::future_status::ready);
  EXPECT_EQ(purging.get(), 0u);
  EXPECT_GT(std::count_if(fs::recursive_directory_iterator(cache_), {},
                          [](const fs::directory_entry& e) { return e.is_regular_file(); }),
            50'000);
  // A cancelled purge leaves even the directories it emptied.
  for (int d = 0; d < 100; ++d)
    EXPECT_TRUE(fs::is_directory(cache_ / std::to_string(d))) << d;

  // SIGTERM with one purge under way, two queued behind it and a rescan
  // waiting.
  before = changeTimes();
  std::vector<std::future<Value::Dictionary>> calls;
  for (int i = 0; i < 4; ++i) {
    calls.push_back(std::async(std::launch::async, [this, i] {
      return i == 3 ? callOn(*proxyTo(), "ServiceCallback", {{"Rescan", Value(true)}})
                    : callOn(*proxyTo(), "ServicePurge", {{"VANTOR_AMOUNT", Value(2)}}, 4);
    }));
  }
  ASSERT_TRUE(waitUntil([&] { return changeTimes() != before; }, seconds(30)))
      << "the purge did not start";
  // Every call has reached the service before it is told to stop; the rescan
  // before the calls asked once already.
  ASSERT_TRUE(waitUntil(
      [&] {
        const std::string text = log();
        return occurrences(text, "of 2 bytes: queued") == 3 &&
               occurrences(text, "rescan requested") == 2;
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
  const fs::path other = ctx_.root().parent_path() / "other";
  configureCache();  // 50-test.plist: the source "test"
  writePlist("etc/vantor/cachedirs.d/60-other.plist",
             dict({{"Path", Value(other.string())}, {"Name", Value("second")}}));
  for (const auto& [dir, count] : {std::pair{cache_, 4}, std::pair{other, 2}}) {
    for (int i = 0; i < count; ++i)
      makeFile(dir / ("blob" + std::to_string(i)), 16 << 20, (40 + i) * kDay);
  }
  ::sync();
  const std::uint64_t each = allocated(cache_ / "blob0");
  ASSERT_TRUE(ctx_.startDaemonGranting({"CLIENT_ENTITLEMENT", "PURGEABLE_ENTITLEMENT",
                                        "ITEMIZED_PURGEABLE_ENTITLEMENT", "PURGE_ENTITLEMENT",
                                        "SERVICE_ENTITLEMENT"}));
  ASSERT_TRUE(start());
  ASSERT_TRUE(checkedIn({"test", "second"})) << "the sources did not check in";
  rescan();
  auto client = ctx_.connect();
  const Value volume(volumeHolding(cache_));
  const std::string test = std::string(kName) + ".test", second = std::string(kName) + ".second";

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
  const std::string id = std::string(kName) + ".apt-archives";
  ctx_.writeDescriptor(id + ".plist", dict({{"VANTOR_ID", Value(id)},
                                            {"VANTOR_SERVICES", strings({"PURGE", "PERIODIC"})}}));
  writePlist("etc/vantor/cachedirs.d/00-apt-archives.plist",
             dict({{"Path", Value(cache_.string())}}));
  makeFile(cache_ / "old.deb", 1 << 20, 40 * kDay);
  ::sync();
  const fs::path script = ctx_.root().parent_path() / "activated.sh";
  ctx_.writeFile(script, "#!/bin/sh\nZEPHON_SIMULATOR_ROOT='" + ctx_.root().string() +
                             "' DBUS_SYSTEM_BUS_ADDRESS='" + ctx_.busAddress() + "' exec '" +
                             kBinary + "' >>'" + logFile().string() + "' 2>&1\n");
  fs::permissions(script, fs::perms::owner_all);
  ctx_.writeFile(ctx_.busServiceDir() / (id + ".service"),
                 "[D-BUS Service]\nName=" + id + "\nExec=" + script.string() + "\n");
  ASSERT_TRUE(ctx_.startDaemonGranting({"CLIENT_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT"}));
  auto client = ctx_.connect();
  // The first query sets off the start; the source then answers at its name.
  const auto offered = callClient(*client, "ClientItemizedPurgeableSpace",
                                  {{"VANTOR_VOLUME", Value(volumeHolding(cache_))}});
  ASSERT_TRUE(ctx_.signals().waitFor("NameOwnerChanged:" + id + ":owned", seconds(30)))
      << Value(offered).description();
  proxy_ = proxyTo();
  rescan();
  const auto answer =
      callOn(*proxyTo(id), "ServicePurgeable", {{"VANTOR_VOLUME", Value(cache_.string())}}, 1);
  EXPECT_EQ(answer.at("VANTOR_AMOUNT"), Value(allocated(cache_ / "old.deb")));
}

// What a command source answers is what its measurement shows went, however
// much the command claims; a command that hangs is ended by a cancel, and
// the client is answered.
TEST_F(CacheDir, ACommandSourceAnswersWhatWentAndACancelEndsAHangingCommand) {
  const fs::path data = ctx_.root().parent_path() / "data";
  makeFile(data / "a", 8 << 20, 0);
  makeFile(data / "b", 8 << 20, 0);
  ::sync();
  const std::uint64_t each = allocated(data / "a");
  configureCommand("liar", data,
                   "rm -f " + (data / "a").string() + "; echo freed 99999999999 bytes");
  ASSERT_TRUE(
      ctx_.startDaemonGranting({"CLIENT_ENTITLEMENT", "PURGE_ENTITLEMENT", "SERVICE_ENTITLEMENT"}));
  ASSERT_TRUE(start());
  ASSERT_TRUE(checkedIn({"liar"}));
  rescan();
  auto client = ctx_.connect();
  const Value::Dictionary ask{{"VANTOR_VOLUME", Value(volumeHolding(data))},
                              {"VANTOR_AMOUNT", Value(each)}};
  const auto purged = callClient(*client, "ClientPurge", ask);
  EXPECT_FALSE(fs::exists(data / "a"));
  EXPECT_EQ(purged.at("VANTOR_AMOUNT_REPORTED").uint64Value(), each) << Value(purged).description();

  const fs::path started = ctx_.root().parent_path() / "started";
  configureCommand("liar", data, "touch " + started.string() + "; exec /bin/sleep 1000");
  service_->signal(SIGHUP);
  rescan();
  auto purging = std::async(std::launch::async,
                            [&] { return callClient(*ctx_.connect(), "ClientPurge", ask); });
  ASSERT_TRUE(waitUntil([&] { return fs::exists(started); }, seconds(60)));
  proxyTo("com.tessaly.vantor", "/com/tessaly/vantor")
      ->callMethod("ClientCancelPurge")
      .onInterface("com.tessaly.vantor.Client");
  ASSERT_EQ(purging.wait_for(seconds(60)), std::future_status::ready) << "the purge was not ended";
  EXPECT_EQ(purging.get().at("VANTOR_AMOUNT_REPORTED").uint64Value(), 0u);
  EXPECT_TRUE(fs::exists(data / "b"));
}

// A user's instance checks in its own sources under the user's ID: the
// thumbnails, the tagged caches below ~/.cache and the Trash, whose items go
// by the date they were trashed, each with its record.
TEST_F(CacheDir, AUserInstanceChecksInTheUsersSourcesAndEmptiesTheTrashByDeletionDate) {
  const fs::path home = ctx_.root().parent_path() / "home";
  const fs::path trash = home / ".local/share/Trash";
  makeFile(home / ".cache/thumbnails/large/a.png", 1 << 20, 40 * kDay);
  writeTag(home / ".cache/app");
  makeFile(home / ".cache/app/blob", 2 << 20, 40 * kDay);
  // Trashed files, with the records of when.
  for (const auto& [name, size, age] :
       {std::tuple{"old.iso", 3 << 20, 40 * kDay}, {"recent.txt", 1 << 20, 2 * kDay}}) {
    makeFile(trash / "files" / name, size, 0);
    fs::create_directories(trash / "info");
    const std::time_t when = std::time(nullptr) - age;
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", std::localtime(&when));
    std::ofstream(trash / "info" / (std::string(name) + ".trashinfo"))
        << "[Trash Info]\nPath=/home/u/" << name << "\nDeletionDate=" << date << "\n";
  }
  ::sync();
  ASSERT_TRUE(ctx_.startDaemonGranting(
      {"CLIENT_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT", "SERVICE_ENTITLEMENT"}));
  start({}, home);
  const std::string user = "user" + std::to_string(::getuid()) + ".";
  ASSERT_TRUE(checkedIn({user + "thumbnails", user + "cache", user + "trash"}));
  const std::string prefix = std::string(kName) + "." + user;
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
  const auto purged = callOn(*proxyTo(unique, std::string(kPath) + "/trash"), "ServicePurge",
                             {{"VANTOR_AMOUNT", Value(kAll)}}, 2);
  EXPECT_EQ(purged.at("VANTOR_AMOUNT"), Value(old));
  EXPECT_FALSE(fs::exists(trash / "files/old.iso"));
  EXPECT_FALSE(fs::exists(trash / "info/old.iso.trashinfo"));
  EXPECT_TRUE(fs::exists(trash / "files/recent.txt"));
  EXPECT_TRUE(fs::exists(trash / "info/recent.txt.trashinfo"));
}

}  // namespace
}  // namespace vantor::test
