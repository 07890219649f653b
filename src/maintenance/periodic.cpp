// Periodic maintenance: ask every periodic service to do its housekeeping on
// one volume. Fire and forget: replies are only logged.

#include "daemon/vantor.h"
#include "platform/dispatch/global_pool.h"
#include "support/log.h"
#include "support/service_call.h"

namespace vantor {

namespace {

constexpr char kPerform[] = "-[Vantor performPeriodicsWithInfo:]";
constexpr std::int32_t kPeriodicUrgency = 3;

}  // namespace

void Vantor::performPeriodicsWithInfo(const Value& info) {
  auto self = shared_from_this();
  operation_queue->sync([&] {
    for (const auto& [identifier, service] : services) {
      if (!service->doesPeriodic())
        continue;
      // A request still outstanding is not sent again.
      if (!updateInFlight(identifier, periodicInFlight, InFlightChange::kAdd))
        continue;
      VANTOR_LOG(5, "%s CallService with serviceID: %s", kPerform, identifier.c_str());
      CallService(
          service,
          [self, identifier = identifier, info](std::shared_ptr<VantorServiceProxy> proxy,
                                                std::function<void()> finish) {
            dispatch::globalAsync([self, identifier, info, proxy, finish] {
              VANTOR_LOG(5, "%s calling proxy for %s",
                         "-[Vantor performPeriodicsWithInfo:]_block_invoke", identifier.c_str());
              proxy->servicePeriodic(
                  kPeriodicUrgency, info, [self, identifier, finish](Value purged) {
                    VANTOR_LOG(5, "%s proxy %s replied, purged: %s",
                               "-[Vantor performPeriodicsWithInfo:]_block_invoke_2",
                               identifier.c_str(), purged.description().c_str());
                    finish();
                    self->updateInFlight(identifier, self->periodicInFlight,
                                         InFlightChange::kRemove);
                  });
            });
          },
          // Leaves the service marked in periodicInFlight on purpose: one whose
          // connection was lost before it replied is not asked again until
          // the daemon restarts.
          [] {
            VANTOR_LOG(5, "%s connection invalidated",
                       "-[Vantor performPeriodicsWithInfo:]_block_invoke_3");
          });
    }
  });
}

}  // namespace vantor
