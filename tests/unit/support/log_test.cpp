// The log gate and the writer.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/log_capture.h"
#include "support/log.h"

namespace vantor::test {
namespace {

// Without a handle only tracing is written; a handle writes what its
// threshold admits, and only then are the arguments evaluated. Strings,
// percent signs and numbers format as written.
TEST(LogGate, WritesWhatTheHandleAdmitsEvaluatesOnlyThoseArgumentsAndFormatsThem) {
  LogCapture capture;
  int evaluations = 0;
  auto costly = [&] {
    ++evaluations;
    return "t";
  };
  setLogHandleForTesting(false, 0);
  VANTOR_LOG(5, "%s trace", costly());
  VANTOR_LOG(3, "%s error", costly());
  setLogHandleForTesting(true, 3);
  VANTOR_LOG(5, "%s trace", costly());
  VANTOR_LOG(3, "%s error", costly());
  setLogHandleForTesting(true, 5);
  VANTOR_LOG(5, "%s trace", costly());
  setLogHandleForTesting(true, 2);
  VANTOR_LOG(3, "%s error", costly());
  setLogHandleForTesting(false, 0);
  VANTOR_LOG(5, "%s %s 100%% %d %llu", "m", "obj", -3, 18446744073709551615ULL);
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{"<5>t trace", "<3>t error", "<5>t trace",
                                                       "<5>m obj 100% -3 18446744073709551615"}));
  EXPECT_EQ(evaluations, 3);
}

}  // namespace
}  // namespace vantor::test
