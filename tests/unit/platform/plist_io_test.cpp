#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/plist_io.h"
#include "platform/values/value.h"

namespace vantor {
namespace {

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

  const std::string xml = std::string(R"(<?xml version="1.0"?><plist version="1.0"><array>)") +
                          "<string>c\xE6\x97</string><string>x" + std::string(1, '\0') +
                          "y</string></array></plist>";
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

}  // namespace
}  // namespace vantor
