// The log gate and the writer.

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log.h"

namespace vantor {
namespace {

std::vector<std::string>& lines() {
  static std::vector<std::string> l;
  return l;
}

void capture(const LogHandle*, int level, const char*, const char* format, ...) {
  va_list args;
  va_start(args, format);
  lines().push_back(std::to_string(level) + ":" + formatLogText(format, args));
  va_end(args);
}

class LogGate : public ::testing::Test {
 protected:
  void SetUp() override {
    lines().clear();
    gMOLogWrite.store(&capture);
  }
  void TearDown() override {
    gMOLogWrite.store(&writeLogLine);
    setLogHandleForTesting(false, 0);
  }
};

TEST_F(LogGate, WithoutAHandleWritesTracingButNotErrors) {
  setLogHandleForTesting(false, 0);
  VANTOR_LOG(5, "%s trace", "t");
  VANTOR_LOG(3, "%s error", "t");
  EXPECT_EQ(lines(), std::vector<std::string>{"5:t trace"});
}

TEST_F(LogGate, AHandleWritesWhatItsThresholdAdmits) {
  setLogHandleForTesting(true, 3);
  VANTOR_LOG(5, "%s trace", "t");
  VANTOR_LOG(3, "%s error", "t");
  setLogHandleForTesting(true, 5);
  VANTOR_LOG(5, "%s trace", "t");
  setLogHandleForTesting(true, 2);
  VANTOR_LOG(3, "%s error", "t");
  EXPECT_EQ(lines(), (std::vector<std::string>{"3:t error", "5:t trace"}));
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
  EXPECT_EQ(lines(), std::vector<std::string>{"5:m obj 100% -3 18446744073709551615 (null)"});
}

}  // namespace
}  // namespace vantor
