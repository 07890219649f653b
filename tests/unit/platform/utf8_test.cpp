#include "platform/values/utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantor {
namespace {

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

}  // namespace
}  // namespace vantor
