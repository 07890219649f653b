// Urgency readings, and request info that cannot come over the bus. (The
// refusals a client can provoke are asserted by purgeable_query_test.)

#include <gtest/gtest.h>

#include "daemon/vantor.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

using CheckInfo = CoordinatorTest;

TEST_F(CheckInfo, RefusesWhatIsNotADictionary) {
  for (const Value& info : {Value(Value::Array{Value("/")}), Value()}) {
    EXPECT_EQ(
        vantor_->_checkInfo(info),
        Value(Value::Dictionary{{"VANTOR_ERROR", Value("Parameter error, info is not a dict")}}));
  }
}

TEST_F(CheckInfo, ReadsUrgenciesOneToFourAndEverythingElseAsZero) {
  const std::vector<std::pair<Value, std::int32_t>> cases = {
      {Value(4), 4},  {Value(1), 1},   {Value(5), 0},   {Value(0), 0},
      {Value(-1), 0}, {Value("2"), 2}, {Value(3.7), 3}, {Value(std::uint64_t{1} << 32 | 2), 0},
  };
  for (const auto& [value, urgency] : cases) {
    EXPECT_EQ(vantor_->urgencyFromInfo(Value(Value::Dictionary{{"VANTOR_URGENCY", value}}),
                                       "VANTOR_URGENCY"),
              urgency)
        << value.description();
  }
  EXPECT_EQ(vantor_->urgencyFromInfo(Value(Value::Dictionary{}), "VANTOR_URGENCY"), 0);
  EXPECT_EQ(vantor_->urgencyFromInfo(Value(Value::Dictionary{{"VANTOR_URGENCY_LIMIT", Value(2)}}),
                                     "VANTOR_URGENCY_LIMIT"),
            2);
}

}  // namespace
}  // namespace vantor::test
