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

TEST(ValueNumbers, NarrowingReadingsClampInsteadOfWrapping) {
  EXPECT_EQ(Value(kUint64Max).int64Value(), kInt64Max);
  EXPECT_EQ(Value(std::uint64_t{1} << 63).int64Value(), kInt64Max);
  EXPECT_EQ(Value(kUint64Max).uint64Value(), kUint64Max);

  EXPECT_EQ(Value(std::int64_t{1} << 40).int32Value(), kInt32Max);
  EXPECT_EQ(Value(-(std::int64_t{1} << 40)).int32Value(), kInt32Min);
  EXPECT_EQ(Value(std::uint64_t{1} << 40).int32Value(), kInt32Max);

  EXPECT_EQ(Value(-5).uint64Value(), 0u);
  EXPECT_EQ(Value(kInt64Min).uint64Value(), 0u);
}

TEST(ValueNumbers, RealsTruncateTowardZeroAndClamp) {
  EXPECT_EQ(Value(2.9).int64Value(), 2);
  EXPECT_EQ(Value(-2.9).int64Value(), -2);
  EXPECT_EQ(Value(-2.9).int32Value(), -2);
  EXPECT_EQ(Value(-0.5).uint64Value(), 0u);

  EXPECT_EQ(Value(1e300).int64Value(), kInt64Max);
  EXPECT_EQ(Value(-1e300).int64Value(), kInt64Min);
  EXPECT_EQ(Value(1e300).uint64Value(), kUint64Max);
  EXPECT_EQ(Value(-1e300).uint64Value(), 0u);
  EXPECT_EQ(Value(1e10).int32Value(), kInt32Max);
  EXPECT_EQ(Value(-1e10).int32Value(), kInt32Min);
  // 2^63 is just past the signed range; a bare cast would be undefined.
  EXPECT_EQ(Value(9223372036854775808.0).int64Value(), kInt64Max);
}

TEST(ValueNumbers, StringsBooleansAndOtherTypes) {
  EXPECT_EQ(Value("12abc").int64Value(), 12);
  EXPECT_EQ(Value("-7").int32Value(), -7);
  EXPECT_EQ(Value("x").int64Value(), 0);
  EXPECT_EQ(Value("").int64Value(), 0);
  EXPECT_DOUBLE_EQ(Value("2.5kg").doubleValue(), 2.5);

  EXPECT_EQ(Value(true).int64Value(), 1);
  EXPECT_EQ(Value(false).int32Value(), 0);
  EXPECT_TRUE(Value(true).isNumber());
  EXPECT_TRUE(Value(3).boolValue());
  EXPECT_FALSE(Value(0).boolValue());

  EXPECT_FALSE(Value("5").isNumber());
  EXPECT_EQ(Value().int64Value(), 0);
  EXPECT_EQ(Value(Value::Array{Value(4)}).int64Value(), 0);
  EXPECT_EQ(Value(kNovember22).int64Value(), 0);
  EXPECT_FALSE(Value().boolValue());
}

TEST(ValueDescription, ScalarsAndContainers) {
  EXPECT_EQ(Value(Value::Dictionary{{"VANTOR_VOLUME", Value("/")}, {"VANTOR_AMOUNT", Value(5)}})
                .description(),
            R"({"VANTOR_AMOUNT" = 5; "VANTOR_VOLUME" = "/";})");
  EXPECT_EQ(Value(Value::Array{Value(1), Value(2)}).description(), "(1, 2)");
  EXPECT_EQ(Value(Value::Dictionary{}).description(), "{}");
  EXPECT_EQ(Value(Value::Array{}).description(), "()");
  EXPECT_EQ(Value(Value::Data{0x0a, 0x1b}).description(), "<0a1b>");
  EXPECT_EQ(Value(kNovember22).description(), "2026-11-22 10:00:00 +0000");
  EXPECT_EQ(Value(true).description(), "true");
  EXPECT_EQ(Value(false).description(), "false");
  EXPECT_EQ(Value().description(), "(null)");
  EXPECT_EQ(Value(1.5).description(), "1.5");
  EXPECT_EQ(Value(-3).description(), "-3");
  EXPECT_EQ(Value(kUint64Max).description(), "18446744073709551615");
  EXPECT_EQ(Value(R"(say "hi")").description(), R"("say \"hi\"")");
  const Value nested(Value::Array{Value(Value::Dictionary{{"k", Value(Value::Array{})}})});
  EXPECT_EQ(nested.description(), R"(({"k" = ();}))");
}

}  // namespace
}  // namespace vantor
