// Faults at every step: services that die or misanswer, a client that leaves
// during its purge, a store that cannot be written, the daemon killed
// mid-work. Each test ends with the daemon still serving, or
// restarted with nothing acknowledged lost.

#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "common/test_context.h"
#include "platform/files/read_file.h"
#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::vector<std::string> kEverything = {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT",
                                              "ITEMIZED_PURGEABLE_ENTITLEMENT",
                                              "PURGEABLE_ENTITLEMENT", "PURGE_ENTITLEMENT"};

Value::Dictionary purgeableOnRoot(sdbus::IConnection& client) {
  return callClient(client, "ClientItemizedPurgeableSpace", {{"VANTOR_VOLUME", Value("/")}});
}

Value::Dictionary purgeOnRoot(sdbus::IConnection& client, std::int32_t timeout) {
  return callClient(client, "ClientPurge",
                    {{"VANTOR_VOLUME", Value("/")},
                     {"VANTOR_AMOUNT", Value(std::uint64_t{1} << 20)},
                     {"VANTOR_URGENCY", Value(1)},
                     {"VANTOR_PURGE_TIMEOUT", Value(timeout)}});
}

// The daemon serves: a state call is answered.
void expectServing(TestContext& ctx) {
  auto client = ctx.connect();
  EXPECT_EQ(probeState(*client), "");
  EXPECT_FALSE(ctx.daemon().waitExit(milliseconds(0)));
}

using Handler = std::function<void(sdbus::MethodCall)>;

// A handler that answers with `values`.
template <typename... Values>
Handler answering(Values... values) {
  return [=](sdbus::MethodCall call) {
    auto reply = call.createReply();
    ((reply << values), ...);
    reply.send();
  };
}

// A service on the raw bus rather than the example service: an object at the
// service path on a connection of its own, serving `methods` by name with the
// output signature given (a ping not among them answers the pong). It checks in as `id`, asking to
// purge and for notifications, and `checkedIn` records `id` once the daemon has taken it, or the
// error. The check-in is asynchronous: a blocking call on the connection that serves the object
// would read the daemon's ping off the socket and leave it unanswered.
class RawService {
 public:
  RawService(TestContext& ctx, const std::string& id,
             std::map<std::string, std::pair<std::string, Handler>> methods, SignalWatch& checkedIn)
      : connection_(ctx.connect()),
        object_(sdbus::createObject(*connection_, "/com/tessaly/vantor/Service")) {
    methods.emplace("ServicePing", std::pair{"", answering()});
    const std::map<std::string, std::string> inputs = {
        {"ServicePing", ""}, {"ServiceNotify", "a{sv}"}, {"ServicePurgeable", "ia{sv}"}};
    for (const auto& [name, method] : methods)
      object_->registerMethod("com.tessaly.vantor.Service", name, inputs.at(name), method.first,
                              method.second);
    object_->finishRegistration();
    const VariantMap info = {
        {"PURGE", sdbus::Variant(true)},
        {"VANTOR_NOTIFICATIONS", sdbus::Variant(std::vector<sdbus::Variant>{
                                     sdbus::Variant(std::string("VANTOR_CACHE_ENABLED"))})}};
    daemon_ = sdbus::createProxy(*connection_, "com.tessaly.vantor", "/com/tessaly/vantor");
    daemon_->callMethodAsync("ClientCheckin")
        .onInterface("com.tessaly.vantor.Client")
        .withArguments(
            id,
            sdbus::Struct<std::string, sdbus::ObjectPath>{
                connection_->getUniqueName(), sdbus::ObjectPath("/com/tessaly/vantor/Service")},
            info)
        .uponReplyInvoke([&checkedIn, id](const sdbus::Error* e, const VariantMap& reply) {
          checkedIn.record(e ? e->getName() : reply.count("VANTOR_ID") ? id : "no id");
        });
  }

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IObject> object_;
  std::unique_ptr<sdbus::IProxy> daemon_;  // kept: a pending check-in dies with its proxy
};

