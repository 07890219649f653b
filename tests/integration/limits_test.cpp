// What a peer can make the daemon keep is bounded: client state, check-ins
// and their notification names. A request over a limit is refused with
// LimitsExceeded and one log line naming the peer, and the daemon serves on.
// (Calls in progress per sender are covered by the flood in robustness_test.)

#include "common/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

constexpr char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";

TEST(Limits, RefuseOversizedStateCheckinsAndNotificationNamesButNotRemovals) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT"},
                                      {{"VANTOR_LOG_LEVEL", "3"}}));
  auto client = ctx.connect();
  const std::string refusedFrom = "refused a set from " + client->getUniqueName();

  EXPECT_EQ(setState(*client, std::string(256, 'k'), Value("v")), "");
  EXPECT_EQ(setState(*client, std::string(257, 'k'), Value("v")), kLimitsExceeded);
  EXPECT_EQ(setState(*client, "big", Value(std::string(70 * 1024, 'x'))), kLimitsExceeded);

  // Sixteen values of 63 KiB fit in the store's mebibyte; a seventeenth
  // does not, until one of them is removed.
  const Value chunk(std::string(63 * 1024, 'x'));
  for (int i = 0; i < 16; ++i)
    ASSERT_EQ(setState(*client, "chunk" + std::to_string(i), chunk), "") << i;
  EXPECT_EQ(setState(*client, "chunk16", chunk), kLimitsExceeded);
  EXPECT_EQ(setState(*client, "chunk0", Value()), "");
  EXPECT_EQ(setState(*client, "chunk16", chunk), "");

  EXPECT_EQ(ctx.logCount(refusedFrom), 3u) << ctx.daemonLog();
  EXPECT_EQ(ctx.logCount("(limit "), 3u);  // no other refusal so far
  EXPECT_TRUE(getState(*client, "chunk0").isNull());
  EXPECT_EQ(getState(*client, std::string(256, 'k')), Value("v"));

  // One connection checks in seventeen IDs: the last is refused.
  auto many = ctx.startService({"--id", "com.example.many", "--checkin", "--checkin-ids", "17"});
  for (int i = 0; i < 16; ++i)
    ASSERT_TRUE(many->waitForLine("checked-in", seconds(20))) << i << ctx.daemonLog();
  ASSERT_TRUE(many->waitForLine("checkin-failed", seconds(20)));
  EXPECT_TRUE(many->sawLineStartingWith(std::string("checkin-failed ") + kLimitsExceeded));

  // Sixty-five names, or one name of 257 bytes, are refused; 64 of 256 are not.
  std::vector<std::string> names = {"--id", "com.example.names", "--checkin"};
  for (int i = 0; i < 64; ++i) {
    names.push_back("--notify");
    names.push_back(std::string(250, 'n') + std::to_string(100 + i));
  }
  auto enough = ctx.startService(names);
  ASSERT_TRUE(enough->waitForLine("checked-in", seconds(20))) << ctx.daemonLog();
  names[1] = "com.example.toomany";
  names.insert(names.end(), {"--notify", "one.more"});
  auto tooMany = ctx.startService(names);
  EXPECT_TRUE(tooMany->waitForLine(std::string("checkin-failed ") + kLimitsExceeded, seconds(20)));
  auto tooLong = ctx.startService(
      {"--id", "com.example.long", "--checkin", "--notify", std::string(257, 'n')});
  EXPECT_TRUE(tooLong->waitForLine(std::string("checkin-failed ") + kLimitsExceeded, seconds(20)));

  EXPECT_EQ(ctx.logCount("refused a check-in from "), 3u) << ctx.daemonLog();
  EXPECT_TRUE(getState(*client, "KEY").isNull());
}

}  // namespace
}  // namespace vantor::test
