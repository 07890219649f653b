#include "common/test_context.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string_view>
#include <thread>

#include "platform/clock/clock.h"
#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"
#include "support/log.h"
#include "support/volumes.h"

namespace vantor::test {

Value::Dictionary callClient(sdbus::IConnection& client, const std::string& method,
                             const Value::Dictionary& info) {
  auto proxy = sdbus::createProxy(client, "com.tessaly.vantor", "/com/tessaly/vantor");
  VariantMap answer;
  proxy->callMethod(method)
      .onInterface("com.tessaly.vantor.Client")
      .withTimeout(std::chrono::seconds(130))
      .withArguments(toVariantMap(info))
      .storeResultsTo(answer);
  return fromVariantMap(answer);
}

Value::Dictionary counters(sdbus::IConnection& client) {
  return fromVariantMap(callAdmin<VariantMap>(client, "GetCounters"));
}

std::string setState(sdbus::IConnection& client, const std::string& key, const Value& value) {
  return callForError(client, "ClientSetState",
                      [&](sdbus::MethodCall& call) { call << toOptionalVariant(value) << key; });
}

Value getState(sdbus::IConnection& client, const std::string& key) {
  auto proxy = sdbus::createProxy(client, "com.tessaly.vantor", "/com/tessaly/vantor");
  VariantArray value;
  proxy->callMethod("ClientGetState")
      .onInterface("com.tessaly.vantor.Client")
      .withTimeout(std::chrono::seconds(30))
      .withArguments(key)
      .storeResultsTo(value);
  EXPECT_LE(value.size(), 1u);
  return fromOptionalVariant(value);
}

std::string probeState(sdbus::IConnection& client) {
  return callForError(client, "ClientGetState",
                      [](sdbus::MethodCall& call) { call << std::string("KEY"); });
}

std::unique_ptr<ChildProcess> checkedInService(TestContext& ctx, const std::string& id,
                                               const std::vector<std::string>& args) {
  std::vector<std::string> argv{"--id", id, "--checkin"};
  argv.insert(argv.end(), args.begin(), args.end());
  auto process = ctx.startService(argv);
  EXPECT_TRUE(process->waitForLine("checked-in", std::chrono::seconds(20)))
      << id << " did not check in\n"
      << ctx.daemonLog();
  return process;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string volumeHolding(const std::filesystem::path& path) {
  struct stat held {};
  if (::stat(path.c_str(), &held) != 0)
    return "";
  for (const auto& volume : getLocalVolumes()) {
    struct stat st {};
    if (::stat(volume.c_str(), &st) == 0 && st.st_dev == held.st_dev)
      return volume;
  }
  return "";
}

std::string readText(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::pair<int, std::uint64_t>> purgeRequests(ChildProcess& service) {
  static constexpr std::string_view kAmount = "\"VANTOR_AMOUNT\" = ";
  // No line starts with a NUL: this reads whatever is waiting in the pipe.
  service.waitForLine(std::string(1, '\0'), std::chrono::milliseconds(100));
  std::vector<std::pair<int, std::uint64_t>> asked;
  for (const auto& line : service.lines()) {
    const auto at = line.find(kAmount);
    unsigned long long amount = 0;
    char end = 0;
    if (line.size() >= 8 && line.starts_with("purge ") && std::isdigit(line[6]) && line[7] == ' ' &&
        at != std::string::npos &&
        std::sscanf(line.c_str() + at + kAmount.size(), "%llu%c", &amount, &end) == 2 && end == ';')
      asked.emplace_back(line[6] - '0', amount);
  }
  return asked;
}

std::map<std::string, Value::Dictionary> namedEntries(sdbus::IConnection& client,
                                                      const std::string& method) {
  std::map<std::string, Value::Dictionary> out;
  for (const auto& entry :
       callAdmin<std::vector<sdbus::Struct<std::string, VariantMap>>>(client, method))
    out.emplace(std::get<0>(entry), fromVariantMap(std::get<1>(entry)));
  return out;
}

std::shared_ptr<Vantor> startCoordinator(const TempDir& dir) {
  Vantor::Options options;
  options.root = dir.path().string();
  options.stateDirectory = (dir.path() / "state").string();
  options.listen = false;
  return Vantor::create(options);
}

TestContext::~TestContext() {
  if (::testing::Test::HasFailure())
    dumpLogs();
}

bool TestContext::startDaemonGranting(const std::vector<std::string>& names,
                                      const std::map<std::string, std::string>& extraEnv) {
  grantUser("me.plist", ::getuid(), names);
  return startDaemon(extraEnv);
}

void ClientTest::start(const std::vector<std::string>& names,
                       const std::map<std::string, std::string>& env,
                       const std::vector<std::string>& programNames) {
  if (!programNames.empty()) {
    const Value policy(Value::Dictionary{
        {"Executables",
         Value(Value::Array{Value(std::filesystem::read_symlink("/proc/self/exe").string())})},
        {"com.tessaly.private.Vantor",
         Value(Value::Array(programNames.begin(), programNames.end()))},
    });
    const auto bytes = encodePlist(policy, PlistFormat::kXml);
    ctx_.writeFile(ctx_.policyDir() / "program.plist", std::string(bytes.begin(), bytes.end()));
  }
  ASSERT_TRUE(ctx_.startDaemonGranting(names, env));
  client_ = ctx_.connect();
}

Value::Dictionary ClientTest::queryFromCache(const std::vector<std::string>& ids,
                                             const std::string& method) {
  const auto asking = [&](const std::string& id) { return ctx_.logCount("^^^asking " + id + " "); };
  const auto replies = [&](const std::string& id) {
    return ctx_.logCount("serviceID: " + id + " : ");
  };
  for (int round = 0; round < 6; ++round) {
    std::vector<std::size_t> asked, replied;
    for (const auto& id : ids) {
      asked.push_back(asking(id));
      replied.push_back(replies(id));
    }
    auto result = callClient(*client_, method, {{"VANTOR_VOLUME", Value("/")}});
    bool fromCache = true;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      if (asking(ids[i]) == asked[i])
        continue;
      fromCache = false;
      EXPECT_TRUE(waitUntil([&] { return replies(ids[i]) > replied[i]; }, std::chrono::seconds(20)))
          << ids[i];
    }
    if (fromCache)
      return result;
  }
  ADD_FAILURE() << "the cache was dropped on every round\n" << ctx_.daemonLog();
  return {};
}

void TestContext::reportFailure(const std::string& what) {
  ADD_FAILURE() << what;
}

void CoordinatorTest::SetUp() {
  vantor_ = startCoordinator(dir_);
}

void CoordinatorTest::TearDown() {
  clock::setWallClockForTesting({});
  setLogHandleForTesting(false, 0);
}

}  // namespace vantor::test
