#include "command_source.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "process.h"

namespace vantor::cachedir {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string readText(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Stand-in commands and configuration files live in a fresh root, owned by
// root like real ones.
class CommandSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vantor-commands-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    ASSERT_EQ(::chmod(root_.c_str(), 0755), 0);
  }
  void TearDown() override { fs::remove_all(root_); }

  fs::path write(const fs::path& relative, const std::string& text, mode_t mode = 0644) {
    const fs::path path = root_ / relative;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }
  std::string script(const std::string& name, const std::string& body) {
    return write(name, "#!/bin/sh\n" + body + "\n", 0755).string();
  }

  fs::path root_;
};

// True once `pid` has gone (or is a zombie waiting for its new parent).
bool gone(pid_t pid) {
  const std::string stat = readText("/proc/" + std::to_string(pid) + "/stat");
  const auto close = stat.rfind(')');
  return close == std::string::npos || stat.substr(close + 2, 1) == "Z";
}

TEST_F(CommandSourceTest, PurgeIsAnsweredWithTheMeasuredBytesNotWhatTheCommandClaims) {
  const struct {
    const char* sizeAfter;
    std::uint64_t answer;
  } cases[] = {{"600", 400}, {"1500", 0}};
  for (const auto& c : cases) {
    const std::string size = write("size", "1000\n").string();
    const std::string purge = script(
        "purge", "echo " + std::string(c.sizeAfter) + " > " + size + "\necho freed 9999 bytes");
    EXPECT_EQ(CommandSource({.name = "liar", .measure = {"/bin/cat", size}, .purge = {purge}})
                  .purge(4, 500, {}),
              c.answer)
        << c.sizeAfter;
  }
}

TEST_F(CommandSourceTest, MeasureSumsTheLeadingSizeOfEachLine) {
  const struct {
    const char* output;
    std::optional<std::uint64_t> bytes;
  } cases[] = {
      {"1.2GB (50%%)\n", 1200000000},
      {"1.5kB\n2 KiB\n100\n\n", 1500 + 2048 + 100},
      {"3 mib\n1TB\n", 3145728 + 1000000000000},
      {"0B\n", 0},
      {"lots\n", std::nullopt},
      {"12XB\n", std::nullopt},
  };
  for (const auto& c : cases) {
    const CommandDefinition definition{
        .name = "sizes", .measure = {"/usr/bin/printf", c.output}, .purge = {"/bin/true"}};
    EXPECT_EQ(CommandSource(definition).measure({}), c.bytes) << c.output;
  }
}

TEST_F(CommandSourceTest, HangingCommandIsStoppedByItsTimeLimitOrByCancelWithNothingLeft) {
  using std::chrono::milliseconds;
  const struct {
    const char* what;
    bool ignoresTerm;
    bool cancel;
    int timeoutSeconds;
    milliseconds within;
  } cases[] = {
      // Bounds far below the command's own 1000 s, with room for a loaded
      // machine: what they show is that it was stopped, not how fast.
      {"time limit", false, false, 1, milliseconds(8000)},
      {"time limit, SIGTERM ignored", true, false, 1, milliseconds(10000)},
      {"cancel", false, true, 300, milliseconds(8000)},
      {"cancel, SIGTERM ignored", true, true, 300, milliseconds(10000)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path pids = root_ / "pids";
    fs::remove(pids);
    const CommandDefinition definition{
        .name = "hang",
        .measure = {script("hang", std::string(c.ignoresTerm ? "trap '' TERM\n" : "") +
                                       "/bin/sleep 1000 &\necho $$ $! > " + pids.string() +
                                       "\nwait")},
        .purge = {"/bin/true"},
        .timeout = std::chrono::seconds(c.timeoutSeconds)};
    const auto start = Clock::now();
    // Cancelled as soon as the command is known to be running.
    const auto result =
        CommandSource(definition).measure([&] { return c.cancel && fs::exists(pids); });
    EXPECT_EQ(result, std::nullopt);
    EXPECT_LT(Clock::now() - start, c.within);

    pid_t shell = 0, sleeper = 0;
    std::istringstream(readText(pids)) >> shell >> sleeper;
    ASSERT_GT(shell, 0);
    ASSERT_GT(sleeper, 0);
    EXPECT_TRUE(gone(shell));
    // The orphaned sleep was killed with its group; its end is asynchronous.
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!gone(sleeper) && Clock::now() < deadline) {
    }
    EXPECT_TRUE(gone(sleeper));
  }
}

