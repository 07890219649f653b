// The client-state workers, in process.

#include <variant>

#include <gtest/gtest.h>

#include "daemon/vantor.h"
#include "support/log.h"
#include "support/recent_info.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

class ClientStateWorkers : public CoordinatorTest {
 protected:
  Vantor::StateObject getObject(const Value& key) {
    return vantor_->defaults_queue->syncResult([&] { return vantor_->clientGetStateSync(key); });
  }
  Value get(const Value& key) { return std::get<Value>(getObject(key)); }
  void set(const Vantor::StateObject& value, const Value& key) {
    vantor_->defaults_queue->sync([&] { vantor_->clientSetStateSync(value, key); });
  }
};

TEST_F(ClientStateWorkers, TheSyncFormsArchiveARecordAndUnarchiveEveryDataValue) {
  auto service = VantorRecentServiceInfo::vantorRecentServiceInfo(Value(7), Date{1});
  auto record = VantorRecentInfo::vantorRecentInfo(
      {{"/", VantorRecentVolumeInfo::vantorRecentVolumeInfo({{"com.example.a", service}}, 9,
                                                            Date{2}, "/")}});
  set(record, Value("RECORD"));
  auto back = getObject(Value("RECORD"));
  ASSERT_TRUE(std::holds_alternative<std::shared_ptr<VantorRecentInfo>>(back));
  EXPECT_EQ(archiveRecentInfo(*std::get<std::shared_ptr<VantorRecentInfo>>(back)),
            archiveRecentInfo(*record));
  // A client reading the same key gets the archive itself.
  Value archived;
  vantor_->defaults_queue->sync(
      [&] { vantor_->_clientGetState(Value("RECORD"), [&](const Value& v) { archived = v; }); });
  EXPECT_EQ(archived, Value(archiveRecentInfo(*record)));

  // Data that is no archive goes through unarchiving too, and fails.
  set(Value(Value::Data{1, 2, 3}), Value("BYTES"));
  EXPECT_TRUE(get(Value("BYTES")).isNull());
}

// The set worker takes any key without a log line; the get worker answers a
// key that is not a string with null and a log line.
TEST_F(ClientStateWorkers, KeysThatAreNotStrings) {
  setLogHandleForTesting(true, 5);
  LogCapture capture;
  set(Value(1), Value(7));
  set(Value(2), Value("K"));
  EXPECT_EQ(get(Value("K")), Value(2));
  for (const auto& line : capture.lines())
    EXPECT_EQ(line.find("_clientSetState"), std::string::npos) << line;
  setLogHandleForTesting(true, 3);
  EXPECT_TRUE(get(Value(7)).isNull());
  EXPECT_TRUE(
      capture.contains("<3>-[Vantor _clientGetState:replyBlock:] key is not an NSString: 7"));
}

TEST_F(ClientStateWorkers, AStoredEntryThatIsNotADictionaryAnswersNullForEveryKey) {
  vantor_->defaults_queue->sync(
      [&] { vantor_->userDefaults->setObject("VANTOR_USER_DEFAULTS", Value("corrupted")); });
  setLogHandleForTesting(true, 3);
  LogCapture capture;
  EXPECT_TRUE(get(Value("VANTOR_CACHE_ENABLED")).isNull());
  EXPECT_TRUE(get(Value("VANTOR_USER_DEFAULTS")).isNull());
  EXPECT_TRUE(capture.contains("persistent_state is not a dictionary: \"corrupted\""));
  // A set starts the state afresh.
  set(Value(1), Value("K"));
  EXPECT_EQ(get(Value("K")), Value(1));
}

TEST_F(ClientStateWorkers, RunOnlyOnTheDefaultsQueue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(vantor_->clientGetStateSync(Value("K")), "_clientGetState");
}

}  // namespace
}  // namespace vantor::test