TEST(AServiceThatExits, AtEveryKindOfRequestLeavesItsCallerAnsweredAndTheDaemonServing) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting(kEverything, {{"VANTOR_DAILY_INTERVAL_SECONDS", "1"}}));
  auto client = ctx.connect();
  // Each exits at one kind of request: the ping of its own check-in, a
  // query, a purge, a notification, and the daily run (every second here).
  struct Kind {
    std::string what;
    std::vector<std::string> args;
    std::function<void()> request;
  };
  const std::vector<Kind> kinds = {
      {"ping", {}, {}},
      {"purgeable", {}, [&] { EXPECT_NO_THROW(purgeableOnRoot(*client)); }},
      {"purge", {}, [&] { EXPECT_NO_THROW(purgeOnRoot(*client, 3)); }},
      {"notify",
       {"--notify", "VANTOR_CACHE_ENABLED"},
       [&] { EXPECT_EQ(setState(*client, "VANTOR_CACHE_ENABLED", Value(false)), ""); }},
      {"periodic", {"--periodic"}, {}}};
  std::vector<std::unique_ptr<ChildProcess>> services;
  for (const auto& [what, args, request] : kinds) {
    SCOPED_TRACE(what);
    std::vector<std::string> all = {"--id", "com.example.exits-on-" + what, "--checkin",
                                    "--exit-on", what};
    all.insert(all.end(), args.begin(), args.end());
    services.push_back(ctx.startService(all));
    if (request) {
      ASSERT_TRUE(services.back()->waitForLine("checked-in", seconds(20)));
      request();
    }
    EXPECT_TRUE(services.back()->waitForLine("exiting", seconds(20)));
  }

  // Every one of them is forgotten, and the daemon serves on.
  for (const auto& service : services)
    EXPECT_TRUE(service->waitExit(seconds(10)));
  for (const auto& kind : kinds) {
    const std::string id = "com.example.exits-on-" + kind.what;
    EXPECT_TRUE(waitUntil([&] { return purgeableOnRoot(*client).count(id) == 0; }, seconds(5)))
        << id;
  }
  expectServing(ctx);
}

// Answers the daemon cannot use: an error or extra arguments for the ping,
// garbage for a notification, one sent twice, a string for an amount, one of
// 10 MiB, an array where the dictionary belongs, and nested dictionaries. A
// D-Bus message nests at most 64 containers (a level of a{sv} takes three),
// so the bus carries about twenty levels; one a few levels deeper is refused
// by the bus and never reaches the daemon. A service whose ping fails is
// given up and never notified; whatever else is usable is counted once,
// nothing else of it is kept, and nobody else suffers.
TEST(AServiceThatMisanswers, IsCountedOnceOrNotAtAllAndNobodyElseSuffers) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting(kEverything));
  auto text = checkedInService(ctx, "com.example.text", {"--text-amount"});
  auto huge = checkedInService(ctx, "com.example.huge", {"--huge-reply", "10"});
  auto deepest = checkedInService(ctx, "com.example.deep", {"--deep-reply", "20", "--amount", "7"});
  auto tooDeep =
      checkedInService(ctx, "com.example.toodeep", {"--deep-reply", "30", "--amount", "11"});
  auto good = checkedInService(ctx, "com.example.good",
                               {"--amount", "0", "--notify", "VANTOR_CACHE_ENABLED"});
  ASSERT_FALSE(::testing::Test::HasFailure());

  // Services on the raw bus, asking for notifications: one that answers its
  // ping with an error, one that adds to its pong, one whose purgeable answer
  // is an array, one that sends that answer twice and answers notifications
  // with garbage.
  SignalWatch outcome;  // outlives the services and so every reply handler
  std::atomic<int> failingNotified{0}, twiceNotified{0};
  const auto garbageCounting = [](std::atomic<int>& count) -> Handler {
    return [&count](sdbus::MethodCall call) {
      ++count;
      answering(std::string("garbage"), std::int32_t{42})(call);
    };
  };
  const auto errorPong = [](sdbus::MethodCall call) {
    call.createErrorReply(sdbus::Error("com.example.Broken", "no pong today")).send();
  };
  const auto twoAnswers = [](sdbus::MethodCall call) {
    const auto answer =
        answering(VariantMap{{"VANTOR_AMOUNT", sdbus::Variant(std::uint64_t{1000})}});
    answer(call);
    answer(call);
  };
  RawService failing(
      ctx, "com.example.failing",
      {{"ServicePing", {"", errorPong}}, {"ServiceNotify", {"", garbageCounting(failingNotified)}}},
      outcome);
  RawService noisy(ctx, "com.example.noisy",
                   {{"ServicePing", {"", answering(std::string("unexpected"))}}}, outcome);
  RawService array(
      ctx, "com.example.array",
      {{"ServicePurgeable",
        {"av", answering(std::vector<sdbus::Variant>{sdbus::Variant(std::uint64_t{5})})}}},
      outcome);
  RawService twice(ctx, "com.example.twice",
                   {{"ServicePurgeable", {"a{sv}", twoAnswers}},
                    {"ServiceNotify", {"", garbageCounting(twiceNotified)}}},
                   outcome);
  for (const char* id : {"com.example.array", "com.example.twice"})
    ASSERT_TRUE(outcome.waitFor(id, seconds(20))) << ctx.daemonLog();
  // The two whose ping failed are given up.
  EXPECT_TRUE(
      waitUntil([&] { return ctx.logCount("invalidationHandler ENTRY") == 2; }, seconds(10)));

  auto client = ctx.connect();
  EXPECT_EQ(setState(*client, "VANTOR_CACHE_ENABLED", Value(false)), "");
  EXPECT_TRUE(good->waitForLine("notify", seconds(10)));
  EXPECT_TRUE(waitUntil([&] { return twiceNotified == 1; }, seconds(10)));
  EXPECT_EQ(failingNotified, 0);

  // Answers may come after the query's wait (the 10 MiB one surely does);
  // once they have come, a later query counts them from the cache.
  auto answer = purgeableOnRoot(*client);
  ASSERT_TRUE(huge->waitForLine("purgeable", seconds(20)));
  waitUntil(
      [&] {
        answer = purgeableOnRoot(*client);
        return answer.count("com.example.twice") && answer.count("com.example.huge") &&
               answer.count("com.example.deep");
      },
      seconds(60));
  EXPECT_EQ(answer.count("com.example.twice"), 1u);
  ASSERT_EQ(answer.count("com.example.deep"), 1u) << ctx.daemonLog();
  EXPECT_EQ(answer.at("com.example.deep"), Value(std::uint64_t{7}));
  EXPECT_EQ(answer.count("com.example.toodeep"), 0u) << ::testing::PrintToString(tooDeep->lines());
  EXPECT_EQ(answer.at("VANTOR_TOTAL_AVAILABLE"), Value(std::int64_t{1000 + (1LL << 30) + 7}));
  EXPECT_LT(std::filesystem::file_size(ctx.stateDir() / "com.tessaly.vantor.plist"), 64u * 1024);
  expectServing(ctx);
}

