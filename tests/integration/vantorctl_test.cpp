// The command-line client, run as a user runs it: a child process talking to
// the real daemon on a private bus, judged by its output and exit status.

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/test_context.h"

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
  std::ifstream err(errFile);
  outcome.err.assign(std::istreambuf_iterator<char>(err), {});
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

TEST(VantorctlState, StoresTypedValuesReadsThemBackAndRemovesThem) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  ASSERT_TRUE(ctx.startDaemon());

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
    const Outcome set = runOn(ctx, {"state", "set", "--type", c.type, key, c.text});
    ASSERT_EQ(set.exitCode, 0) << set;
    EXPECT_EQ(set.out, "");

    const Outcome json = runOn(ctx, {"--json", "state", "get", key});
    ASSERT_EQ(json.exitCode, 0) << json;
    EXPECT_EQ(parseJson(json.out), (nlohmann::json{{"key", key}, {"value", c.expected}}))
        << json.out;
    EXPECT_EQ(runOn(ctx, {"state", "get", key}).out, c.human);
  }

  // DBUS_SYSTEM_BUS_ADDRESS leads to the same bus without --bus.
  const Outcome viaEnv = runVantorctl({"state", "get", "KEY_boolean"},
                                      {{"DBUS_SYSTEM_BUS_ADDRESS", ctx.busAddress()}});
  EXPECT_EQ(viaEnv.exitCode, 0) << viaEnv;
  EXPECT_EQ(viaEnv.out, "true\n");

  ASSERT_EQ(runOn(ctx, {"state", "unset", "KEY_integer"}).exitCode, 0);
  EXPECT_EQ(runOn(ctx, {"state", "get", "KEY_integer"}).out, "(null)\n");
  EXPECT_EQ(parseJson(runOn(ctx, {"state", "get", "KEY_integer", "--json"}).out),
            (nlohmann::json{{"key", "KEY_integer"}, {"value", nullptr}}));
}

TEST(VantorctlArguments, BadOnesExitWith2AndTheUsageBeforeAnythingIsSent) {
  // A bus that does not exist: a command that got past its checks would
  // exit with 3 instead.
  const std::vector<std::vector<std::string>> bad = {
      {},
      {"frobnicate"},
      {"purgeable", "--bogus"},
      {"purgeable", "/", "/home"},
      {"purgeable", "--urgency", "5"},
      {"purgeable", "--urgency", "two"},
      {"purgeable", "--urgency", "1", "--urgency-limit", "2"},
      {"purgeable", "--urgency"},
      {"purgeable", "--itemized=yes"},
      {"state"},
      {"state", "get"},
      {"state", "set", "KEY"},
      {"state", "set", "--type", "integer", "KEY", "12abc"},
      {"state", "set", "--type", "real", "KEY", "nan"},
      {"state", "set", "--type", "boolean", "KEY", "maybe"},
      {"state", "set", "--type", "colour", "KEY", "red"},
      {"state", "get", "KEY", "--urgency", "2"},
      {"state", "unset", "KEY", "--type", "string"},
  };
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
  EXPECT_NE(runVantorctl({"purgeable", "--help"}).out.find("--urgency-limit N"), std::string::npos);
  EXPECT_NE(runVantorctl({"help", "state"}).out.find("--type TYPE"), std::string::npos);
}

TEST(VantorctlFailures, NoDaemonExitsWith3) {
  TestContext ctx;  // a bus, but vantord never started
  for (const auto& args :
       std::vector<std::vector<std::string>>{{"state", "get", "KEY"}, {"purgeable"}}) {
    const Outcome o = runOn(ctx, args);
    EXPECT_EQ(o.exitCode, 3) << o;
    EXPECT_NE(o.err.find("vantord is not running"), std::string::npos) << o;
  }

  // No bus at all. The bus library leaks its half-made connection when
  // connecting fails, a one-off at exit that the leak checker is told of.
  const std::filesystem::path suppressions = ctx.root() / "lsan.supp";
  ctx.writeFile(suppressions, "leak:libsystemd.so\n");
  const Outcome noBus =
      runVantorctl({"--bus", "unix:path=/nonexistent/vantor-test-bus", "state", "get", "KEY"},
                   {{"LSAN_OPTIONS", "suppressions=" + suppressions.string()}});
  EXPECT_EQ(noBus.exitCode, 3) << noBus;
  EXPECT_NE(noBus.err.find("cannot connect"), std::string::npos) << noBus;
}

