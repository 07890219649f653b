// Persistent client state over the bus: defaults, every value type as it
// travels and as bindings send it, and restarts. (A daemon killed amid
// writes is in faults_test.)

#include <limits>
#include <tuple>

#include "common/test_context.h"
#include "platform/values/dbus_value.h"

namespace vantor::test {
namespace {

using std::chrono::seconds;

class ClientState : public ClientTest {
 protected:
  void SetUp() override { start({"CLIENT_ENTITLEMENT"}); }

  void set(const std::string& key, const Value& value) {
    ASSERT_EQ(setState(*client_, key, value), "") << key;
  }
  Value get(const std::string& key) { return getState(*client_, key); }
  // Sets `key` to a variant as any binding may send it.
  void setRaw(const std::string& key, const sdbus::Variant& value) {
    ASSERT_EQ(callForError(*client_, "ClientSetState",
                           [&](sdbus::MethodCall& call) { call << VariantArray{value} << key; }),
              "")
        << key;
  }
  // The signature the value of `key` travels as.
  std::string signatureOf(const std::string& key) {
    auto proxy = sdbus::createProxy(*client_, "com.tessaly.vantor", "/com/tessaly/vantor");
    VariantArray result;
    proxy->callMethod("ClientGetState")
        .onInterface("com.tessaly.vantor.Client")
        .withArguments(key)
        .storeResultsTo(result);
    return result.size() == 1 ? result.front().peekValueType() : "<no single value>";
  }
};

TEST_F(ClientState, AnswersDefaultsMergesThemIntoTheWholeStateAndBringsThemBackOnRemoval) {
  EXPECT_EQ(get("VANTOR_CACHE_ENABLED"), Value(true));
  EXPECT_TRUE(get("VANTOR_USER_DEFAULTS").isNull());
  EXPECT_TRUE(get("NEVER_SET").isNull());
  EXPECT_EQ(ctx_.daemonLog().find("using default value"), std::string::npos);

  // Once anything is stored, the whole state carries the defaults too.
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

  // A null removes a key, and the default comes back.
  set("VANTOR_CACHE_ENABLED", Value());
  set("COLOUR", Value());
  EXPECT_EQ(get("VANTOR_CACHE_ENABLED"), Value(true));
  EXPECT_TRUE(get("COLOUR").isNull());
}

// Every type comes back equal, travelling as its own signature, also after
// a restart (the first creates the missing state directory); a removal
// lasts as well.
TEST_F(ClientState, RoundTripsEveryValueTypeAndSurvivesARestart) {
  const std::vector<std::tuple<std::string, Value, std::string>> cases = {
      {"string", Value("héllo \"quoted\", grin 😀 and 𝄞 clef"), "s"},
      {"empty string", Value(""), "s"},
      {"integer", Value(std::numeric_limits<std::int64_t>::min()), "x"},
      {"unsigned", Value(std::numeric_limits<std::uint64_t>::max()), "t"},
      {"unsigned past signed", Value(std::uint64_t{1} << 63), "t"},
      {"real", Value(-0.125), "d"},
      {"true", Value(true), "b"},
      {"false", Value(false), "b"},
      {"data", Value(Value::Data{0, 1, 0, 255}), "ay"},
      {"empty data", Value(Value::Data{}), "ay"},
      {"date", Value(Date{1700000000123456}), "(x)"},
      {"early date", Value(Date{-1'234'567}), "(x)"},
      {"date just before 2001", Value(Date{978'307'199'500'000}), "(x)"},
      {"array", Value(Value::Array{Value(1), Value("two"), Value(Value::Array{})}), "av"},
      {"dictionary",
       Value(Value::Dictionary{{"ïnner 😀", Value(Value::Dictionary{{"n", Value(2.5)}})}}), "a{sv}"},
  };
  for (const auto& [key, value, signature] : cases)
    set(key, value);
  set("REMOVED", Value(1));
  set("REMOVED", Value());
  for (int restarts = 0; restarts < 2; ++restarts) {
    for (const auto& [key, value, signature] : cases) {
      EXPECT_EQ(get(key), value) << key << " after " << restarts << " restarts";
      EXPECT_EQ(signatureOf(key), signature) << key;
    }
    EXPECT_TRUE(get("REMOVED").isNull());
    client_.reset();
    ASSERT_TRUE(ctx_.stopDaemon());
    ASSERT_TRUE(ctx_.startDaemon());
    client_ = ctx_.connect();
  }
}

// Integers of any width, and any array or string-keyed dictionary at any
// depth, as other bindings send them, are stored as their values. What has
// no stored form, more than one value, or a key of the wrong type is refused
// and changes nothing.
TEST_F(ClientState, TakesEveryIntegerWidthAndAnyArrayOrStringKeyedDictionary) {
  using Strings = std::vector<std::string>;
  using Table = std::map<std::string, std::map<std::string, std::int32_t>>;
  const Value strings(Value::Array{Value("a"), Value("b")});
  const std::vector<std::pair<sdbus::Variant, Value>> cases = {
      {sdbus::Variant(std::int32_t{-7}), Value(std::int64_t{-7})},
      {sdbus::Variant(std::uint32_t{4'000'000'000}), Value(std::int64_t{4'000'000'000})},
      {sdbus::Variant(std::int16_t{-300}), Value(std::int64_t{-300})},
      {sdbus::Variant(std::uint16_t{65'535}), Value(std::int64_t{65'535})},
      {sdbus::Variant(std::uint8_t{200}), Value(std::int64_t{200})},
      {sdbus::Variant(Strings{"a", "b"}), strings},
      {sdbus::Variant(std::vector<Strings>{{"a", "b"}, {}}),
       Value(Value::Array{strings, Value(Value::Array{})})},
      {sdbus::Variant(std::vector<sdbus::ObjectPath>{sdbus::ObjectPath("/a")}),
       Value(Value::Array{Value("/a")})},
      {sdbus::Variant(Table{{"t", {{"n", -1}}}}),
       Value(Value::Dictionary{{"t", Value(Value::Dictionary{{"n", Value(-1)}})}})},
      {sdbus::Variant(VariantMap{{"list", sdbus::Variant(std::vector<std::uint64_t>{7})}}),
       Value(Value::Dictionary{{"list", Value(Value::Array{Value(std::uint64_t{7})})}})},
  };
  for (const auto& [variant, expected] : cases) {
    const std::string key = "KEY " + variant.peekValueType();
    setRaw(key, variant);
    EXPECT_EQ(get(key), expected) << key;
  }

  const std::string kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
  for (const VariantArray& refused :
       {VariantArray{sdbus::Variant(std::map<std::int32_t, std::string>{{1, "one"}})},
        VariantArray{sdbus::Variant(std::string("x")), sdbus::Variant(std::string("y"))}}) {
    EXPECT_EQ(
        callForError(*client_, "ClientSetState",
                     [&](sdbus::MethodCall& call) { call << refused << std::string("KEY i"); }),
        kInvalidArgs);
  }
  EXPECT_EQ(get("KEY i"), Value(std::int64_t{-7}));
  EXPECT_EQ(callForError(*client_, "ClientGetState",
                         [](sdbus::MethodCall& call) { call << std::int32_t{7}; }),
            kInvalidArgs);
}

}  // namespace
}  // namespace vantor::test
