// The daemon on a private bus: start-up, the exported interface, refusals and
// termination.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

const std::vector<std::string> kAllNames = {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT",
                                            "PURGEABLE_ENTITLEMENT",
                                            "ITEMIZED_PURGEABLE_ENTITLEMENT", "PURGE_ENTITLEMENT"};

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

// Adds the arguments each client method expects, so a call reaches the daemon.
void addArgumentsFor(const std::string& method, sdbus::MethodCall& call) {
  std::map<std::string, sdbus::Variant> info{{"VANTOR_VOLUME", sdbus::Variant(std::string("/"))}};
  if (method == "ClientCheckin") {
    call << std::string("com.example.svc")
         << sdbus::Struct<std::string, sdbus::ObjectPath>{std::string(":1.1"),
                                                          sdbus::ObjectPath("/x")}
         << info;
  } else if (method == "ClientSetState") {
    call << std::vector<sdbus::Variant>{} << std::string("KEY");
  } else if (method == "ClientGetState") {
    call << std::string("KEY");
  } else if (method != "ClientCancelPurge") {
    call << info;
  }
}

const std::vector<std::string> kMethods = {
    "ClientCheckin", "ClientPurgeableSpace", "ClientItemizedPurgeableSpace",
    "ClientPurge",   "ClientCancelPurge",    "ClientSetState",
    "ClientGetState"};

TEST(TheDaemon, OwnsItsNameAndAnnouncesItsLaunch) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemon());
  EXPECT_TRUE(ctx.signals().waitFor("Posted:com.tessaly.vantor.launched", seconds(10)));
  auto log = ctx.daemonLog();
  EXPECT_NE(log.find("plistDir: " + ctx.root().string() + "/System/Library/Vantor/"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("<5>Vantor: main timebaseInfo:  1 / 1, gTimebaseConversion: 1.000000"),
            std::string::npos)
      << log;
}

TEST(TheDaemon, ExportsTheSevenClientMethodsWithTheirSignatures) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemon());
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
  for (const auto& [method, signature] : expected) {
    EXPECT_EQ(signatureOf(xml, method), signature) << method;
  }
  EXPECT_NE(xml.find("<signal name=\"Posted\">"), std::string::npos);
}

TEST(AnUnentitledCaller, IsDeniedEveryMethod) {
  TestContext ctx;
  // A policy that grants everything to somebody else.
  ctx.grantUser("other.plist", ::getuid() + 4242, kAllNames);
  ASSERT_TRUE(ctx.startDaemon());
  auto client = ctx.connect();
  for (const auto& method : kMethods) {
    EXPECT_EQ(callForError(*client, method,
                           [&](sdbus::MethodCall& call) { addArgumentsFor(method, call); }),
              "org.freedesktop.DBus.Error.AccessDenied")
        << method;
  }
  EXPECT_NE(ctx.daemonLog().find("not entitled"), std::string::npos);
}

TEST(AnEntitledCaller, ReachesTheCoordinator) {
  TestContext ctx;
  // A descriptor service, so its check-in is answered at once.
  ctx.writeDescriptor("svc.plist",
                      Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.svc")}}));
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  ASSERT_TRUE(ctx.startDaemon());
  auto client = ctx.connect();
  for (const auto& method : kMethods) {
    const std::string error = callForError(
        *client, method, [&](sdbus::MethodCall& call) { addArgumentsFor(method, call); });
    EXPECT_NE(error, "org.freedesktop.DBus.Error.AccessDenied") << method;
  }
}

TEST(TheDaemon, RefusesWrongTypedArgumentsAndKeepsRunning) {
  TestContext ctx;
  ctx.grantUser("me.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  ASSERT_TRUE(ctx.startDaemon());
  auto client = ctx.connect();
  EXPECT_EQ(callForError(*client, "ClientPurgeableSpace",
                         [](sdbus::MethodCall& call) { call << std::string("not a dict"); }),
            "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(callForError(*client, "ClientGetState",
                         [](sdbus::MethodCall& call) { call << std::int32_t{7}; }),
            "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_FALSE(ctx.daemon().waitExit(std::chrono::milliseconds(0)));
  EXPECT_NE(introspect(*client).find("ClientCheckin"), std::string::npos);
}

TEST(TheDaemon, ExitsWithStatusZeroOnSigterm) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemon());
  ctx.daemon().signal(SIGTERM);
  auto status = ctx.daemon().waitExit(std::chrono::seconds(10));
  ASSERT_TRUE(status.has_value());
  ASSERT_TRUE(WIFEXITED(*status)) << *status;
  EXPECT_EQ(WEXITSTATUS(*status), 0);
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
  ASSERT_TRUE(ctx.startDaemon());
  const std::string log = ctx.daemonLog();
  // Four bad files and the directory entry itself are each logged once.
  std::size_t failures = 0;
  for (auto pos = log.find("propertyListWithData failed"); pos != std::string::npos;
       pos = log.find("propertyListWithData failed", pos + 1)) {
    ++failures;
  }
  EXPECT_EQ(failures, 5u) << log;
  EXPECT_NE(log.find("marking com.example.good as DO_NOT_QUERY"), std::string::npos) << log;
  EXPECT_NE(log.find("looking at: " + ctx.descriptorDir().string() + "//sub/good.plist"),
            std::string::npos)
      << log;
}

}  // namespace
}  // namespace vantor::test
