// Per-service purge requests: each purging service is asked for its share of
// the bytes still missing (its donation), and its reply is accounted.

#include <cmath>
#include <limits>

#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "purge/donation.h"
#include "support/log.h"
#include "support/service_call.h"
#include "support/stats.h"
#include "support/volumes.h"

namespace vantor {

namespace {

constexpr char kRequest[] = "-[Vantor queueServiceRequest:info:callback:]_block_invoke";
constexpr char kSend[] = "-[Vantor queueServiceRequest:info:callback:]_block_invoke_2";
constexpr char kReply[] = "-[Vantor queueServiceRequest:info:callback:]_block_invoke_3";
constexpr char kInvalidated[] = "-[Vantor queueServiceRequest:info:callback:]_block_invoke_4";
constexpr char kReport[] = "-[Vantor reportPercentageForAmountRequested:amountPurged:identifier:]";
constexpr char kDomain[] = "com.tessaly.vantor";

}  // namespace

void Vantor::queueServiceRequest(const std::shared_ptr<VTService>& service,
                                 const std::shared_ptr<WorkingInfo>& info,
                                 const PurgeCallback& callback) {
  auto self = shared_from_this();
  purge_post_queue->async(
      [self, service, info, callback] { self->sendServiceRequest(service, info, callback); });
}

std::uint64_t purgeDonation(std::uint64_t needed, std::uint64_t purged, std::int32_t viable) {
  const std::uint64_t divisor = viable > 0 ? static_cast<std::uint64_t>(viable) : 1;
  return (needed - purged) / divisor;
}

void Vantor::sendServiceRequest(const std::shared_ptr<VTService>& service,
                                const std::shared_ptr<WorkingInfo>& info,
                                const PurgeCallback& callback) {
  const std::uint64_t needed = purge_amount_needed.load();
  Value request = info->snapshot();
  const std::uint64_t purged = amountPurged(request);
  if (purged >= needed || cancel.load())
    return;

  const std::int32_t viable = viable_purging_services.load();
  const std::uint64_t donation = purgeDonation(needed, purged, viable);
  VANTOR_LOG(5,
             "%s donation (%lld) = (amount needed[%llu] - amount_purged[%llu]) / "
             "viable_purging_services[%llu])",
             kRequest, static_cast<long long>(donation), static_cast<unsigned long long>(needed),
             static_cast<unsigned long long>(purged),
             static_cast<unsigned long long>(viable > 0 ? viable : 1));
  request.get<Value::Dictionary>().insert_or_assign("VANTOR_AMOUNT", Value(donation));

  const std::string identifier = service->ID();
  if (!updateInFlight(identifier, purgeInFlight, InFlightChange::kAdd))
    return;

  // Raised before the request can be sent, so no reply can lower the count
  // before it counts that request. A request whose reply never comes leaves
  // it raised.
  purge_active_service_count.fetch_add(1);

  auto self = shared_from_this();
  // A checked-in service is reached without waiting on the bus daemon, so its
  // request is sent from this queue at once: a level's requests then go out
  // one after another without a hand-off each. A descriptor service may have
  // to be looked up or started first, which must not hold up the others.
  const auto call = service->xpcConn() ? &CallService : &CallServiceAsync;
  call(
      service,
      [self, service, identifier, info, request, callback, donation](
          std::shared_ptr<VantorServiceProxy> proxy, std::function<void()> finish) {
        VANTOR_LOG(5, "%s requesting %lld bytes from %s at urgency %d", kSend,
                   static_cast<long long>(donation), identifier.c_str(),
                   self->currentUrgency.load());
        const std::uint64_t start = clock::monotonicTicks();
        const std::int32_t urgency = self->currentUrgency.load();
        proxy->servicePurge(urgency, request,
                            [self, service, identifier, info, callback, donation, start, urgency,
                             finish](Value reply) {
                              self->accountServiceReply(service, identifier, info, callback,
                                                        donation, start, urgency, reply, finish);
                            });
      },
      [self, identifier] {
        VANTOR_LOG(5, "%s connection invalidated", kInvalidated);
        self->updateInFlight(identifier, self->purgeInFlight, InFlightChange::kRemove);
      });
}

void Vantor::accountServiceReply(const std::shared_ptr<VTService>& service,
                                 const std::string& identifier,
                                 const std::shared_ptr<WorkingInfo>& info,
                                 const PurgeCallback& callback, std::uint64_t donation,
                                 std::uint64_t start, std::int32_t urgency, const Value& reply,
                                 const std::function<void()>& finish) {
  const std::uint64_t end = clock::monotonicTicks();
  const std::string statistic = identifier + "_purgeElapsedNanoseconds";
  Value replyCopy = reply.isDictionary() ? reply : Value(Value::Dictionary{});
  const Value amount =
      replyCopy.find("VANTOR_AMOUNT") != nullptr ? *replyCopy.find("VANTOR_AMOUNT") : Value();

  // Reply threads run side by side: every change to the shared counters is
  // one atomic read-modify-write, so none is lost.
  const std::int32_t active = purge_active_service_count.fetch_sub(1) - 1;
  if (info->get("VANTOR_ASYNC").boolValue() && active == 0)
    replyCopy.get<Value::Dictionary>().insert_or_assign("VANTOR_ASYNC_COMPLETE", Value(true));

  std::uint64_t bytes = 0;
  if (amount.isNumber()) {
    bytes = amount.uint64Value();
  } else {
    VANTOR_LOG(3, "%s %d num is not a number: %s", kReply, 686, amount.description().c_str());
  }
  purge_amount_reported.fetch_add(bytes);
  // Noted before the semaphore can end the purge, so its entry has every reply.
  purgeHistory.noteService(
      info.get(), identifier, donation, bytes,
      static_cast<std::uint64_t>(static_cast<double>(end - start) * gTimebaseConversion));

  if (bytes >= donation) {
    // The service met its share: ask it again once the purge's body has
    // left operation_queue, with a share computed from the state then.
    auto self = shared_from_this();
    operation_queue->async(
        [self, service, info, callback] { self->queueServiceRequest(service, info, callback); });
  } else if (urgency == currentUrgency.load()) {
    viable_purging_services.fetch_sub(1);
  }

  if (callback) {
    VANTOR_LOG(5, "%s %s calling callback with: %s", kReply, identifier.c_str(),
               replyCopy.description().c_str());
    callback(replyCopy);
  }
  reportPercentageForAmountRequested(static_cast<std::int64_t>(donation),
                                     static_cast<std::int64_t>(bytes), identifier);
  finish();
  updateInFlight(identifier, purgeableInFlight, InFlightChange::kRemove);

  if (active == 0) {
    if (auto semaphore = purge_semaphore()) {
      VANTOR_LOG(5, "%s All services accounted for, signalling the semaphore.", kReply);
      semaphore->signal();
    }
  }

  const double elapsed = static_cast<double>(end - start) * gTimebaseConversion;
  VANTOR_LOG(5, "%s %s took %f seconds, purged: %s", kReply, identifier.c_str(), elapsed / 1e9,
             replyCopy.description().c_str());
  addDistributionStat(kDomain, statistic, elapsed);
}

int purgePercentageBucket(std::int64_t requested, std::int64_t purged) {
  // The quotient is taken in single precision on purpose: 7 of 10 comes out
  // a little below 0.7 and so falls in bucket 60.
  const float quotient = static_cast<float>(purged) / static_cast<float>(requested);
  const double tenths = static_cast<double>(quotient) * 10.0;
  // Truncation toward zero into 32 bits; out-of-range quotients saturate
  // instead of being undefined.
  std::int32_t whole = 0;
  if (std::isnan(tenths)) {
    whole = 0;
  } else if (tenths >= static_cast<double>(std::numeric_limits<std::int32_t>::max() / 10)) {
    whole = std::numeric_limits<std::int32_t>::max() / 10;
  } else if (tenths <= static_cast<double>(std::numeric_limits<std::int32_t>::min() / 10)) {
    whole = std::numeric_limits<std::int32_t>::min() / 10;
  } else {
    whole = static_cast<std::int32_t>(tenths);
  }
  return whole * 10;
}

void Vantor::reportPercentageForAmountRequested(std::int64_t requested, std::int64_t purged,
                                                const std::string& identifier) {
  if (requested != 0) {
    const std::string bucket = identifier + ".purged." +
                               std::to_string(purgePercentageBucket(requested, purged)) +
                               ".percent";
    addReportStat(kDomain, bucket, 1);
    VANTOR_LOG(5, "%s %s", kReport, bucket.c_str());
  }
  addReportStat(kDomain, identifier + ".purged", purged);
  VANTOR_LOG(5, "%s %s donated %lld of %lld", kReport, identifier.c_str(),
             static_cast<long long>(purged), static_cast<long long>(requested));
}

}  // namespace vantor
