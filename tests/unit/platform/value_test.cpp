#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

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

}  // namespace
}  // namespace vantor
