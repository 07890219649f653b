// The daemon under conditions it does not choose: a flood of callers that
// block, a bus that goes away, store files it did not write.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "common/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(TheDaemon, IsReadyOnceItServesAndExitsWithStatusOneWhenItLosesTheBus) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  const auto socketPath = ctx.directory() / "notify";
  const int sock = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(sock, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  socketPath.string().copy(addr.sun_path, sizeof(addr.sun_path) - 1);
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  // Started by hand: the harness waits for the bus name, which would hide a
  // readiness notification sent before it.
  ChildProcess daemon({VANTORD_BINARY},
                      {{"DBUS_SYSTEM_BUS_ADDRESS", ctx.busAddress()},
                       {"ZEPHON_SIMULATOR_ROOT", ctx.root().string()},
                       {"STATE_DIRECTORY", ctx.stateDir().string()},
                       {"VANTOR_LOG_LEVEL", "3"},
                       {"NOTIFY_SOCKET", socketPath.string()}},
                      ctx.directory() / "vantord.log");

  pollfd waiting{sock, POLLIN, 0};
  ASSERT_EQ(::poll(&waiting, 1, 20000), 1) << "no readiness notification";
  char message[256] = {};
  ASSERT_GT(::recv(sock, message, sizeof(message) - 1, 0), 0);
  ::close(sock);
  EXPECT_NE(std::string(message).find("READY=1"), std::string::npos) << message;
  {
    auto client = ctx.connect();
    EXPECT_EQ(probeState(*client), "") << "ready means serving";
  }

  // Neither hanging on nor spinning: it leaves, reporting a failure, so the
  // service manager starts it again.
  ctx.stopBus();
  const auto status = daemon.waitExit(seconds(20));
  ASSERT_TRUE(status) << "vantord kept running without its bus";
  ASSERT_TRUE(WIFEXITED(*status)) << "status " << *status;
  EXPECT_EQ(WEXITSTATUS(*status), 1);
  EXPECT_TRUE(ctx.waitForLog("lost the bus connection", seconds(1))) << ctx.daemonLog();
}