TEST(VantorctlFailures, MissingEntitlementsExitWith4) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"SERVICE_ENTITLEMENT"});  // no CLIENT_ENTITLEMENT
  ASSERT_TRUE(ctx.startDaemon());
  for (const auto& args :
       std::vector<std::vector<std::string>>{{"state", "get", "KEY"}, {"purgeable"}}) {
    const Outcome o = runOn(ctx, args);
    EXPECT_EQ(o.exitCode, 4) << o;
    EXPECT_NE(o.err.find("not entitled"), std::string::npos) << o;
  }
}

TEST(VantorctlPurgeable, EachCallNeedsItsOwnEntitlement) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT", "ITEMIZED_PURGEABLE_ENTITLEMENT"});
  ASSERT_TRUE(ctx.startDaemon());

  const Outcome plain = runOn(ctx, {"purgeable"});
  EXPECT_EQ(plain.exitCode, 4) << plain;
  EXPECT_NE(plain.err.find("PURGEABLE_ENTITLEMENT"), std::string::npos) << plain;
  const Outcome itemized = runOn(ctx, {"purgeable", "--itemized"});
  EXPECT_EQ(itemized.exitCode, 0) << itemized;
}

TEST(VantorctlPurgeable, ShowsEachServiceTheTotalAndTheVolume) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(),
                {"CLIENT_ENTITLEMENT", "PURGEABLE_ENTITLEMENT", "SERVICE_ENTITLEMENT"});
  ASSERT_TRUE(ctx.startDaemon());
  auto service = ctx.startService({"--id", "com.example.a", "--checkin", "--amount", "1048576"});
  ASSERT_TRUE(service->waitForLine("checked-in", seconds(10))) << ctx.daemonLog();

  // A path stands for the volume holding it (/usr/bin is on / here); the
  // urgency reaches the service.
  const Outcome json = runOn(ctx, {"--json", "purgeable", "--urgency", "4", "/usr/bin"});
  ASSERT_EQ(json.exitCode, 0) << json;
  auto asked = service->waitForLine("purgeable ", seconds(10));
  ASSERT_TRUE(asked);
  EXPECT_EQ(asked->rfind("purgeable 4 ", 0), 0u) << *asked;
  EXPECT_NE(asked->find("\"VANTOR_VOLUME\" = \"/\""), std::string::npos) << *asked;
  EXPECT_EQ(parseJson(json.out), (nlohmann::json{{"VANTOR_TOTAL_AVAILABLE", 1048576},
                                                 {"com.example.a", 1048576},
                                                 {"VANTOR_VOLUME", "/"}}))
      << json.out;

  const Outcome human = runOn(ctx, {"purgeable"});
  ASSERT_EQ(human.exitCode, 0) << human;
  std::istringstream lines(human.out);
  std::vector<std::string> got;
  for (std::string line; std::getline(lines, line);)
    got.push_back(line);
  ASSERT_EQ(got.size(), 3u) << human;
  EXPECT_EQ(got[0], "com.example.a  1.0 MiB");
  EXPECT_EQ(got[1], "Total          1.0 MiB");
  EXPECT_EQ(got[2], "Volume         /");
}

TEST(VantorctlPurgeable, AVolumeThatDoesNotExistIsRefusedByTheDaemonWith1) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"});
  ASSERT_TRUE(ctx.startDaemon());
  const Outcome o = runOn(ctx, {"purgeable", "/nonexistent-volume"});
  EXPECT_EQ(o.exitCode, 1) << o;
  EXPECT_NE(o.err.find("Parameter error"), std::string::npos) << o;
  EXPECT_EQ(o.out, "");
}

}  // namespace
}  // namespace vantor::test
