// The administration interface against the real daemon and real services:
// what it lists, the history and signal of a purge, the statistics, and who
// may ask.

#include <unistd.h>

#include <future>

#include "common/test_context.h"
#include "platform/values/dbus_value.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

constexpr char kAdmin[] = "com.tessaly.vantor.Admin";
constexpr std::uint64_t kMiB = 1 << 20;

class Admin : public ClientTest {
 protected:
  Value::Dictionary call(const std::string& method, Value::Dictionary info) {
    return callClient(*client_, method, info);
  }
};

// How descriptors read is asserted in descriptors_test; here, how the
// listing shows a descriptor's service and a checked-in one.
TEST_F(Admin, ListsDescriptorAndCheckedInServicesAndTheVolumesWithTheirThresholds) {
  const auto list = [](std::initializer_list<const char*> items) {
    return Value(Value::Array(items.begin(), items.end()));
  };
  ctx_.writeDescriptor("tidy.plist",
                       Value(Value::Dictionary{{"VANTOR_ID", Value("com.example.tidy")},
                                               {"VANTOR_SERVICES", list({"PERIODIC"})},
                                               {"VANTOR_DO_NOT_QUERY", Value(false)},
                                               {"VANTOR_NOTIFICATIONS", list({"N1", "N2"})}}));
  ctx_.writeDescriptor("plain.plist", Value(Value::Dictionary{{"VANTOR_ID", Value("plain")}}));
  start({"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"},
        {{"VANTOR_LOWDISK_BYTES", "2"}, {"VANTOR_VERYLOWDISK_BYTES", "1"}});
  auto service = checkedInService(ctx_, "com.example.a", {"--opt-out"});
  // Its answer carries an opt-out, which the listing shows while in force.
  call("ClientPurgeableSpace", {{"VANTOR_VOLUME", Value("/")}});

  auto services = namedEntries(*client_, "ListServices");
  ASSERT_EQ(services.size(), 3u);
  EXPECT_EQ(Value(services["com.example.tidy"]),
            Value(Value::Dictionary{{"origin", Value("descriptor")},
                                    {"PURGE", Value(false)},
                                    {"PERIODIC", Value(true)},
                                    {"DO_NOT_QUERY", Value(true)},
                                    {"NOTIFICATIONS", list({"N1", "N2"})},
                                    {"inFlight", Value(Value::Array{})}}));
  EXPECT_EQ(services["plain"]["NOTIFICATIONS"], list({}));

  Value::Dictionary& checkedIn = services["com.example.a"];
  EXPECT_EQ(checkedIn["origin"], Value("checkin"));
  EXPECT_EQ(checkedIn["PURGE"], Value(true));
  EXPECT_TRUE(checkedIn["busName"].isString() && !checkedIn["busName"].get<std::string>().empty());
  EXPECT_EQ(checkedIn["objectPath"], Value("/com/tessaly/vantor/Service"));
  EXPECT_EQ(checkedIn["inFlight"], Value(Value::Array{}));
  EXPECT_TRUE(checkedIn["optedOutAt"].isDate()) << Value(checkedIn).description();

  auto volumes = namedEntries(*client_, "GetVolumes");
  ASSERT_EQ(volumes.count("/"), 1u);
  Value::Dictionary& root = volumes["/"];
  EXPECT_GT(root["size"].uint64Value(), 0u);
  EXPECT_LE(root["available"].uint64Value(), root["size"].uint64Value());
  EXPECT_EQ(root["lowThreshold"].uint64Value(), 2u);
  EXPECT_EQ(root["veryLowThreshold"].uint64Value(), 1u);
  EXPECT_EQ(root["low"], Value(false));
  EXPECT_EQ(root["veryLow"], Value(false));
}

