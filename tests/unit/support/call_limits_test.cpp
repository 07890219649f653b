// Client calls in progress are capped per sender and in total; a refusal says
// which cap, is logged once per episode, and a sender's departure frees its
// places at once without counting them twice.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/log_capture.h"
#include "support/call_limits.h"
#include "support/log.h"

namespace vantor {
namespace {

TEST(CallLimits, AdmitUpToEachCapRefuseBeyondAndFreePlacesOnAnswerOrDeparture) {
  enum Op { kAdmit, kAnswer, kLeave };
  // `refusal` is null when the call is admitted, else a part of the reason.
  struct Step {
    Op op;
    const char* sender;
    const char* refusal;
    std::size_t callsAfter, logLinesAfter;
  };
  const Step steps[] = {
      {kAdmit, "a", nullptr, 1, 0},
      {kAdmit, "a", nullptr, 2, 0},
      {kAdmit, "a", "operation calls in progress from this sender (limit 2)", 2, 1},
      {kAdmit, "a", "from this sender", 2, 1},  // the same episode: not logged again
      {kAdmit, "b", nullptr, 3, 1},
      {kAdmit, "c", "in total (limit 3)", 3, 2},
      {kAdmit, "c", "in total", 3, 2},
      {kAnswer, "a", nullptr, 2, 2},
      {kAdmit, "c", nullptr, 3, 2},
      {kLeave, "b", nullptr, 2, 2},
      {kAnswer, "b", nullptr, 2, 2},  // answered after leaving: not released twice
      {kAdmit, "c", nullptr, 3, 2},
      {kAdmit, "c", "from this sender", 3, 3},
  };
  test::LogCapture capture;
  setLogHandleForTesting(true, 3);
  auto limits = std::make_shared<CallLimits>("operation", CallCaps{3, 2});
  std::map<std::string, std::vector<std::unique_ptr<CallLimits::Admission>>> held;
  for (const Step& step : steps) {
    SCOPED_TRACE("step " + std::to_string(&step - steps));
    auto& mine = held[step.sender];
    std::string reason;
    if (step.op == kAdmit) {
      auto admission = limits->admit(step.sender, &reason);
      EXPECT_EQ(admission == nullptr, step.refusal != nullptr);
      EXPECT_NE(reason.find(step.refusal ? step.refusal : ""), std::string::npos) << reason;
      if (admission)
        mine.push_back(std::move(admission));
    } else if (step.op == kAnswer) {
      mine.erase(mine.begin());  // destroying an admission answers its call
    } else {
      limits->senderLeft(step.sender);
      for (const auto& admission : mine)
        EXPECT_TRUE(admission->gone()->load());
    }
    EXPECT_EQ(limits->inProgress().first, step.callsAfter);
    EXPECT_EQ(capture.lines().size(), step.logLinesAfter);
  }
}

}  // namespace
}  // namespace vantor
