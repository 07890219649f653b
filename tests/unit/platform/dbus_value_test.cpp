// Conversions the daemon's round trips (persistent_state_test) do not reach:
// signatures it cannot read, inside a container that must survive them.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sdbus-c++/Types.h>

#include "platform/values/dbus_value.h"
#include "platform/values/value.h"

namespace vantor {
namespace {

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
