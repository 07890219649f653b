// The client-state workers, in process.

#include <gtest/gtest.h>

#include "daemon/vantor.h"
#include "support/log.h"
#include "support/test_context.h"

namespace vantor::test {
namespace {

class ClientStateWorkers : public CoordinatorTest {
 protected:
  Value get(const Value& key) {
    return vantor_->defaults_queue->syncResult([&] { return vantor_->clientGetStateSync(key); });
  }
  void set(const Value& value, const Value& key) {
    vantor_->defaults_queue->sync([&] { vantor_->clientSetStateSync(value, key); });
  }
};

TEST_F(ClientStateWorkers, ANonStringKeyAnswersNullWithALogLine) {
  setLogHandleForTesting(true, 3);
  LogCapture capture;
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

TEST_F(ClientStateWorkers, WritesThroughToTheStoreFile) {
  set(Value("v"), Value("K"));
  auto reopened = SettingsStore::open(dir_.path() / "state/com.tessaly.vantor.plist");
  ASSERT_TRUE(reopened);
  auto stored = reopened->objectForKey("VANTOR_USER_DEFAULTS");
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, Value(Value::Dictionary{{"K", Value("v")}}));
}

TEST_F(ClientStateWorkers, RunOnlyOnTheDefaultsQueue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(vantor_->clientGetStateSync(Value("K")), "_clientGetState");
}

}  // namespace
}  // namespace vantor::test
