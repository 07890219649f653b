// Values: numbers and descriptions, UTF-8 decoding, property-list files and
// D-Bus conversions. (The daemon's D-Bus round trips: persistent_state_test;
// here, the signatures it cannot read, inside a container that must survive
// them.)

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sdbus-c++/Types.h>

#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"
#include "platform/values/utf8.h"
#include "platform/values/value.h"

namespace vantor {
namespace {

constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::uint64_t kUint64Max = std::numeric_limits<std::uint64_t>::max();
constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();

// 2026-11-22 10:00:00 UTC.
constexpr Date kNovember22{1'795'341'600LL * 1'000'000};

// Narrowing readings clamp instead of wrapping; reals truncate toward zero
// (2^63 is just past the signed range, where a bare cast would be undefined);
// strings read their leading number; other types read as zero.
TEST(ValueNumbers, ClampTruncateAndReadLeadingDigits) {
  EXPECT_EQ(Value(kUint64Max).int64Value(), kInt64Max);
  EXPECT_EQ(Value(std::int64_t{1} << 40).int32Value(), kInt32Max);
  EXPECT_EQ(Value(-(std::int64_t{1} << 40)).int32Value(), kInt32Min);
  EXPECT_EQ(Value(std::uint64_t{1} << 40).int32Value(), kInt32Max);
  EXPECT_EQ(Value(kInt64Min).uint64Value(), 0u);

  EXPECT_EQ(Value(-2.9).int32Value(), -2);
  EXPECT_EQ(Value(-0.5).uint64Value(), 0u);
  EXPECT_EQ(Value(1e300).uint64Value(), kUint64Max);
  EXPECT_EQ(Value(-1e300).int64Value(), kInt64Min);
  EXPECT_EQ(Value(-1e10).int32Value(), kInt32Min);
  EXPECT_EQ(Value(9223372036854775808.0).int64Value(), kInt64Max);

  EXPECT_EQ(Value("12abc").int64Value(), 12);
  EXPECT_EQ(Value("x").int64Value(), 0);
  EXPECT_DOUBLE_EQ(Value("2.5kg").doubleValue(), 2.5);
  EXPECT_FALSE(Value("5").isNumber());
  EXPECT_TRUE(Value(true).isNumber());
  EXPECT_EQ(Value(true).int64Value(), 1);
  EXPECT_TRUE(Value(3).boolValue());
  EXPECT_EQ(Value(Value::Array{Value(4)}).int64Value(), 0);
  EXPECT_EQ(Value(kNovember22).int64Value(), 0);
  EXPECT_FALSE(Value().boolValue());
}

// (Dictionaries, strings, numbers and booleans as the services print them:
// the integration tests.)
TEST(ValueDescription, ScalarsAndContainers) {
  EXPECT_EQ(Value(Value::Array{Value(1), Value(2)}).description(), "(1, 2)");
  EXPECT_EQ(Value(Value::Data{0x0a, 0x1b}).description(), "<0a1b>");
  EXPECT_EQ(Value(kNovember22).description(), "2026-11-22 10:00:00 +0000");
  EXPECT_EQ(Value().description(), "(null)");
  EXPECT_EQ(Value(1.5).description(), "1.5");
  EXPECT_EQ(Value(kUint64Max).description(), "18446744073709551615");
  EXPECT_EQ(Value(R"(say "hi")").description(), R"("say \"hi\"")");
  const Value nested(Value::Array{Value(Value::Dictionary{{"k", Value(Value::Array{})}})});
  EXPECT_EQ(nested.description(), R"(({"k" = ();}))");
}

constexpr char32_t kBad = Utf8Unit::kMalformed;

// Each sequence at the edge of what is well-formed, and each way of missing
// it: the first and last code point of every length, overlong forms, stray
// and missing continuation bytes, surrogates, and code points past U+10FFFF.
TEST(Utf8, DecodesWellFormedSequencesAndEachByteOfAMalformedOneAlone) {
  const std::vector<std::pair<std::string, std::vector<char32_t>>> cases = {
      {"a\x7F", {'a', 0x7F}},
      {"\xC2\x80\xDF\xBF", {0x80, 0x7FF}},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", {0x800, 0xD7FF, 0xE000, 0xFFFF}},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", {0x10000, 0x10FFFF}},
      {"a\x80"
       "b",
       {'a', kBad, 'b'}},
      {"\xC0\xAF\xC1\xBF", {kBad, kBad, kBad, kBad}},
      {"\xE0\x9F\xBF", {kBad, kBad, kBad}},
      {"\xF0\x8F\xBF\xBF", {kBad, kBad, kBad, kBad}},
      {"\xED\xA0\x80", {kBad, kBad, kBad}},
      {"\xF4\x90\x80\x80\xF5", {kBad, kBad, kBad, kBad, kBad}},
      {"\xE2\x82"
       "a\xE2",
       {kBad, kBad, 'a', kBad}},
  };
  for (const auto& [text, expected] : cases) {
    std::vector<char32_t> decoded;
    std::string rejoined;
    forEachUtf8Unit(text, [&](const Utf8Unit& unit) {
      decoded.push_back(unit.codePoint);
      rejoined += unit.bytes;
    });
    EXPECT_EQ(decoded, expected) << testing::PrintToString(text);
    EXPECT_EQ(rejoined, text);
  }
}

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Sizes and reference widths change at these counts: a count of 15 no longer
// fits the marker, and tables of more than 255 or 65,535 objects need wider
// references.
TEST(PlistBinary, LengthsAndReferenceWidthsAcrossEveryBoundary) {
  for (const std::size_t n : {14u, 15u, 255u, 256u, 65535u, 65536u, 70000u}) {
    Value::Array items;
    for (std::size_t i = 0; i < n; ++i)
      items.emplace_back(static_cast<std::int64_t>(i) * 1000003);
    const Value original(Value::Dictionary{
        {"items", Value(std::move(items))},
        {"text", Value(std::string(n, 'x'))},
        {"data", Value(Value::Data(n, 0xAB))},
    });
    const auto parsed = parsePlist(encodePlist(original, PlistFormat::kBinary));
    ASSERT_TRUE(parsed.value.has_value()) << n << ": " << parsed.error;
    EXPECT_EQ(*parsed.value, original) << n;
  }
}

// Text is held as valid UTF-8 whichever way it came: a stray continuation
// byte, a truncated sequence, an overlong encoding and an encoded surrogate
// become U+FFFD each, as the writer sees them and as a file holds them; and
// text read from a file ends at a NUL, as it does on the bus.
TEST(PlistText, MalformedBytesBecomeReplacementsAndTextEndsAtANul) {
  const Value malformed(Value::Array{Value("a\x80"
                                           "b"),
                                     Value("c\xE6\x97"), Value("\xC0\xAF"), Value("\xED\xA0\x80")});
  const Value replaced(Value::Array{Value("a\uFFFD"
                                          "b"),
                                    Value("c\uFFFD\uFFFD"), Value("\uFFFD\uFFFD"),
                                    Value("\uFFFD\uFFFD\uFFFD")});
  const auto binary = parsePlist(encodePlist(malformed, PlistFormat::kBinary));
  ASSERT_TRUE(binary.value.has_value()) << binary.error;
  EXPECT_EQ(*binary.value, replaced);

  std::string xml = R"(<?xml version="1.0"?><plist version="1.0"><array>)"
                    "<string>c\xE6\x97</string><string>x";
  xml += '\0';
  xml += "y</string></array></plist>";
  const auto parsed = parsePlist(bytesOf(xml));
  ASSERT_TRUE(parsed.value.has_value()) << parsed.error;
  EXPECT_EQ(*parsed.value, Value(Value::Array{Value("c\uFFFD\uFFFD"), Value("x")}));
}

// Malformed and truncated files, and keys holding a NUL (on which the
// underlying library aborts), are the fuzz targets' seeds and findings; what
// no fuzz input of a few KiB reaches is nesting this deep.
TEST(PlistParse, DeepNestingIsRefusedRatherThanOverflowingTheStack) {
  constexpr int kDepth = 10'000;
  std::string text = R"(<?xml version="1.0"?><plist version="1.0">)";
  for (int i = 0; i < kDepth; ++i)
    text += "<array>";
  for (int i = 0; i < kDepth; ++i)
    text += "</array>";
  text += "</plist>";
  const auto parsed = parsePlist(bytesOf(text));
  EXPECT_FALSE(parsed.value.has_value());
  EXPECT_FALSE(parsed.error.empty());
}

// An entry of a type with no stored form becomes null, with the type named
// in the reason; inside a container it is read past and left out, and the
// entries after it survive.
TEST(DbusValue, UnsupportedSignaturesBecomeNullWithAReasonAndAreReadPast) {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  for (const auto& variant : {sdbus::Variant(sdbus::UnixFd(fd, sdbus::adopt_fd)),
                              sdbus::Variant(sdbus::Struct<std::string, std::string>{"a", "b"}),
                              sdbus::Variant(std::map<std::int32_t, std::string>{{1, "one"}})}) {
    std::string error;
    EXPECT_TRUE(fromVariant(variant, &error).isNull());
    EXPECT_NE(error.find("'" + variant.peekValueType() + "'"), std::string::npos) << error;
  }
  std::string error;
  const auto list = fromVariant(
      sdbus::Variant(std::vector<sdbus::Variant>{
          sdbus::Variant(std::map<std::int32_t, std::string>{{1, "one"}}),
          sdbus::Variant(sdbus::Struct<std::string, std::int32_t>{"a", 1}), sdbus::Variant(true)}),
      &error);
  EXPECT_EQ(list, Value(Value::Array{Value(true)}));
  EXPECT_NE(error.find("'a{is}'"), std::string::npos) << error;
}

}  // namespace
}  // namespace vantor
