// Every method the daemon exports, called by callers holding no entitlement,
// each one alone, the client entitlement with each other one, and all of
// them, against a table of the answer each caller must get.

#include <signal.h>
#include <unistd.h>

#include <set>

#include "common/test_context.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The answers a caller may get.
constexpr char kDenied[] = "AccessDenied", kNull[] = "null reply", kSilence[] = "silence",
               kServed[] = "served";

const std::vector<std::string> kNames = {
    "CLIENT_ENTITLEMENT",      "SERVICE_ENTITLEMENT",
    "PURGEABLE_ENTITLEMENT",   "ITEMIZED_PURGEABLE_ENTITLEMENT",
    "PURGE_ENTITLEMENT",       "CANCEL_PURGE_ENTITLEMENT",
    "PERIODIC_ENTITLEMENT",    "SERVICE_REQUEST_ENTITLEMENT",
    "NOTIFICATION_ENTITLEMENT"};

struct Method {
  std::string interface;
  std::string name;
  // Beyond the client entitlement: the name the method needs, and what a
  // caller without it gets.
  std::string needs;
  const char* without;
};

const std::vector<Method> kMethods = {
    {"com.tessaly.vantor.Client", "ClientCheckin", "SERVICE_ENTITLEMENT", kSilence},
    {"com.tessaly.vantor.Client", "ClientPurgeableSpace", "PURGEABLE_ENTITLEMENT", kNull},
    {"com.tessaly.vantor.Client", "ClientItemizedPurgeableSpace", "ITEMIZED_PURGEABLE_ENTITLEMENT",
     kNull},
    {"com.tessaly.vantor.Client", "ClientPurge", "PURGE_ENTITLEMENT", kNull},
    {"com.tessaly.vantor.Client", "ClientCancelPurge", "", kServed},
    {"com.tessaly.vantor.Client", "ClientSetState", "", kServed},
    {"com.tessaly.vantor.Client", "ClientGetState", "", kServed},
    {"com.tessaly.vantor.Admin", "ListServices", "", kServed},
    {"com.tessaly.vantor.Admin", "GetVolumes", "", kServed},
    {"com.tessaly.vantor.Admin", "GetStatistics", "", kServed},
    {"com.tessaly.vantor.Admin", "GetPurgeHistory", "", kServed},
};

// The table: what a caller holding `held` gets from `method`.
std::string expected(const Method& method, const std::set<std::string>& held) {
  if (held.count("CLIENT_ENTITLEMENT") == 0)
    return kDenied;
  if (method.needs.empty() || held.count(method.needs) > 0)
    return kServed;
  return method.without;
}

// Each check-in names an ID of its own, so none is the re-check-in of an
// earlier one, and an endpoint nobody owns, so the daemon's ping fails fast.
void addArguments(const Method& method, sdbus::MethodCall& call, int serial) {
  std::map<std::string, sdbus::Variant> info{{"VANTOR_VOLUME", sdbus::Variant(std::string("/"))}};
  if (method.name == "ClientCheckin") {
    call << "com.example.table" + std::to_string(serial)
         << sdbus::Struct<std::string, sdbus::ObjectPath>{std::string(":1.999999"),
                                                          sdbus::ObjectPath("/x")}
         << std::map<std::string, sdbus::Variant>{{"PURGE", sdbus::Variant(true)}};
  } else if (method.name == "ClientPurge") {
    info.emplace("VANTOR_AMOUNT", sdbus::Variant(std::uint64_t{1}));
    info.emplace("VANTOR_URGENCY", sdbus::Variant(std::int32_t{1}));
    call << info;
  } else if (method.name == "ClientSetState") {
    call << std::vector<sdbus::Variant>{sdbus::Variant(std::string("v"))} << std::string("KEY");
  } else if (method.name == "ClientGetState") {
    call << std::string("KEY");
  } else if (method.interface == "com.tessaly.vantor.Client" &&
             method.name != "ClientCancelPurge") {
    call << info;
  }
}

// Calls `method` and classifies the answer; silence is a call unanswered
// within `quiet` while a later call on the same connection is answered (so
// the daemon had seen the first one and chose not to answer).
std::string call(sdbus::IConnection& connection, const Method& method, int serial,
                 milliseconds quiet) {
  auto proxy = sdbus::createProxy(connection, "com.tessaly.vantor", "/com/tessaly/vantor");
  auto message = proxy->createMethodCall(method.interface, method.name);
  addArguments(method, message, serial);
  const auto start = std::chrono::steady_clock::now();
  try {
    auto reply = proxy->callMethod(message, quiet);
    if (method.name != "ClientCheckin" && !method.name.ends_with("PurgeableSpace") &&
        method.name != "ClientPurge")
      return kServed;
    std::map<std::string, sdbus::Variant> dict;
    reply >> dict;
    return dict.empty() ? kNull : kServed;
  } catch (const sdbus::Error& error) {
    if (error.getName() == "org.freedesktop.DBus.Error.AccessDenied")
      return kDenied;
    if (std::chrono::steady_clock::now() - start < quiet)
      return "error " + error.getName() + ": " + error.getMessage();
    const std::string later = probeState(connection);
    return later.empty() ? kSilence : "no answer, and a later call failed with " + later;
  }
}

TEST(TheEntitlementTable, HoldsForEveryMethodAndEveryCaller) {
  TestContext ctx;
  ASSERT_TRUE(ctx.startDaemonGranting({}));

  std::vector<std::set<std::string>> callers = {{}};
  for (const auto& name : kNames)
    callers.push_back({name});
  for (const auto& name : kNames) {
    if (name != "CLIENT_ENTITLEMENT")
      callers.push_back({"CLIENT_ENTITLEMENT", name});
  }
  callers.push_back(std::set<std::string>(kNames.begin(), kNames.end()));

  int serial = 0;
  for (const auto& held : callers) {
    // Installs the caller's policy and waits until the daemon has read it.
    const std::size_t loads = ctx.logCount("entitlement rules in force");
    ctx.grantUser("me.plist", ::getuid(), std::vector<std::string>(held.begin(), held.end()));
    ctx.daemon().signal(SIGHUP);
    ASSERT_TRUE(
        waitUntil([&] { return ctx.logCount("entitlement rules in force") > loads; }, seconds(10)));

    std::string holder;
    for (const auto& name : held)
      holder += name + " ";
    auto connection = ctx.connect();
    for (const auto& method : kMethods) {
      const std::string want = expected(method, held);
      EXPECT_EQ(call(*connection, method, ++serial,
                     want == kSilence ? milliseconds(500) : milliseconds(20'000)),
                want)
          << method.name << " by [" << holder << "]";
    }
  }
  EXPECT_TRUE(
      ctx.waitForLog("clientPurgeableSpace:replyBlock:] Connection is not entitled!", seconds(5)));
  // Check-ins naming a bus name that does not exist were answered (above),
  // then forgotten.
  EXPECT_TRUE(ctx.waitForLog("invalidationHandler ENTRY", seconds(10)));
  EXPECT_FALSE(ctx.daemon().waitExit(milliseconds(0)));
}

}  // namespace
}  // namespace vantor::test