TEST(AClientThatLeavesDuringItsPurge, LeavesThePurgeToFinishAndTheDaemonServing) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting(kEverything, {{"VANTOR_LOG_LEVEL", "3"}}));
  auto slow = checkedInService(ctx, "com.example.slow", {"--delay-ms", "1500"});
  {
    ChildProcess leaving({VANTORCTL_BINARY, "--bus", ctx.busAddress(), "purge", "1M"}, {},
                         ctx.directory() / "vantorctl.log");
    ASSERT_TRUE(slow->waitForLine("purge", seconds(20)));
  }  // killed here, its connection closing with its purge still running
  EXPECT_TRUE(ctx.waitForLog("purge finished", seconds(30))) << ctx.daemonLog();
  expectServing(ctx);
}

TEST(AStoreThatCannotBeWritten, AnswersIOErrorAndKeepsItsLastContents) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  // A file-size limit of 32 KiB stands for a full disk: a write beyond it
  // fails with EFBIG (the signal it would raise is ignored).
  ctx.setDaemonLauncher({"/bin/bash", "-c", "trap '' XFSZ; ulimit -f 32; exec \"$@\"", "vantord"});
  ASSERT_TRUE(ctx.startDaemon({{"VANTOR_LOG_LEVEL", "3"}}));
  auto client = ctx.connect();
  ASSERT_EQ(setState(*client, "KEY", Value("kept")), "");
  EXPECT_EQ(setState(*client, "BIG", Value(std::string(40 * 1024, 'x'))),
            "org.freedesktop.DBus.Error.IOError");
  EXPECT_TRUE(ctx.waitForLog("cannot write the settings store", seconds(5)));
  EXPECT_TRUE(getState(*client, "BIG").isNull());
  EXPECT_EQ(getState(*client, "KEY"), Value("kept"));

  // A read-only state directory, where this test may mount one.
  bool mounted = false;
  const std::string state = ctx.stateDir().string();
  if (::mount(state.c_str(), state.c_str(), nullptr, MS_BIND, nullptr) == 0) {
    mounted =
        ::mount(nullptr, state.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    if (mounted) {
      EXPECT_EQ(setState(*client, "KEY", Value("changed")), "org.freedesktop.DBus.Error.IOError");
      EXPECT_EQ(getState(*client, "KEY"), Value("kept"));
    }
    ::umount2(state.c_str(), MNT_DETACH);
  }

  ctx.setDaemonLauncher({});
  ASSERT_TRUE(ctx.stopDaemon());
  ASSERT_TRUE(ctx.startDaemon());
  auto again = ctx.connect();
  EXPECT_EQ(getState(*again, "KEY"), Value("kept"));
  EXPECT_TRUE(getState(*again, "BIG").isNull());
  if (!mounted)
    GTEST_SKIP() << "no read-only mount here (needs CAP_SYS_ADMIN); the full disk was tested";
}

