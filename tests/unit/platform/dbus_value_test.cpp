#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <sdbus-c++/Types.h>

#include "platform/values/dbus_value.h"
#include "platform/values/value.h"

namespace vantor {
namespace {

struct TypeCase {
  Value value;
  std::string signature;
};

// Each supported type with the signature it must travel as on the bus.
std::vector<TypeCase> typeCases() {
  return {
      {Value(true), "b"},
      {Value(false), "b"},
      {Value(std::numeric_limits<std::int64_t>::min()), "x"},
      {Value(std::numeric_limits<std::uint64_t>::max()), "t"},
      {Value(-0.125), "d"},
      {Value("naïve \"quoted\""), "s"},
      {Value(""), "s"},
      {Value(Value::Data{0x00, 0xff, 0x00}), "ay"},
      {Value(Value::Data{}), "ay"},
      {Value(Date{-1'234'567}), "(x)"},
      {Value(Value::Array{Value(1), Value("a"), Value(Value::Array{})}), "av"},
      {Value(Value::Dictionary{{"k", Value(Value::Dictionary{{"n", Value(2.5)}})}}), "a{sv}"},
  };
}

TEST(DbusValue, EveryTypeRoundTripsWithItsSignature) {
  for (const auto& [value, signature] : typeCases()) {
    SCOPED_TRACE(value.description());
    const auto variant = toVariant(value);
    ASSERT_TRUE(variant.has_value());
    EXPECT_EQ(variant->peekValueType(), signature);
    std::string error;
    EXPECT_EQ(fromVariant(*variant, &error), value);
    EXPECT_TRUE(error.empty()) << error;
  }
}

TEST(DbusValue, DatesAreMicrosecondsInAStruct) {
  const auto variant = toVariant(Value(Date{1'795'341'600'123'456}));
  ASSERT_TRUE(variant.has_value());
  EXPECT_EQ(std::get<0>(variant->get<sdbus::Struct<std::int64_t>>()), 1'795'341'600'123'456);
  EXPECT_EQ(fromVariant(sdbus::Variant(sdbus::Struct<std::int64_t>{42})), Value(Date{42}));
}

TEST(DbusValue, NullsAreDroppedFromContainers) {
  EXPECT_FALSE(toVariant(Value()).has_value());

  const auto map = toVariantMap({{"kept", Value(1)}, {"gone", Value()}});
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(map.count("kept"), 1u);
  EXPECT_EQ(fromVariantMap(map), (Value::Dictionary{{"kept", Value(1)}}));

  const auto array = toVariantArray({Value(), Value("a"), Value(), Value(2)});
  EXPECT_EQ(fromVariantArray(array), (Value::Array{Value("a"), Value(2)}));

  const auto nested = toVariant(Value(Value::Array{Value(Value::Dictionary{{"gone", Value()}})}));
  ASSERT_TRUE(nested.has_value());
  EXPECT_EQ(fromVariant(*nested), Value(Value::Array{Value(Value::Dictionary{})}));
}

TEST(DbusValue, NarrowIntegerTypesReadAsIntegers) {
  const std::vector<std::pair<sdbus::Variant, std::int64_t>> cases = {
      {sdbus::Variant(std::int32_t{-7}), -7},
      {sdbus::Variant(std::uint32_t{4'000'000'000}), 4'000'000'000},
      {sdbus::Variant(std::int16_t{-300}), -300},
      {sdbus::Variant(std::uint16_t{65'535}), 65'535},
      {sdbus::Variant(std::uint8_t{200}), 200},
  };
  for (const auto& [variant, expected] : cases) {
    SCOPED_TRACE(variant.peekValueType());
    std::string error;
    const Value value = fromVariant(variant, &error);
    EXPECT_TRUE(value.type() == Value::Type::kInteger || value.type() == Value::Type::kUnsigned);
    EXPECT_EQ(value.int64Value(), expected);
    EXPECT_TRUE(error.empty()) << error;
  }
}

TEST(DbusValue, UnsupportedSignaturesBecomeNullWithAReason) {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::vector<sdbus::Variant> unsupported = {
      sdbus::Variant(sdbus::UnixFd(fd, sdbus::adopt_fd)),
      sdbus::Variant(sdbus::Struct<std::string, std::string>{"a", "b"}),
  };
  for (const auto& variant : unsupported) {
    SCOPED_TRACE(variant.peekValueType());
    std::string error;
    EXPECT_TRUE(fromVariant(variant, &error).isNull());
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(fromVariant(variant).isNull());  // no error slot: must not crash
  }

  // Inside a dictionary the bad entry is left out and the rest survives.
  std::string error;
  const auto dict =
      fromVariantMap({{"good", sdbus::Variant(std::int64_t{1})},
                      {"bad", sdbus::Variant(sdbus::Struct<std::string, std::string>{"a", "b"})}},
                     &error);
  EXPECT_EQ(dict, (Value::Dictionary{{"good", Value(1)}}));
  EXPECT_FALSE(error.empty());
}

TEST(DbusValue, OptionalTravelsAsZeroOrOneElement) {
  EXPECT_TRUE(toOptionalVariant(Value()).empty());
  const auto one = toOptionalVariant(Value("x"));
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].peekValueType(), "s");

  std::string error;
  EXPECT_TRUE(fromOptionalVariant({}, &error).isNull());
  EXPECT_TRUE(error.empty()) << error;
  EXPECT_EQ(fromOptionalVariant(one, &error), Value("x"));
  EXPECT_TRUE(error.empty()) << error;

  const VariantArray two = {sdbus::Variant(std::string("x")), sdbus::Variant(std::string("y"))};
  EXPECT_TRUE(fromOptionalVariant(two, &error).isNull());
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace vantor
