// The service kit in process, on a private bus without the daemon: how its
// bus thread and a service's own threads share the replies.

#include <stdlib.h>

#include <atomic>
#include <future>
#include <mutex>

#include "common/test_context.h"
#include "platform/values/dbus_value.h"
#include "vantor_service_kit.h"

namespace vantor::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A kit service that queues purges under a lock of its own, as one with a
// worker thread does; the test plays the worker.
class QueueingService final : public kit::Service {
 public:
  void purge(std::int32_t, const Value&, DictionaryReply reply) override {
    entered.fetch_add(1);  // from here on the bus thread holds the bus lock
    std::lock_guard lock(mutex);
    queued.push_back(std::move(reply));
  }
  std::atomic<int> entered{0};
  std::mutex mutex;
  std::vector<DictionaryReply> queued;
};

TEST(AKitService, MayDropAnAnsweredReplyWhileItsBusThreadWaitsForTheServicesLock) {
  TestContext ctx;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ctx.busAddress().c_str(), 1);
  auto service = std::make_shared<QueueingService>();
  kit::ServiceHost host(service);
  auto client = ctx.connect();
  auto proxy = sdbus::createProxy(*client, host.uniqueName(), "/com/tessaly/vantor/Service");
  auto purge = [&proxy](std::promise<std::uint64_t>& freed) {
    proxy->callMethodAsync("ServicePurge")
        .onInterface("com.tessaly.vantor.Service")
        .withArguments(std::int32_t{4}, VariantMap{})
        .uponReplyInvoke([&freed](const sdbus::Error* error, VariantMap reply) {
          freed.set_value(error ? 0 : reply.at("VANTOR_AMOUNT").get<std::uint64_t>());
        });
  };
  auto takeQueued = [&service] {
    std::lock_guard lock(service->mutex);
    auto reply = std::move(service->queued.at(0));
    service->queued.clear();
    return reply;
  };
  const auto answer = [](std::uint64_t bytes) {
    return Value(Value::Dictionary{{"VANTOR_AMOUNT", Value(bytes)}});
  };

  std::promise<std::uint64_t> first;
  purge(first);
  ASSERT_TRUE(waitUntil([&] { return service->entered == 1; }, milliseconds(10'000)));
  kit::Service::DictionaryReply reply = takeQueued();
  reply(answer(1));
  EXPECT_EQ(first.get_future().get(), 1u);

  // The next purge arrives while the worker holds the lock, and the worker
  // lets go of the answered reply: that must not wait for the bus thread.
  std::promise<std::uint64_t> second;
  std::future<void> dropped;  // outlives the lock: it may be waiting for it
  {
    std::unique_lock held(service->mutex);
    purge(second);
    ASSERT_TRUE(waitUntil([&] { return service->entered == 2; }, milliseconds(10'000)));
    dropped = std::async(std::launch::async, [&reply] { reply = nullptr; });
    EXPECT_EQ(dropped.wait_for(seconds(10)), std::future_status::ready);
  }
  dropped.get();
  ASSERT_TRUE(waitUntil(
      [&] {
        std::lock_guard lock(service->mutex);
        return !service->queued.empty();
      },
      milliseconds(10'000)));
  takeQueued()(answer(2));
  EXPECT_EQ(second.get_future().get(), 2u);
}

}  // namespace
}  // namespace vantor::test