// Values of one key are "<sequence>:<sequence % 300 times 'v'>", so a value
// read back tells which set it came from and whether it is whole.
std::string sequencedValue(long sequence) {
  return std::to_string(sequence) + ":" +
         std::string(static_cast<std::size_t>(sequence % 300), 'v');
}

// The sequence of a whole sequenced value, or -1.
long sequenceOf(const std::string& value) {
  const auto colon = value.find(':');
  if (colon == std::string::npos || colon == 0)
    return -1;
  const long sequence = std::stol(value.substr(0, colon));
  return value == sequencedValue(sequence) ? sequence : -1;
}

// SIGKILL at a random moment of a mixed workload, round after round on the
// same state directory. Writers set their own keys to ever larger sequence
// numbers and note which sets were acknowledged; after each restart every key
// holds its last acknowledged value or one sent after it, never an older one.
TEST(KillingTheDaemon, AtRandomMomentsLosesNothingAcknowledged) {
  constexpr unsigned kSeed = 20261123;
  constexpr int kRounds = 20, kWriters = 4, kKeysEach = 3;
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  std::mt19937 random(kSeed);
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), kEverything);

  struct Key {
    long acknowledged = -1;  // last set answered with success
    long sent = -1;          // last set sent, answered or not
  };
  std::vector<std::vector<Key>> keys(kWriters, std::vector<Key>(kKeysEach));
  std::vector<long> next(kWriters, 0);
  std::atomic<long> acknowledgedSets{0};
  const auto name = [](int writer, int key) {
    return "W" + std::to_string(writer) + ".K" + std::to_string(key);
  };
  const auto checkEveryKey = [&](int round) {
    auto client = ctx.connect();
    for (int w = 0; w < kWriters; ++w) {
      for (int k = 0; k < kKeysEach; ++k) {
        const Value read = getState(*client, name(w, k));
        const Key& key = keys[w][k];
        const long sequence = read.isNull()     ? -1
                              : read.isString() ? sequenceOf(*read.asString())
                                                : -2;
        EXPECT_TRUE(sequence >= key.acknowledged && sequence <= key.sent)
            << "round " << round << " " << name(w, k) << " read "
            << read.description().substr(0, 20) << ", acknowledged " << key.acknowledged
            << ", sent " << key.sent;
      }
    }
  };

  for (int round = 0; round < kRounds && !::testing::Test::HasFailure(); ++round) {
    ASSERT_TRUE(ctx.startDaemon({{"VANTOR_LOG_LEVEL", "3"}})) << "round " << round;
    checkEveryKey(round);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w) {
      threads.emplace_back([&, w] {
        auto client = ctx.connect();
        for (long i = 0; !stop; ++i) {
          const int k = static_cast<int>(i % kKeysEach);
          const long sequence = next[w]++;
          keys[w][k].sent = sequence;
          if (setState(*client, name(w, k), Value(sequencedValue(sequence))).empty()) {
            keys[w][k].acknowledged = sequence;
            ++acknowledgedSets;
          }
        }
      });
    }
    // Queries and purges besides, so the kill also meets them in flight.
    threads.emplace_back([&] {
      auto client = ctx.connect();
      for (int i = 0; !stop; ++i) {
        try {
          if (i % 2 == 0)
            purgeableOnRoot(*client);
          else
            purgeOnRoot(*client, 1);
        } catch (const sdbus::Error&) {
          // the daemon was killed under the call
        }
      }
    });
    std::this_thread::sleep_for(milliseconds(std::uniform_int_distribution<int>(0, 300)(random)));
    ctx.daemon().signal(SIGKILL);
    const bool killed = ctx.daemon().waitExit(seconds(5)).has_value();
    stop = true;
    for (auto& thread : threads)
      thread.join();
    ASSERT_TRUE(killed) << "round " << round;
  }
  // The store file parses on its own, before the daemon reads it again.
  std::string error;
  auto bytes = readRegularFile(ctx.stateDir() / "com.tessaly.vantor.plist", 1 << 24, &error);
  ASSERT_TRUE(bytes) << error;
  auto parsed = parsePlist(*bytes);
  ASSERT_TRUE(parsed.value) << parsed.error;
  ASSERT_TRUE(ctx.startDaemon());
  checkEveryKey(kRounds);
  expectServing(ctx);
  // Kills that met no sets would prove little.
  EXPECT_GT(acknowledgedSets, kRounds * kWriters) << "too few sets acknowledged";
}

}  // namespace
}  // namespace vantor::test
