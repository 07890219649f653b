// Purges against the real daemon and example services, some of which delete
// real files on the test's volume.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

#include "common/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

constexpr std::uint64_t kMiB = 1 << 20;

const std::vector<std::string> kPurger = {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT",
                                          "PURGE_ENTITLEMENT"};

class Purge : public ClientTest {
 protected:
  Value::Dictionary purge(Value::Dictionary info) {
    return callClient(*client_, "ClientPurge", info);
  }
  std::future<Value::Dictionary> purgeAsync(Value::Dictionary info) {
    return std::async(std::launch::async, [this, info] { return purge(info); });
  }
  static std::string cancel(sdbus::IConnection& connection) {
    return callForError(connection, "ClientCancelPurge");
  }

  // A directory of `count` files of `size` bytes each, oldest first by name.
  std::filesystem::path files(const std::string& name, int count, std::uint64_t size) {
    const auto dir = ctx_.stateDir().parent_path() / name;
    std::filesystem::create_directories(dir);
    const std::string block(size, 'x');
    const auto now = std::filesystem::file_time_type::clock::now();
    for (int i = 0; i < count; ++i) {
      const auto path = dir / ("f" + std::to_string(100 + i));
      std::ofstream(path, std::ios::binary) << block;
      std::filesystem::last_write_time(path, now - std::chrono::hours(count - i));
    }
    ::sync();
    return dir;
  }
};

Value::Dictionary onRoot(std::uint64_t amount, Value::Dictionary extra = {}) {
  extra.emplace("VANTOR_VOLUME", Value("/"));
  extra.emplace("VANTOR_AMOUNT", Value(amount));
  return extra;
}

TEST_F(Purge, SharesALevelEquallyAndAsksEveryServiceAgainAtTheNextLevelAndPurge) {
  start(kPurger);
  // They free nothing, so every level is worked and every share is short.
  // They answer only after every request of a level is out: a level whose
  // requests have all been answered ends, even before the last is sent.
  auto a = checkedInService(ctx_, "com.example.a", {"--amount", "0", "--delay-ms", "300"});
  auto b = checkedInService(ctx_, "com.example.b", {"--amount", "0", "--delay-ms", "300"});
  auto c = checkedInService(ctx_, "com.example.c", {"--amount", "0", "--delay-ms", "300"});
  const std::uint64_t needed = 3'000'000'000'002;  // far beyond what the volume could free

  auto result = purge(onRoot(needed, {{"VANTOR_URGENCY_LIMIT", Value(2)}}));
  EXPECT_LT(result["VANTOR_AMOUNT"].uint64Value(), needed);
  EXPECT_EQ(result["VANTOR_AMOUNT_REPORTED"].uint64Value(), 0u);
  EXPECT_EQ(result["VANTOR_ASYNC_COMPLETE"], Value(true));
  EXPECT_TRUE(result.count("VANTOR_FREESPACE_BEGIN") && result.count("VANTOR_FREESPACE_END"));
  EXPECT_EQ(result["VANTOR_URGENCY_LIMIT"].int64Value(), 2);  // the request's keys pass through

  for (auto* service : {a.get(), b.get(), c.get()}) {
    ASSERT_TRUE(service->waitForLine("purge 2 ", seconds(5)));
    const auto asked = purgeRequests(*service);
    ASSERT_EQ(asked.size(), 2u);
    // A third of what is missing, the remainder dropped; the volume's own
    // noise moves what is missing by far less than the tolerance.
    EXPECT_NEAR(static_cast<double>(asked[0].second), needed / 3.0, 1e9);
    EXPECT_NEAR(static_cast<double>(asked[0].second),
                static_cast<double>(purgeRequests(*a)[0].second), 64.0 * kMiB);
    EXPECT_EQ(asked[0].first, 1);
    EXPECT_EQ(asked[1].first, 2);
  }

  purge(onRoot(needed, {{"VANTOR_URGENCY", Value(3)}}));
  EXPECT_TRUE(a->waitForLine("purge 3 ", seconds(5)));
  EXPECT_EQ(purgeRequests(*a).size(), 3u);
}

TEST_F(Purge, AServiceThatFallsShortLeavesTheDivisorAndOneThatMetItsShareIsAskedAgain) {
  start(kPurger);
  auto shortOne =
      checkedInService(ctx_, "com.example.short", {"--amount", "0", "--delay-ms", "100"});
  // Reports whatever it is asked for without freeing anything.
  // Answers after the other, so that one has left the divisor by then.
  auto generous = checkedInService(ctx_, "com.example.generous",
                                   {"--amount", "18000000000000000000", "--delay-ms", "300"});
  const std::uint64_t needed = 2'000'000'000'000;

  purge(onRoot(needed, {{"VANTOR_URGENCY", Value(1)}, {"VANTOR_PURGE_TIMEOUT", Value(2)}}));
  // Its share was met, so it is asked again once the purge is over, and now
  // the whole of what is missing falls to it alone.
  ASSERT_TRUE(generous->waitForLine("purge 1 ", seconds(5)));
  ASSERT_TRUE(generous->waitForLine("purge 1 ", seconds(5)));
  const auto asked = purgeRequests(*generous);
  ASSERT_GE(asked.size(), 2u);
  EXPECT_NEAR(static_cast<double>(asked[0].second), needed / 2.0, 1e9);
  EXPECT_NEAR(static_cast<double>(asked[1].second), static_cast<double>(needed), 1e9);
  EXPECT_EQ(purgeRequests(*shortOne).size(), 1u);
  EXPECT_EQ(cancel(*client_), "");  // ends the re-asking, which would go on while nothing is freed
}

