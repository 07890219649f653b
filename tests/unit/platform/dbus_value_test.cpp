// Conversions the daemon's round trips (persistent_state_test) do not reach:
// nulls, signatures it cannot read, the optional form.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <sdbus-c++/Types.h>

#include "platform/values/dbus_value.h"
#include "platform/values/value.h"

namespace vantor {
namespace {

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

TEST(DbusValue, UnsupportedSignaturesBecomeNullWithAReason) {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::vector<sdbus::Variant> unsupported = {
      sdbus::Variant(sdbus::UnixFd(fd, sdbus::adopt_fd)),
      sdbus::Variant(sdbus::Struct<std::string, std::string>{"a", "b"}),
      sdbus::Variant(std::map<std::int32_t, std::string>{{1, "one"}}),
  };
  for (const auto& variant : unsupported) {
    SCOPED_TRACE(variant.peekValueType());
    std::string error;
    EXPECT_TRUE(fromVariant(variant, &error).isNull());
    EXPECT_NE(error.find("'" + variant.peekValueType() + "'"), std::string::npos) << error;
    EXPECT_TRUE(fromVariant(variant).isNull());  // no error slot: must not crash
  }

  // Inside a container the bad entry is read past and left out; the rest
  // survives.
  std::string error;
  const auto list = fromVariant(
      sdbus::Variant(std::vector<sdbus::Variant>{
          sdbus::Variant(std::map<std::int32_t, std::string>{{1, "one"}}),
          sdbus::Variant(sdbus::Struct<std::string, std::int32_t>{"a", 1}), sdbus::Variant(true)}),
      &error);
  EXPECT_EQ(list, Value(Value::Array{Value(true)}));
  EXPECT_NE(error.find("'a{is}'"), std::string::npos) << error;
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
