// The daemon on a private bus: start-up, the exported interface and refusals.
// (SIGTERM ends it with status 0: purge_test, mid-purge.)

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

std::string introspect(sdbus::IConnection& connection) {
  auto proxy = sdbus::createProxy(connection, "com.tessaly.vantor", "/com/tessaly/vantor");
  std::string xml;
  proxy->callMethod("Introspect")
      .onInterface("org.freedesktop.DBus.Introspectable")
      .storeResultsTo(xml);
  return xml;
}

// The argument types of `method` in introspection XML, "in" and "out" apart.
std::pair<std::string, std::string> signatureOf(const std::string& xml, const std::string& method) {
  auto start = xml.find("<method name=\"" + method + "\">");
  if (start == std::string::npos)
    return {"<missing>", "<missing>"};
  auto end = xml.find("</method>", start);
  std::string body = xml.substr(start, end - start);
  std::string in, out;
  auto attribute = [](const std::string& tag, const std::string& name) {
    auto at = tag.find(name + "=\"");
    if (at == std::string::npos)
      return std::string();
    at += name.size() + 2;
    return tag.substr(at, tag.find('"', at) - at);
  };
  for (auto at = body.find("<arg "); at != std::string::npos; at = body.find("<arg ", at + 1)) {
    const std::string tag = body.substr(at, body.find('>', at) - at);
    (attribute(tag, "direction") == "out" ? out : in) += attribute(tag, "type");
  }
  return {in, out};
}

// It owns its name, announces its launch, exports the seven client methods
// with their signatures, and refuses wrong-typed arguments without harm.
TEST(TheDaemon, StartsAndExportsItsInterface) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting({"CLIENT_ENTITLEMENT"}));
  EXPECT_TRUE(ctx.signals().waitFor("Posted:com.tessaly.vantor.launched", seconds(10)));
  auto log = ctx.daemonLog();
  EXPECT_NE(log.find("plistDir: " + ctx.root().string() + "/System/Library/Vantor/"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("<5>Vantor: main timebaseInfo:  1 / 1, gTimebaseConversion: 1.000000"),
            std::string::npos)
      << log;

  auto client = ctx.connect();
  const std::string xml = introspect(*client);
  const std::map<std::string, std::pair<std::string, std::string>> expected = {
      {"ClientCheckin", {"s(so)a{sv}", "a{sv}"}},
      {"ClientPurgeableSpace", {"a{sv}", "a{sv}"}},
      {"ClientItemizedPurgeableSpace", {"a{sv}", "a{sv}"}},
      {"ClientPurge", {"a{sv}", "a{sv}"}},
      {"ClientCancelPurge", {"", ""}},
      {"ClientSetState", {"avs", ""}},
      {"ClientGetState", {"s", "av"}},
  };
  for (const auto& [method, signature] : expected)
    EXPECT_EQ(signatureOf(xml, method), signature) << method;
  EXPECT_NE(xml.find("<signal name=\"Posted\">"), std::string::npos);

  EXPECT_EQ(callForError(*client, "ClientPurgeableSpace",
                         [](sdbus::MethodCall& call) { call << std::string("not a dict"); }),
            "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(callForError(*client, "ClientGetState",
                         [](sdbus::MethodCall& call) { call << std::int32_t{7}; }),
            "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_FALSE(ctx.daemon().waitExit(std::chrono::milliseconds(0)));
  EXPECT_NE(introspect(*client).find("ClientCheckin"), std::string::npos);
}

TEST(TheDaemon, SkipsBadDescriptorFilesAndReadsTheRest) {
  TestContext ctx;
  ctx.writeFile(ctx.descriptorDir() / "garbage.plist", "this is not a property list");
  ctx.writeFile(ctx.descriptorDir() / "array.plist",
                "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>x</string>"
                "</array></plist>");
  std::filesystem::create_symlink("/nonexistent/target", ctx.descriptorDir() / "dangling.plist");
  ASSERT_EQ(::mkfifo((ctx.descriptorDir() / "fifo.plist").c_str(), 0600), 0);
  std::filesystem::create_directories(ctx.descriptorDir() / "sub");
  ctx.writeDescriptor("sub/good.plist",
                      Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.good")},
                                              {"VANTOR_DO_NOT_QUERY", Value(false)}}));
  // Without an ID a descriptor is skipped without a word.
  ctx.writeDescriptor("noid.plist", Value(Value::Dictionary{{"VANTOR_SERVICES", Value("x")}}));
  ASSERT_TRUE(ctx.startDaemon());
  const std::string log = ctx.daemonLog();
  // Four bad files and the directory entry itself are each logged once.
  EXPECT_EQ(ctx.logCount("propertyListWithData failed"), 5u) << log;
  // The top level that is no dictionary parsed: its error is absent.
  EXPECT_NE(log.find("propertyListWithData failed: (null)"), std::string::npos) << log;
  EXPECT_NE(log.find("marking com.example.good as DO_NOT_QUERY"), std::string::npos) << log;
  EXPECT_NE(log.find("looking at: " + ctx.descriptorDir().string() + "//sub/good.plist"),
            std::string::npos)
      << log;
}

}  // namespace
}  // namespace vantor::test