TEST_F(Admin, APurgesHistoryEntrySignalAndStatisticsMatchWhatItsServicesWereAskedAndAnswered) {
  start(
      {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"});
  std::promise<Value::Dictionary> signalled;
  auto watcher = sdbus::createProxy(*client_, "com.tessaly.vantor", "/com/tessaly/vantor");
  watcher->uponSignal("PurgeFinished").onInterface(kAdmin).call([&](const VariantMap& purge) {
    signalled.set_value(fromVariantMap(purge));
  });
  watcher->finishRegistration();
  auto service = checkedInService(ctx_, "com.example.a", {"--amount", "1048576"});
  using History = std::vector<VariantMap>;
  EXPECT_TRUE(callAdmin<History>(*client_, "GetPurgeHistory").empty());

  call("ClientPurgeableSpace", {{"VANTOR_VOLUME", Value("/")}});
  // Far more than the volume could free: every level is worked.
  const std::uint64_t asked = 3'000'000'000'000;
  const auto result = call("ClientPurge", {{"VANTOR_VOLUME", Value("/")},
                                           {"VANTOR_AMOUNT", Value(asked)},
                                           {"VANTOR_URGENCY_LIMIT", Value(2)}});

  // What the service printed it was asked, request by request.
  const auto shares = purgeRequests(*service);
  ASSERT_EQ(shares.size(), 2u);
  const std::uint64_t requests = shares.size(), sharesAsked = shares[0].second + shares[1].second;

  const History purges = callAdmin<History>(*client_, "GetPurgeHistory");
  ASSERT_EQ(purges.size(), 1u);
  Value::Dictionary entry = fromVariantMap(purges[0]);
  EXPECT_EQ(entry["requestedBy"], Value("client"));
  EXPECT_EQ(entry["uid"].int64Value(), static_cast<std::int64_t>(::getuid()));
  EXPECT_EQ(entry["pid"].int64Value(), static_cast<std::int64_t>(::getpid()));
  EXPECT_EQ(entry["executable"], Value(std::filesystem::read_symlink("/proc/self/exe").string()));
  EXPECT_TRUE(entry["date"].isDate());
  EXPECT_EQ(entry["volume"], Value("/"));
  EXPECT_EQ(entry["asked"].uint64Value(), asked);
  EXPECT_EQ(entry["freed"].uint64Value(), result.at("VANTOR_AMOUNT").uint64Value());
  EXPECT_EQ(entry["reported"].uint64Value(), 2 * kMiB);
  EXPECT_EQ(entry["levels"], Value(Value::Array{Value(1), Value(2)}));
  EXPECT_TRUE(entry["cancelled"].isBoolean());
  Value::Dictionary share =
      entry["services"].get<Value::Dictionary>()["com.example.a"].get<Value::Dictionary>();
  EXPECT_EQ(share["asked"].uint64Value(), sharesAsked);
  EXPECT_EQ(share["reported"].uint64Value(), 2 * kMiB);
  EXPECT_EQ(share["requests"].uint64Value(), requests);
  EXPECT_GT(share["nanoseconds"].uint64Value(), 0u);

  auto fromSignal = signalled.get_future();
  ASSERT_EQ(fromSignal.wait_for(seconds(10)), std::future_status::ready);
  EXPECT_EQ(Value(fromSignal.get()), Value(entry));
  EXPECT_TRUE(ctx_.waitForLog("purge finished", seconds(10)));

  auto stats = callAdmin<std::map<std::string, VariantMap>>(*client_, "GetStatistics");
  Value::Dictionary requested =
      fromVariantMap(stats["com.tessaly.vantor/VantorPurgeAmountRequested"]);
  EXPECT_EQ(requested["count"].uint64Value(), 1u);
  EXPECT_EQ(requested["sum"].doubleValue(), static_cast<double>(asked));
  Value::Dictionary purged = fromVariantMap(stats["com.tessaly.vantor/com.example.a.purged"]);
  EXPECT_EQ(purged["count"].uint64Value(), requests);
  EXPECT_EQ(purged["sum"].doubleValue(), static_cast<double>(2 * kMiB));
  EXPECT_EQ(purged["last"].doubleValue(), static_cast<double>(kMiB));
  EXPECT_EQ(fromVariantMap(stats["com.tessaly.vantor/com.example.a_purgeableElapsedNanoseconds"])
                .at("count")
                .uint64Value(),
            1u);
}

}  // namespace
}  // namespace vantor::test
