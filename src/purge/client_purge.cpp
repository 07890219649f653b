// Client purge and cancellation.

#include "daemon/vantor.h"
#include "platform/dispatch/global_pool.h"
#include "support/client_connection.h"
#include "support/entitlements.h"
#include "support/log.h"
#include "support/service_call.h"

namespace vantor {

void Vantor::clientPurge(const Value& info, DictionaryReply reply) {
  Value answer;
  if (connectionIsEntitled(currentConnection(), {kPurgeEntitlement})) {
    // Holds this thread for the whole purge, up to the driver's limit.
    answer = purge(info, nullptr);
  } else {
    VANTOR_LOG(3, "%s Connection is not entitled!", "-[Vantor clientPurge:replyBlock:]");
  }
  dispatch::globalAsync([reply = std::move(reply), answer = std::move(answer)] { reply(answer); });
}

void Vantor::clientCancelPurge(EmptyReply reply) {
  // Raised whether or not a purge runs: a cancel given while idle makes the
  // next purge ask nobody, and that purge clears it.
  cancel.store(true);
  auto self = shared_from_this();
  collection_queue->async([self, reply = std::move(reply)] {
    for (const auto& identifier : self->purgeInFlight) {
      // One task per service, so one slow connection holds up no other.
      dispatch::globalAsync([self, identifier] {
        auto table = self->publishedServices();
        auto it = table->find(identifier);
        CallServiceAsync(
            it != table->end() ? it->second : nullptr,
            [](std::shared_ptr<VantorServiceProxy> proxy, std::function<void()> finish) {
              proxy->serviceCancelPurge([finish] { finish(); });
            },
            [] {
              VANTOR_LOG(5, "%s connection invalidated",
                         "-[Vantor clientCancelPurge:]_block_invoke_3");
            });
      });
    }
    if (reply)
      reply();
  });
}

}  // namespace vantor