TEST_F(CommandSourceTest, KeepAndBytesAreSubstitutedAtEachUrgencyAndNothingRunsBelowTheMinimum) {
  const fs::path calls = root_ / "calls";
  const CommandSource source({.name = "args",
                              .measure = {"/bin/cat", write("size", "1000\n").string()},
                              .purge = {script("purge", "echo \"$@\" >> " + calls.string()),
                                        "--bytes={bytes}", "keep={keep}/{keep}"},
                              .minimumUrgency = 2});
  for (std::int32_t urgency = 1; urgency <= 4; ++urgency)
    source.purge(urgency, 300 * static_cast<std::uint64_t>(urgency), {});
  EXPECT_EQ(readText(calls),
            "--bytes=600 keep=400/400\n"
            "--bytes=900 keep=100/100\n"
            "--bytes=1200 keep=0/0\n");
}

TEST_F(CommandSourceTest, ConfigurationFilesAreRefusedMaskedAndOverridden) {
  const auto body = [](const std::string& extra, const std::string& measure = "/bin/true") {
    return "<plist version=\"1.0\"><dict>" + extra + "<key>Measure</key><array><string>" + measure +
           "</string></array><key>Purge</key><array><string>/bin/true</string></array>"
           "</dict></plist>";
  };
  const std::string shipped = "usr/share/vantor/commands.d/", local = "etc/vantor/commands.d/";
  write(shipped + "10-masked-by-link.plist", body(""));
  fs::create_directories(root_ / local);
  fs::create_symlink("/dev/null", root_ / local / "10-masked-by-link.plist");
  write(shipped + "20-masked-by-empty.plist", body(""));
  write(local + "20-masked-by-empty.plist", "");
  write(shipped + "30-overridden.plist", body("", "/bin/shipped"));
  write(local + "30-overridden.plist", body("", "/bin/local"));
  write(shipped + "35-shipped.plist", body(""));
  write(local + "40-world-writable.plist", body(""), 0646);
  write(local + "41-group-writable.plist", body(""), 0664);
  const fs::path foreign = write(local + "42-not-roots.plist", body(""));
  ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
  fs::create_symlink(write("elsewhere.plist", body("")), root_ / local / "43-linked.plist");
  write(local + "50-unknown-key.plist", body("<key>Shell</key><string>x</string>"));
  write(local + "51-wrong-type.plist", body("<key>TimeoutSeconds</key><string>10</string>"));
  write(local + "52-relative.plist", body("", "cat"));
  write(local + "53-both.plist", body("<key>MeasurePaths</key><array><string>/x</string></array>"));
  write(local + "54-bad-name.plist", body("<key>Name</key><string>1st</string>"));
  write(local + "55-named.plist", body("<key>Name</key><string>custom</string>"));
  write(local + "56-urgency.plist", body("<key>MinimumUrgency</key><integer>5</integer>"));
  write(local + "60-requires-missing.plist",
        body("<key>Requires</key><array><string>/nonexistent/x</string></array>"));
  write(local + "61-requires-present.plist",
        body("<key>Requires</key><array><string>" + root_.string() + "</string></array>"));

  std::map<std::string, std::string> loaded;  // name -> Measure's command
  for (const CommandDefinition& definition : loadCommandSources(root_))
    loaded[definition.name] = definition.measure.at(0);
  EXPECT_EQ(loaded, (std::map<std::string, std::string>{{"custom", "/bin/true"},
                                                        {"overridden", "/bin/local"},
                                                        {"requires-present", "/bin/true"},
                                                        {"shipped", "/bin/true"}}));
}

TEST_F(CommandSourceTest, ShippedExamplesAreReadAndRunAgainstStandIns) {
  const fs::path examples =
      fs::path(VANTOR_TEST_FIXTURES_DIR) / "../../dist/cachedir/examples/commands.d";
  int count = 0;
  // The tools themselves stand in as scripts: the measuring one prints the
  // size left in `state` the way the tools do, the purging one records its
  // arguments and frees a quarter.
  const fs::path state = root_ / "state", args = root_ / "args";
  const std::string measure = script("measure", "echo \"$(cat " + state.string() + ")MB (40%)\"");
  const std::string purge =
      script("purge", "echo \"$@\" > " + args.string() + "\necho $(( $(cat " + state.string() +
                          ") * 3 / 4 )) > " + state.string());
  for (const auto& entry : fs::directory_iterator(examples)) {
    SCOPED_TRACE(entry.path().filename().string());
    // As installed: root's, mode 0644.
    const fs::path copy = write(entry.path().filename(), readText(entry.path()));
    auto definition = readCommandDefinition(copy);
    ASSERT_TRUE(definition);
    ++count;
    if (definition->measure.empty())
      continue;
    definition->measure.front() = measure;
    definition->purge.front() = purge;
    write("state", "400\n");
    const CommandSource source(*definition);
    EXPECT_EQ(source.measure({}), 400'000'000u);
    EXPECT_EQ(source.purge(4, 100'000'000, {}), 100'000'000u);
    const std::string recorded = readText(args);
    EXPECT_EQ(recorded.find('{'), std::string::npos) << recorded;
  }
  EXPECT_GT(count, 0);
}

