// The command-line client, run as a user runs it: a child process talking to
// the real daemon on a private bus, judged by its output and exit status.

#include <sys/wait.h>

#include <fstream>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "common/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

struct Outcome {
  int exitCode = -1;  // -1: killed by a signal
  std::string out;
  std::string err;
};

std::ostream& operator<<(std::ostream& os, const Outcome& o) {
  return os << "exit " << o.exitCode << "\n--- stdout\n" << o.out << "--- stderr\n" << o.err;
}

// Runs vantorctl with `args` and the current environment plus `env`, and
// collects everything it prints.
Outcome runVantorctl(const std::vector<std::string>& args,
                     const std::map<std::string, std::string>& env = {}) {
  static TempDir logs;
  static int runs = 0;
  const auto errFile = logs.path() / ("stderr-" + std::to_string(++runs));
  std::vector<std::string> argv{VANTORCTL_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  ChildProcess child(argv, env, errFile, /*captureStdout=*/true);
  // No line starts with a NUL: this reads stdout until it closes.
  child.waitForLine(std::string(1, '\0'), seconds(90));
  const std::optional<int> status = child.waitExit(seconds(90));
  Outcome outcome;
  if (!status)
    ADD_FAILURE() << "vantorctl did not finish within 90 s";
  else if (WIFEXITED(*status))
    outcome.exitCode = WEXITSTATUS(*status);
  for (const auto& line : child.lines())
    outcome.out += line + "\n";
  outcome.err = readText(errFile);
  return outcome;
}

Outcome runOn(const TestContext& ctx, std::vector<std::string> args) {
  args.insert(args.begin(), {"--bus", ctx.busAddress()});
  return runVantorctl(args);
}

// What a script's JSON parser sees: "discarded" for anything that is not
// exactly one JSON value.
nlohmann::json parseJson(const std::string& text) {
  return nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
}

TEST(VantorctlArguments, BadOnesExitWith2AndTheUsageBeforeAnythingIsSent) {
  // A bus that does not exist: a command that got past its checks would
  // exit with 3 instead.
  const std::vector<std::vector<std::string>> bad = {
      {},
      {"frobnicate"},
      {"purgeable", "/", "/home"},
      {"purgeable", "--urgency", "5"},
      {"purgeable", "--urgency", "1", "--urgency-limit", "2"},
      {"state", "set", "KEY"},
      {"state", "set", "--type", "integer", "KEY", "12abc"},
      {"state", "set", "--type", "colour", "KEY", "red"},
      {"state", "unset", "KEY", "--type", "string"},
      {"purge", "1.5XB"},
      {"purge", "99999999999T"},
      {"purge", "--itemized", "1G"},
      {"cancel", "now"}};
  for (const auto& args : bad) {
    std::vector<std::string> withBus{"--bus", "unix:path=/nonexistent/vantor-test-bus"};
    withBus.insert(withBus.end(), args.begin(), args.end());
    const Outcome o = runVantorctl(withBus);
    SCOPED_TRACE(::testing::PrintToString(args));
    EXPECT_EQ(o.exitCode, 2) << o;
    EXPECT_NE(o.err.find("usage: vantorctl"), std::string::npos) << o;
    EXPECT_EQ(o.out, "");
  }

  // Help goes to stdout and succeeds, for the tool and for each command.
  const Outcome help = runVantorctl({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("Exit status:"), std::string::npos) << help;
  EXPECT_NE(runVantorctl({"help", "state"}).out.find("--type TYPE"), std::string::npos);
}

// Runs each command on the context's bus, expecting `exitCode` and its text
// in stderr.
void expectFailures(const TestContext& ctx, int exitCode,
                    const std::vector<std::pair<std::vector<std::string>, std::string>>& runs) {
  for (const auto& [args, text] : runs) {
    const Outcome o = runOn(ctx, args);
    EXPECT_EQ(o.exitCode, exitCode) << o;
    EXPECT_NE(o.err.find(text), std::string::npos) << o;
  }
}

// No daemon or no bus exits with 3; missing entitlements with 4, naming
// what is missing.
TEST(VantorctlFailures, ExitWith3WithoutTheDaemonAnd4WithoutEntitlements) {
  TestContext ctx;  // a bus, but vantord not yet started
  expectFailures(ctx, 3,
                 {{{"state", "get", "KEY"}, "vantord is not running"},
                  {{"purgeable"}, "vantord is not running"}});

  // No bus at all. The bus library leaks its half-made connection when
  // connecting fails, a one-off at exit that the leak checker is told of.
  const std::filesystem::path suppressions = ctx.root() / "lsan.supp";
  ctx.writeFile(suppressions, "leak:libsystemd.so\n");
  const Outcome noBus =
      runVantorctl({"--bus", "unix:path=/nonexistent/vantor-test-bus", "state", "get", "KEY"},
                   {{"LSAN_OPTIONS", "suppressions=" + suppressions.string()}});
  EXPECT_EQ(noBus.exitCode, 3) << noBus;
  EXPECT_NE(noBus.err.find("cannot connect"), std::string::npos) << noBus;

  ASSERT_TRUE(ctx.startDaemonGranting({"SERVICE_ENTITLEMENT"}));  // no CLIENT_ENTITLEMENT
  expectFailures(ctx, 4,
                 {{{"state", "get", "KEY"}, "not entitled"}, {{"purgeable"}, "not entitled"}});

  // Each call needs its own entitlement besides.
  ASSERT_TRUE(ctx.stopDaemon());
  ASSERT_TRUE(ctx.startDaemonGranting({"CLIENT_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT"}));
  expectFailures(
      ctx, 4, {{{"purgeable"}, "PURGEABLE_ENTITLEMENT"}, {{"purge", "1M"}, "PURGE_ENTITLEMENT"}});
  expectFailures(ctx, 0, {{{"purgeable", "--itemized"}, ""}});
}

TEST(VantorctlPurge, FreesWhatWasAskedOrSaysItFellShortAndCancels) {
  TestContext ctx;
  ASSERT_TRUE(
      ctx.startDaemonGranting({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGE_ENTITLEMENT"}));
  const auto dir = ctx.root() / "cache";
  std::filesystem::create_directories(dir);
  for (int i = 0; i < 6; ++i)
    std::ofstream(dir / ("f" + std::to_string(i)), std::ios::binary) << std::string(4 << 20, 'x');
  auto service = checkedInService(ctx, "com.example.cache", {"--files", dir.string()});

  const Outcome human = runOn(ctx, {"purge", "6M"});
  ASSERT_EQ(human.exitCode, 0) << human;
  for (const char* line : {"Asked               6.0 MiB\n", "Reported freed      8.0 MiB\n",
                           "Services finished   yes\n"})
    EXPECT_NE(human.out.find(line), std::string::npos) << human;
  EXPECT_EQ(human.err, "") << "no progress line when stderr is not a terminal";

  // 16 MiB are left: asking for far more runs every level and falls short.
  const Outcome json = runOn(ctx, {"--json", "purge", "--timeout", "1", "1T", "/usr"});
  EXPECT_EQ(json.exitCode, 6) << json;
  const auto result = parseJson(json.out);
  ASSERT_TRUE(result.is_object()) << json;
  EXPECT_EQ(result["VANTOR_AMOUNT_REPORTED"], 16 << 20);
  EXPECT_EQ(result["VANTOR_VOLUME"], "/");
  EXPECT_EQ(result["VANTOR_PURGE_TIMEOUT"], 1);
  EXPECT_LT(result["VANTOR_AMOUNT"].get<std::uint64_t>(), 1ULL << 40);
  EXPECT_TRUE(std::filesystem::is_empty(dir));

  const Outcome cancel = runOn(ctx, {"cancel"});
  EXPECT_EQ(cancel.exitCode, 0) << cancel;
  EXPECT_EQ(cancel.out, "Cancel sent.\n");
}

// The samples of a Prometheus text, by "<family>/<statistic>". Every line is
// a comment, "# TYPE <name> counter|gauge", or a sample of a declared family:
// <name>{statistic="<escaped>"} <value>.
std::map<std::string, double> prometheusSamples(const std::string& text) {
  std::set<std::string> declared;
  std::map<std::string, double> samples;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string hash, keyword, name, type, rest;
    const auto brace = line.find("{statistic=\""), close = line.rfind("\"} ");
    if (line.starts_with("# TYPE ") && words >> hash >> keyword >> name >> type) {
      EXPECT_TRUE(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string::npos &&
                  (type == "counter" || type == "gauge") && !(words >> rest))
          << line;
      declared.insert(name);
    } else if (!line.starts_with("# HELP ")) {
      EXPECT_TRUE(brace != std::string::npos && close != std::string::npos && close > brace &&
                  declared.count(line.substr(0, brace)))
          << line;
      std::string label;
      for (std::size_t i = brace + 12; i < close && close != std::string::npos; ++i) {
        if (line[i] == '\\' && i + 1 < close)
          ++i;
        else
          EXPECT_NE(line[i], '"') << line;
        label += line[i];
      }
      if (close != std::string::npos)
        samples[line.substr(0, brace) + "/" + label] = std::stod(line.substr(close + 3));
    }
  }
  return samples;
}

// The daemon's own answers are checked in admin_test, purgeable_query_test
// and persistent_state_test; here, how they show. No check stops the test:
// each rule is judged alone.
TEST(VantorctlQueries, ShowStatePurgeableSpaceServicesHistoryAndStatisticsAsTextJsonAndPrometheus) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting(
      {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT", "PURGE_ENTITLEMENT"},
      {{"VANTOR_LOWDISK_BYTES", "2"}}));
  auto service = checkedInService(ctx, "com.example.a", {"--amount", "1048576"});
  // Runs `args`, expecting `exitCode` and `part` in stdout.
  const auto run = [&](const std::vector<std::string>& args, int exitCode = 0,
                       const std::string& part = "") {
    const Outcome o = runOn(ctx, args);
    EXPECT_EQ(o.exitCode, exitCode) << ::testing::PrintToString(args) << o;
    EXPECT_NE(o.out.find(part), std::string::npos) << o;
    return o;
  };
  const auto json = [&](std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    return parseJson(run(args).out);
  };

  // Typed values are stored, read back as text and as JSON, and removed.
  const std::string awkward = "say \"hi\"\n\tback\\slash \x01 and caf\xc3\xa9";
  const struct {
    std::string type, text;
    nlohmann::json expected;
    std::string human;
  } cases[] = {
      {"string", awkward, awkward, awkward + "\n"},
      {"integer", "-42", -42, "-42\n"},
      {"boolean", "yes", true, "true\n"},
      {"real", "2.5", 2.5, "2.5\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    const std::string key = "KEY_" + c.type;
    EXPECT_EQ(run({"state", "set", "--type", c.type, key, c.text}).out, "");
    EXPECT_EQ(json({"state", "get", key}), (nlohmann::json{{"key", key}, {"value", c.expected}}));
    EXPECT_EQ(run({"state", "get", key}).out, c.human);
  }
  // DBUS_SYSTEM_BUS_ADDRESS leads to the same bus without --bus.
  const Outcome viaEnv = runVantorctl({"state", "get", "KEY_boolean"},
                                      {{"DBUS_SYSTEM_BUS_ADDRESS", ctx.busAddress()}});
  EXPECT_EQ(viaEnv.exitCode, 0) << viaEnv;
  EXPECT_EQ(viaEnv.out, "true\n");
  run({"state", "unset", "KEY_integer"});
  EXPECT_EQ(run({"state", "get", "KEY_integer"}).out, "(null)\n");
  EXPECT_EQ(json({"state", "get", "KEY_integer"}),
            (nlohmann::json{{"key", "KEY_integer"}, {"value", nullptr}}));

  // A path stands for the volume holding it (/usr/bin is on / here).
  EXPECT_EQ(json({"purgeable", "--urgency", "4", "/usr/bin"}),
            (nlohmann::json{{"VANTOR_TOTAL_AVAILABLE", 1048576},
                            {"com.example.a", 1048576},
                            {"VANTOR_VOLUME", "/"}}));
  EXPECT_EQ(run({"purgeable"}).out,
            "com.example.a  1.0 MiB\nTotal          1.0 MiB\nVolume         /\n");
  // A volume the daemon refuses exits with 1.
  const Outcome refused = run({"purgeable", "/nonexistent-volume"}, 1);
  EXPECT_NE(refused.err.find("Parameter error"), std::string::npos) << refused;
  EXPECT_EQ(refused.out, "");
  // The daemon's thresholds come from its environment.
  auto status = json({"status"});
  EXPECT_EQ(status["source"], "vantord") << status;
  EXPECT_EQ(status["volumes"][0]["lowThreshold"], 2) << status;
  EXPECT_TRUE(run({"services"}, 0, "\ncom.example.a  checkin :").out.starts_with("SERVICE "));

  // Nothing is deleted, so the purge falls short (6) but is recorded.
  run({"purge", "--urgency", "1", "4M"}, 6);
  auto history = json({"history"});
  EXPECT_EQ(history.size(), 1u) << history;
  EXPECT_EQ(history[0]["executable"], std::filesystem::canonical(VANTORCTL_BINARY).string());
  EXPECT_EQ(history[0]["services"]["com.example.a"]["reported"], 1 << 20);
  run({"history"}, 0, "  com.example.a: asked 4.0 MiB, reported 1.0 MiB");
  auto stats = json({"stats"});
  EXPECT_EQ(stats["com.tessaly.vantor/com.example.a.purged"]["sum"], 1 << 20) << stats;
  run({"stats", "--json", "--prometheus"}, 2);

  // The urgency reaches the service, with the volume.
  const auto asked = service->waitForLine("purgeable ", seconds(10));
  EXPECT_TRUE(asked && asked->starts_with("purgeable 4 ") &&
              asked->find("\"VANTOR_VOLUME\" = \"/\"") != std::string::npos)
      << asked.value_or("not asked");

  // The samples carry the same figures as the JSON.
  auto samples = prometheusSamples(run({"stats", "--prometheus"}).out);
  for (const auto& [name, figures] : stats.items()) {
    EXPECT_EQ(samples["vantor_statistic_samples_total/" + name], figures["count"].get<double>())
        << name;
    EXPECT_EQ(samples["vantor_statistic_sum/" + name], figures["sum"].get<double>()) << name;
  }
}

}  // namespace
}  // namespace vantor::test
