// Request validation and urgency readings.

#include <gtest/gtest.h>

#include "daemon/vantor.h"
#include "support/log.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

class CheckInfo : public CoordinatorTest {
 protected:
  std::string errorOf(const Value& info) {
    auto error = vantor_->_checkInfo(info);
    if (!error)
      return "";
    const Value* message = error->find("VANTOR_ERROR");
    EXPECT_EQ(error->asDictionary()->size(), 1u);
    return message != nullptr && message->isString() ? *message->asString() : "<no message>";
  }
};

TEST_F(CheckInfo, RefusesWhatIsNotADictionary) {
  EXPECT_EQ(errorOf(Value(Value::Array{Value("/")})), "Parameter error, info is not a dict");
  EXPECT_EQ(errorOf(Value()), "Parameter error, info is not a dict");
}

TEST_F(CheckInfo, RefusesAMissingOrNonStringVolume) {
  EXPECT_EQ(errorOf(Value(Value::Dictionary{})), "Parameter error, no Volume key in info dict");
  EXPECT_EQ(errorOf(Value(Value::Dictionary{{"VANTOR_VOLUME", Value(5)}})),
            "Parameter error, no Volume key in info dict");
}

TEST_F(CheckInfo, RefusesAVolumeThatIsNotLocal) {
  EXPECT_EQ(errorOf(Value(Value::Dictionary{{"VANTOR_VOLUME", Value("/proc")}})),
            "Parameter error, Unable to validate volume in info dict");
  EXPECT_EQ(errorOf(Value(Value::Dictionary{{"VANTOR_VOLUME", Value("/no/such/volume")}})),
            "Parameter error, Unable to validate volume in info dict");
}

TEST_F(CheckInfo, AcceptsTheRootVolumeWithNothingElse) {
  EXPECT_EQ(errorOf(Value(Value::Dictionary{{"VANTOR_VOLUME", Value("/")}})), "");
}

TEST_F(CheckInfo, LogsRefusalsOnlyWhenALogHandleExists) {
  const Value bad(Value::Array{});
  {
    setLogHandleForTesting(false, 0);
    LogCapture capture;
    vantor_->_checkInfo(bad);
    EXPECT_FALSE(capture.contains("info is not a dictionary!"));
  }
  {
    setLogHandleForTesting(true, 3);
    LogCapture capture;
    vantor_->_checkInfo(Value(Value::Dictionary{{"VANTOR_VOLUME", Value("/nowhere")}}));
    EXPECT_TRUE(capture.contains("<3>-[Vantor _checkInfo:] Unable to validate volume: /nowhere"));
  }
}

TEST_F(CheckInfo, ReadsUrgenciesOneToFourAndEverythingElseAsZero) {
  auto urgency = [&](Value v) {
    return vantor_->urgencyFromInfo(Value(Value::Dictionary{{"VANTOR_URGENCY", std::move(v)}}),
                                    "VANTOR_URGENCY");
  };
  EXPECT_EQ(urgency(Value(4)), 4);
  EXPECT_EQ(urgency(Value(1)), 1);
  EXPECT_EQ(urgency(Value(5)), 0);
  EXPECT_EQ(urgency(Value(0)), 0);
  EXPECT_EQ(urgency(Value(-1)), 0);
  EXPECT_EQ(urgency(Value("2")), 2);
  EXPECT_EQ(urgency(Value(3.7)), 3);
  EXPECT_EQ(urgency(Value(std::uint64_t{1} << 32 | 2)), 0);
  EXPECT_EQ(vantor_->urgencyFromInfo(Value(Value::Dictionary{}), "VANTOR_URGENCY"), 0);
  EXPECT_EQ(vantor_->urgencyFromInfo(Value(Value::Dictionary{{"VANTOR_URGENCY_LIMIT", Value(2)}}),
                                     "VANTOR_URGENCY_LIMIT"),
            2);
}

}  // namespace
}  // namespace vantor::test