std::uint64_t allocated(const fs::path& file) {
  struct stat st {};
  EXPECT_EQ(::stat(file.c_str(), &st), 0) << file;
  return static_cast<std::uint64_t>(st.st_blocks) * 512;
}

TEST_F(CommandSourceTest, ShippedJournalSourceVacuumsArchivedFilesOldestFirstOnly) {
  fs::path remote = "/lib/systemd/systemd-journal-remote";
  if (::access(remote.c_str(), X_OK) != 0)
    remote = "/usr/lib/systemd/systemd-journal-remote";
  if (::access(remote.c_str(), X_OK) != 0 || ::access("/usr/bin/journalctl", X_OK) != 0)
    GTEST_SKIP() << "systemd-journal-remote (package systemd-journal-remote) or journalctl missing";

  // The shipped file as it is installed: root's, mode 0644.
  auto definition =
      readCommandDefinition(write("usr/share/vantor/commands.d/50-journal.plist",
                                  readText(fs::path(VANTOR_TEST_FIXTURES_DIR) /
                                           "../../dist/cachedir/commands.d/50-journal.plist")));
  ASSERT_TRUE(definition);
  EXPECT_EQ(definition->name, "journal");
  EXPECT_EQ(definition->required,
            (std::vector<std::string>{"/var/log/journal", "/usr/bin/journalctl"}));

  // Three archived files, oldest first, and the active one.
  const fs::path dir = root_ / "var/log/journal/0123456789abcdef0123456789abcdef";
  const fs::path active = dir / "system.journal";
  fs::create_directories(dir);
  std::vector<fs::path> archived;
  for (int i = 1; i <= 4; ++i) {
    const long long realtime = 1700000000000000LL + i * 1000000LL;
    const fs::path input = write("entry", "__REALTIME_TIMESTAMP=" + std::to_string(realtime) +
                                              "\n__MONOTONIC_TIMESTAMP=" + std::to_string(i) +
                                              "\n_BOOT_ID=00112233445566778899aabbccddeeff\n"
                                              "_HOSTNAME=test\nMESSAGE=entry\n\n");
    char name[128];
    std::snprintf(name, sizeof name,
                  "system@fedcba9876543210fedcba9876543210-%016x-%016llx.journal", i, realtime);
    const fs::path out = i <= 3 ? archived.emplace_back(dir / name) : active;
    const auto made =
        runCommand({remote.string(), "--split-mode=none", "-o", out.string(), input.string()},
                   std::chrono::seconds(30), {}, "journal-remote");
    ASSERT_TRUE(made.succeeded()) << made.describe();
  }
  struct stat activeBefore {};
  ASSERT_EQ(::stat(active.c_str(), &activeBefore), 0);

  // The shipped patterns and command, run below the test's root.
  for (auto* paths : {&definition->measurePaths, &definition->keepPaths}) {
    for (std::string& path : *paths)
      path = root_.string() + path;
  }
  definition->purge.push_back("--directory=" + dir.string());
  const CommandSource source(*definition);
  const auto before = source.measure({});
  ASSERT_EQ(before, allocated(archived[0]) + allocated(archived[1]) + allocated(archived[2]));

  const std::uint64_t share = allocated(archived[0]);
  const std::uint64_t freed = source.purge(1, share, {});
  // The active file counts toward {keep}: exactly the oldest archived file
  // goes, and what is answered is what the measurement shows.
  EXPECT_EQ(freed, share);
  EXPECT_EQ(freed, *before - source.measure({}).value());
  EXPECT_FALSE(fs::exists(archived[0]));
  EXPECT_TRUE(fs::exists(archived[1]) && fs::exists(archived[2]));
  struct stat activeAfter {};
  ASSERT_EQ(::stat(active.c_str(), &activeAfter), 0);
  EXPECT_EQ(std::tie(activeAfter.st_ino, activeAfter.st_size, activeAfter.st_mtim.tv_nsec),
            std::tie(activeBefore.st_ino, activeBefore.st_size, activeBefore.st_mtim.tv_nsec));
}

}  // namespace
}  // namespace vantor::cachedir