TEST_F(Purge, FreesRealBytesAndSkipsTheLevelsAfterTheAmountIsMet) {
  start(kPurger);
  const auto dir = files("cache", 4, 8 * kMiB);
  auto cache = checkedInService(ctx_, "com.example.cache", {"--files", dir.string()});

  auto result = purge(onRoot(10 * kMiB));
  // Two files of the oldest went; the third level and the second never came.
  EXPECT_GE(result["VANTOR_AMOUNT"].uint64Value(), 10 * kMiB);
  EXPECT_EQ(result["VANTOR_AMOUNT_REPORTED"].uint64Value(), 16 * kMiB);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(std::filesystem::exists(dir / ("f" + std::to_string(100 + i))), i >= 2) << i;
  const auto asked = purgeRequests(*cache);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].first, 1);

  // Info is checked as a query's is (purgeable_query_test), and asks nobody.
  EXPECT_EQ(
      purge({{"VANTOR_VOLUME", Value("/proc")}, {"VANTOR_AMOUNT", Value(kMiB)}}),
      (Value::Dictionary{
          {"VANTOR_ERROR", Value("Parameter error, Unable to validate volume in info dict")}}));
  EXPECT_EQ(purgeRequests(*cache).size(), 1u);
}

TEST_F(Purge, WaitsOutEveryLevelWithNoServiceAndCancelsOneThatNeverAnswers) {
  start(kPurger);
  const auto begin = std::chrono::steady_clock::now();
  auto result = purge(onRoot(1ULL << 40, {{"VANTOR_PURGE_TIMEOUT", Value(1)}}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, seconds(3));  // three levels of 1 s
  EXPECT_TRUE(result.count("VANTOR_AMOUNT"));
  EXPECT_EQ(ctx_.logCount("waiting for 1 seconds"), 3u);

  auto mute = checkedInService(ctx_, "com.example.mute", {"--silent-purge"});
  result =
      purge(onRoot(1ULL << 40, {{"VANTOR_URGENCY", Value(2)}, {"VANTOR_PURGE_TIMEOUT", Value(1)}}));
  EXPECT_FALSE(result.count("VANTOR_ASYNC_COMPLETE"));
  EXPECT_TRUE(mute->waitForLine("cancel", seconds(5)));
  EXPECT_EQ(ctx_.logCount("cancelling purge"), 1u);
  EXPECT_TRUE(ctx_.waitForLog("timed out waiting for:", seconds(1))) << ctx_.daemonLog();
}

TEST_F(Purge, APlainClientsCancelStopsThePurgeInFlightAndALaterOneOnlyTheNextPurge) {
  // The user may only call; this program may purge as well.
  start({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"}, {}, {"PURGE_ENTITLEMENT"});
  const auto dir = files("slow", 40, 64 * 1024);
  auto slow = checkedInService(ctx_, "com.example.slow",
                               {"--files", dir.string(), "--purge-step-ms", "100"});

  auto running = purgeAsync(onRoot(40 * 64 * 1024, {{"VANTOR_PURGE_TIMEOUT", Value(20)}}));
  ASSERT_TRUE(slow->waitForLine("purge 1 ", seconds(10)));
  // vantorctl runs as the same user but is not this program: CLIENT_ENTITLEMENT only.
  TempDir logs;
  ChildProcess ctl({VANTORCTL_BINARY, "--bus", ctx_.busAddress(), "cancel"}, {},
                   logs.path() / "ctl.log");
  const auto status = ctl.waitExit(seconds(30));
  ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_TRUE(slow->waitForLine("cancel", seconds(5)));
  auto result = running.get();
  EXPECT_LT(result["VANTOR_AMOUNT_REPORTED"].uint64Value(), 40u * 64 * 1024);
  EXPECT_EQ(purgeRequests(*slow).size(), 1u) << "no level after the cancel";
  EXPECT_TRUE(std::filesystem::exists(dir / "f139"));

  // A cancel while idle holds for the next purge, which asks nobody, and
  // for no purge after it.
  ASSERT_EQ(cancel(*client_), "");
  purge(onRoot(kMiB, {{"VANTOR_URGENCY", Value(1)}, {"VANTOR_PURGE_TIMEOUT", Value(1)}}));
  EXPECT_EQ(purgeRequests(*slow).size(), 1u);
  purge(onRoot(1ULL << 40, {{"VANTOR_URGENCY", Value(1)}, {"VANTOR_PURGE_TIMEOUT", Value(5)}}));
  EXPECT_GE(purgeRequests(*slow).size(), 2u);
}

TEST_F(Purge, AnUnentitledCallerAsksNobody) {
  start({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"});
  auto watched = checkedInService(ctx_, "com.example.watched", {});
  EXPECT_TRUE(purge(onRoot(kMiB)).empty());
  EXPECT_TRUE(purgeRequests(*watched).empty());
}

TEST_F(Purge, KeepsClientStateServingAndEndsCleanlyOnSigtermMidPurge) {
  start(kPurger);
  auto mute = checkedInService(ctx_, "com.example.mute", {"--silent-purge"});
  auto running = purgeAsync(onRoot(1ULL << 40, {{"VANTOR_PURGE_TIMEOUT", Value(60)}}));
  ASSERT_TRUE(mute->waitForLine("purge 1 ", seconds(10)));

  EXPECT_EQ(getState(*client_, "VANTOR_CACHE_ENABLED"), Value(true));

  ctx_.daemon().signal(SIGTERM);
  const auto status = ctx_.daemon().waitExit(seconds(10));
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_THROW(running.get(), sdbus::Error);  // the caller learns the daemon went away
}

TEST_F(Purge, SurvivesPurgesAndCancelsFromSeveralClientsAtOnce) {
  start(kPurger);
  const auto dir = files("shared", 64, 16 * 1024);
  auto a = checkedInService(ctx_, "com.example.a", {"--files", dir.string()});
  auto b = checkedInService(ctx_, "com.example.b", {"--amount", "4096", "--delay-ms", "5"});

  std::atomic<bool> stop{false};
  std::thread canceller([&] {
    auto connection = ctx_.connect();
    // A flood may be turned away with a limit; the daemon must not be.
    while (!stop.load())
      cancel(*connection);
  });
  std::vector<std::future<Value::Dictionary>> purges;
  for (int i = 0; i < 4; ++i)
    purges.push_back(purgeAsync(
        onRoot(128 * 1024, {{"VANTOR_ASYNC", Value(true)}, {"VANTOR_PURGE_TIMEOUT", Value(1)}})));
  for (auto& p : purges)
    EXPECT_TRUE(p.get().count("VANTOR_FREESPACE_END"));
  stop.store(true);
  canceller.join();

  // Still serving, and still purging.
  purge(onRoot(kMiB, {{"VANTOR_URGENCY", Value(1)}, {"VANTOR_PURGE_TIMEOUT", Value(1)}}));
  EXPECT_TRUE(purge(onRoot(kMiB, {{"VANTOR_URGENCY", Value(1)}})).count("VANTOR_AMOUNT"));
}

// Replies from many services come in on several threads at once. No change
// to the shared counters is lost: once every reply is in, no request counts
// as outstanding, and a later purge ends with its last reply, not its time.
// The services answer after a short delay, so a level's requests are all out
// before the first reply and its replies land together.
TEST_F(Purge, ManyQuickRepliesLoseNoCountAndALaterPurgeEndsWithItsLastReply) {
  start(kPurger);
  auto quick =
      ctx_.startCheckedInServices("com.example.quick", 100, {"--amount", "0", "--delay-ms", "300"});
  ASSERT_EQ(quick.size(), 100u) << ctx_.daemonLog();
  for (int i = 0; i < 50; ++i)
    purge(onRoot(1ULL << 30, {{"VANTOR_URGENCY", Value(1)}, {"VANTOR_PURGE_TIMEOUT", Value(10)}}));
  const auto outstanding = [&] {
    return counters(*client_).at("purge_active_service_count").int64Value();
  };
  EXPECT_TRUE(waitUntil([&] { return outstanding() == 0; }, seconds(30))) << outstanding();

  // Only a fresh service is left to ask once the daemon has forgotten the
  // others.
  quick.clear();
  ASSERT_TRUE(
      waitUntil([&] { return namedEntries(*client_, "ListServices").empty(); }, seconds(30)));
  auto last = checkedInService(ctx_, "com.example.last", {"--amount", "0"});
  const auto started = std::chrono::steady_clock::now();
  const auto result = purge(onRoot(1ULL << 30, {{"VANTOR_URGENCY", Value(1)},
                                                {"VANTOR_ASYNC", Value(true)},
                                                {"VANTOR_PURGE_TIMEOUT", Value(30)}}));
  EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(30));
  EXPECT_EQ(result.count("VANTOR_ASYNC_COMPLETE"), 1u) << Value(result).description();
}

}  // namespace
}  // namespace vantor::test
