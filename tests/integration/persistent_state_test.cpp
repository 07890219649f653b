// Persistent client state over the bus: defaults, every value type, restarts
// and a daemon killed in the middle of a stream of writes.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <thread>

#include <gtest/gtest.h>

#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

class ClientState : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx_.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
    ASSERT_TRUE(ctx_.startDaemon());
    client_ = ctx_.connect();
    proxy_ = sdbus::createProxy(*client_, "com.tessaly.vantor", "/com/tessaly/vantor");
  }

  void set(const std::string& key, const Value& value) {
    proxy_->callMethod("ClientSetState")
        .onInterface("com.tessaly.vantor.Client")
        .withArguments(toOptionalVariant(value), key);
  }

  Value get(const std::string& key) {
    VariantArray result;
    proxy_->callMethod("ClientGetState")
        .onInterface("com.tessaly.vantor.Client")
        .withArguments(key)
        .storeResultsTo(result);
    EXPECT_LE(result.size(), 1u);
    return fromOptionalVariant(result);
  }

  void restart() {
    proxy_.reset();
    client_.reset();
    ASSERT_TRUE(ctx_.stopDaemon());
    ASSERT_TRUE(ctx_.startDaemon());
    client_ = ctx_.connect();
    proxy_ = sdbus::createProxy(*client_, "com.tessaly.vantor", "/com/tessaly/vantor");
  }

  TestContext ctx_;
  std::unique_ptr<sdbus::IConnection> client_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

TEST_F(ClientState, AnswersDefaultsOnAFreshStore) {
  EXPECT_EQ(get("VANTOR_CACHE_ENABLED"), Value(true));
  EXPECT_TRUE(get("VANTOR_USER_DEFAULTS").isNull());
  EXPECT_TRUE(get("NEVER_SET").isNull());
  EXPECT_EQ(ctx_.daemonLog().find("using default value"), std::string::npos);
}

TEST_F(ClientState, MergesDefaultsIntoTheWholeStateOnceAnythingIsStored) {
  set("COLOUR", Value("blue"));
  EXPECT_EQ(
      get("VANTOR_USER_DEFAULTS"),
      Value(Value::Dictionary{{"COLOUR", Value("blue")}, {"VANTOR_CACHE_ENABLED", Value(true)}}));
  EXPECT_EQ(get("VANTOR_CACHE_ENABLED"), Value(true));
  EXPECT_TRUE(
      ctx_.waitForLog("using default value: true for key: VANTOR_CACHE_ENABLED", seconds(5)));
  set("VANTOR_CACHE_ENABLED", Value(false));
  EXPECT_EQ(
      get("VANTOR_USER_DEFAULTS"),
      Value(Value::Dictionary{{"COLOUR", Value("blue")}, {"VANTOR_CACHE_ENABLED", Value(false)}}));
}

TEST_F(ClientState, NullRemovesAKeyAndTheDefaultComesBack) {
  set("VANTOR_CACHE_ENABLED", Value(false));
  set("OTHER", Value(1));
  set("VANTOR_CACHE_ENABLED", Value());
  set("OTHER", Value());
  EXPECT_EQ(get("VANTOR_CACHE_ENABLED"), Value(true));
  EXPECT_TRUE(get("OTHER").isNull());
}

TEST_F(ClientState, RoundTripsEveryValueTypeAndSurvivesARestart) {
  const Value nested(Value::Dictionary{
      {"string", Value("héllo")},
      {"integer", Value(-42)},
      {"unsigned", Value(std::uint64_t{18446744073709551615ULL})},
      {"real", Value(2.5)},
      {"boolean", Value(true)},
      {"data", Value(Value::Data{0, 1, 2, 255})},
      {"date", Value(Date{1700000000123456})},
      {"array", Value(Value::Array{Value(1), Value("two"), Value(Value::Array{})})},
      {"dictionary", Value(Value::Dictionary{{"inner", Value(Value::Dictionary{})}})},
  });
  for (const auto& [key, value] : *nested.asDictionary())
    set(key, value);
  for (const auto& [key, value] : *nested.asDictionary())
    EXPECT_EQ(get(key), value) << key;
  restart();
  for (const auto& [key, value] : *nested.asDictionary())
    EXPECT_EQ(get(key), value) << key;
}

TEST_F(ClientState, AKilledDaemonLosesNoAcknowledgedWrite) {
  // Writes go on until the daemon is killed; every one that was answered
  // must be in the store afterwards.
  std::atomic<int> acknowledged{0};
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; !stop && i < 100000; ++i) {
      try {
        set("k" + std::to_string(i), Value(i));
      } catch (const sdbus::Error&) {
        return;
      }
      acknowledged = i + 1;
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + seconds(30);
  while (acknowledged < 50 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_GE(acknowledged.load(), 50) << "the daemon did not take writes";
  ctx_.daemon().signal(SIGKILL);
  ASSERT_TRUE(ctx_.daemon().waitExit(seconds(10)));
  stop = true;
  writer.join();
  const int count = acknowledged.load();

  // The store file parses on its own, before the daemon reads it again.
  std::ifstream in(ctx_.stateDir() / "com.tessaly.vantor.plist", std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto parsed =
      parsePlist(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
  ASSERT_TRUE(parsed.value) << parsed.error;

  restart();
  for (int i = 0; i < count; ++i)
    ASSERT_EQ(get("k" + std::to_string(i)), Value(i)) << i;
}

TEST_F(ClientState, AnUnentitledCallerCannotReadState) {
  ctx_.grantUser("me.plist", ::getuid() + 1, {"CLIENT_ENTITLEMENT"});
  restart();
  EXPECT_EQ(callForError(*client_, "ClientGetState",
                         [](sdbus::MethodCall& call) { call << std::string("KEY"); }),
            "org.freedesktop.DBus.Error.AccessDenied");
}

}  // namespace
}  // namespace vantor::test
