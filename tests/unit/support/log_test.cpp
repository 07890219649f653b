// The log gate and the writer.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

class LogGate : public ::testing::Test {
 protected:
  void TearDown() override { setLogHandleForTesting(false, 0); }
  LogCapture capture_;
};

// Without a handle only tracing is written; a handle writes what its
// threshold admits.
TEST_F(LogGate, WritesWhatTheHandleAdmits) {
  setLogHandleForTesting(false, 0);
  VANTOR_LOG(5, "%s trace", "t");
  VANTOR_LOG(3, "%s error", "t");
  EXPECT_EQ(capture_.lines(), std::vector<std::string>{"<5>t trace"});
  capture_.clear();
  setLogHandleForTesting(true, 3);
  VANTOR_LOG(5, "%s trace", "t");
  VANTOR_LOG(3, "%s error", "t");
  setLogHandleForTesting(true, 5);
  VANTOR_LOG(5, "%s trace", "t");
  setLogHandleForTesting(true, 2);
  VANTOR_LOG(3, "%s error", "t");
  EXPECT_EQ(capture_.lines(), (std::vector<std::string>{"<3>t error", "<5>t trace"}));
}

TEST_F(LogGate, EvaluatesArgumentsOnlyForLinesItWrites) {
  int evaluations = 0;
  auto costly = [&] {
    ++evaluations;
    return "x";
  };
  setLogHandleForTesting(true, 3);
  VANTOR_LOG(5, "%s %@", "t", costly());
  EXPECT_EQ(evaluations, 0);
  VANTOR_LOG(3, "%s %@", "t", costly());
  EXPECT_EQ(evaluations, 1);
}

TEST_F(LogGate, FormatsObjectsPercentSignsAndNumbers) {
  VANTOR_LOG(5, "%s %@ 100%% %d %llu %@", "m", "obj", -3, 18446744073709551615ULL,
             static_cast<const char*>(nullptr));
  EXPECT_EQ(capture_.lines(),
            std::vector<std::string>{"<5>m obj 100% -3 18446744073709551615 (null)"});
}

}  // namespace
}  // namespace vantor::test