// A service that never answers its ping holds registration and the
// purgeable-space callers, but not client state: queries, purges and
// check-ins have a budget of their own. Callers that leave stop counting at
// once, and their queued work is skipped when its turn comes.
TEST(AFloodOfBlockedCallers, IsRefusedBeyondItsShareAndClientStateStillAnswers) {
  constexpr int kConnections = 13;
  constexpr int kCallsEach = 120;  // 1,560 in all
  constexpr int kAdmitted = 512;   // the operations budget in total
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting(
      {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"}));
  auto mute = ctx.startService({"--id", "com.example.mute", "--checkin", "--no-pong"});
  ASSERT_TRUE(mute->waitForLine("ping", seconds(10))) << ctx.daemonLog();

  std::atomic<int> refused{0}, answered{0};
  std::vector<std::unique_ptr<sdbus::IConnection>> connections;
  std::vector<std::unique_ptr<sdbus::IProxy>> proxies;
  const std::map<std::string, sdbus::Variant> info{
      {"VANTOR_VOLUME", sdbus::Variant(std::string("/"))}};
  for (int c = 0; c < kConnections; ++c) {
    connections.push_back(ctx.connect());
    // One call first, so the daemon knows the caller before the flood.
    ASSERT_EQ(probeState(*connections.back()), "");
    proxies.push_back(
        sdbus::createProxy(*connections.back(), "com.tessaly.vantor", "/com/tessaly/vantor"));
    for (int i = 0; i < kCallsEach; ++i) {
      proxies.back()
          ->callMethodAsync("ClientPurgeableSpace")
          .onInterface("com.tessaly.vantor.Client")
          .withTimeout(std::chrono::seconds(120))
          .withArguments(info)
          .uponReplyInvoke(
              [&](const sdbus::Error* error, const std::map<std::string, sdbus::Variant>&) {
                if (error == nullptr)
                  ++answered;
                else if (error->getName() == "org.freedesktop.DBus.Error.LimitsExceeded")
                  ++refused;
              });
    }
  }
  ASSERT_TRUE(waitUntil([&] { return refused.load() >= kConnections * kCallsEach - kAdmitted; },
                        seconds(60)))
      << refused.load() << " refused; log:\n"
      << ctx.daemonLog();
  EXPECT_EQ(answered.load(), 0);
  EXPECT_TRUE(ctx.waitForLog("refusing calls from", seconds(5)));

  // State answers at once, during the flood and after the callers have gone.
  auto client = ctx.connect();
  const auto answersPromptly = [&] {
    const auto start = std::chrono::steady_clock::now();
    return probeState(*client) == "" &&
           std::chrono::steady_clock::now() - start < milliseconds(2000);
  };
  EXPECT_TRUE(answersPromptly());
  // The mute service's own check-in is one of the calls counted.
  EXPECT_EQ(counters(*client).at("operationCalls").uint64Value(), std::uint64_t{kAdmitted});

  proxies.clear();
  connections.clear();
  EXPECT_TRUE(waitUntil(
      [&] {
        const auto now = counters(*client);
        return now.at("operationCalls").uint64Value() == 1 &&
               now.at("operationCallers").uint64Value() == 1 &&
               now.at("otherCalls").uint64Value() == 1;  // this very call
      },
      seconds(10)))
      << Value(counters(*client)).description();
  EXPECT_TRUE(answersPromptly());

  // Registration waits behind the unanswered ping as well. Once the mute
  // service goes away its ping fails, the departed callers' queries are
  // skipped, and registration resumes.
  auto waiting = ctx.startService({"--id", "com.example.waiting", "--checkin"});
  ASSERT_TRUE(waiting->waitForLine("ready", seconds(10)));
  EXPECT_FALSE(waiting->waitForLine("ping", milliseconds(500)));
  mute->signal(SIGKILL);
  EXPECT_TRUE(waiting->waitForLine("checked-in", seconds(20))) << ctx.daemonLog();
  EXPECT_EQ(ctx.logCount("_totalAvailable:info:] ENTRY"), 0u);
}

// State the daemon did not write. A stored string that is not valid UTF-8
// could not travel on the bus: it is read with U+FFFD for each bad byte, and
// served like any other. A whole state that is not a dictionary answers null
// for every key, and a set starts it afresh. A file spoilt while the daemon
// runs is logged and moved aside.
TEST(StoredStateFromElsewhere, IsServedRepairedStartedAfreshOrMovedAside) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  const auto store = ctx.stateDir() / "com.tessaly.vantor.plist";
  const std::string opening =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>VANTOR_USER_DEFAULTS</key>";
  ctx.writeFile(store, opening +
                           "<dict><key>BAD</key><string>\xff\xfe</string>"
                           "<key>GOOD</key><string>fine</string></dict></dict></plist>\n");
  ASSERT_TRUE(ctx.startDaemon());
  auto client = ctx.connect();
  EXPECT_EQ(getState(*client, "BAD"), Value("\xEF\xBF\xBD\xEF\xBF\xBD"));
  EXPECT_EQ(getState(*client, "GOOD"), Value("fine"));

  client.reset();
  ASSERT_TRUE(ctx.stopDaemon());
  ctx.writeFile(store, opening + "<string>corrupted</string></dict></plist>\n");
  ASSERT_TRUE(ctx.startDaemon());
  client = ctx.connect();
  EXPECT_TRUE(getState(*client, "VANTOR_CACHE_ENABLED").isNull());
  EXPECT_TRUE(getState(*client, "VANTOR_USER_DEFAULTS").isNull());
  EXPECT_TRUE(ctx.waitForLog("persistent_state is not a dictionary", seconds(5)));
  EXPECT_EQ(setState(*client, "K", Value(1)), "");
  EXPECT_EQ(getState(*client, "K"), Value(1));

  ctx.writeFile(store, "not a property list");
  EXPECT_EQ(probeState(*client), "");
  EXPECT_TRUE(ctx.waitForLog("is corrupt", seconds(5))) << ctx.daemonLog();
  EXPECT_TRUE(std::ranges::any_of(
      std::filesystem::directory_iterator(ctx.stateDir()), [](const auto& entry) {
        return entry.path().filename().string().starts_with("com.tessaly.vantor.plist.corrupt-");
      }));
}

}  // namespace
}  // namespace vantor::test
