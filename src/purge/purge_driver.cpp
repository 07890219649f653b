// The purge driver: walks the purging services through the urgency levels of
// one request, asking each for its share of what is still missing, and
// measures what was really freed on the volume.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "platform/dispatch/time.h"
#include "support/client_connection.h"
#include "support/listener.h"
#include "support/log.h"
#include "support/low_space.h"
#include "support/stats.h"
#include "support/volumes.h"

namespace vantor {

namespace {

constexpr char kPurge[] = "-[Vantor purge:callback:]";
constexpr char kBody[] = "-[Vantor purge:callback:]_block_invoke";
constexpr char kDomain[] = "com.tessaly.vantor";
constexpr auto kCallerLimit = std::chrono::seconds(120);
constexpr std::uint64_t kMaxUserTimeoutSeconds = 300;

std::string volumeOf(const WorkingInfo& info) {
  const Value volume = info.get("VANTOR_VOLUME");
  const std::string* name = volume.asString();
  return name != nullptr ? *name : std::string();
}

std::vector<std::int32_t> urgencyLevels(const Vantor& vantor, const Value& info) {
  if (const std::int32_t only = vantor.urgencyFromInfo(info, "VANTOR_URGENCY"); only != 0)
    return {only};
  std::int32_t limit = vantor.urgencyFromInfo(info, "VANTOR_URGENCY_LIMIT");
  if (limit == 0)
    limit = 3;
  std::vector<std::int32_t> levels;
  for (std::uint32_t level = 1; level <= static_cast<std::uint32_t>(limit); ++level)
    levels.push_back(static_cast<std::int32_t>(level));
  return levels;
}

// The opening fields of a purge's history entry: when, on which volume and
// who asked. A purge outside any client call is the daemon's own.
Value::Dictionary historyOpening(const std::string& volume) {
  Value::Dictionary fields{{"date", Value(clock::now())}, {"volume", Value(volume)}};
  const ClientConnection* connection = currentConnection();
  if (connection == nullptr) {
    fields.emplace("requestedBy", Value("low space"));
    return fields;
  }
  fields.emplace("requestedBy", Value("client"));
  if (const auto& identity = connection->identity()) {
    fields.emplace("uid", Value(static_cast<std::int64_t>(identity->credentials.uid)));
    if (identity->credentials.pid)
      fields.emplace("pid", Value(static_cast<std::int64_t>(*identity->credentials.pid)));
    if (identity->executable)
      fields.emplace("executable", Value(identity->executable->string()));
  }
  return fields;
}

}  // namespace

Value Vantor::purge(const Value& info, const PurgeCallback& callback) {
  const Value* timeoutValue = info.find("VANTOR_PURGE_TIMEOUT");
  std::uint64_t userTimeout = timeoutValue != nullptr ? timeoutValue->uint64Value() : 0;

  if (auto error = _checkInfo(info))
    return *error;

  const std::vector<std::int32_t> levels = urgencyLevels(*this, info);

  VANTOR_LOG(5, "%s user_timeout_seconds: %llu", kPurge,
             static_cast<unsigned long long>(userTimeout));
  userTimeout = std::min(userTimeout, kMaxUserTimeoutSeconds);

  auto working = std::make_shared<WorkingInfo>(info.get<Value::Dictionary>());
  const std::string volume = volumeOf(*working);
  // Without the free space at the start, every byte free at the end would
  // count as purged: such a purge is refused as a volume that cannot be used.
  const auto begin = volumeSpace(volume);
  if (!begin) {
    VANTOR_LOG(3, "%s cannot measure the free space of %s at the start: %s", kPurge, volume.c_str(),
               std::strerror(errno));
    return Value(Value::Dictionary{
        {"VANTOR_ERROR", Value("Parameter error, Unable to validate volume in info dict")}});
  }
  working->set("VANTOR_FREESPACE_BEGIN", Value(begin->available));
  purgeHistory.begin(working.get(), historyOpening(volume));
  if (logGate(5)) {
    VANTOR_LOG(5, "%s info at start: %s", kPurge, working->snapshot().description().c_str());
  }

  auto done = std::make_shared<dispatch::Semaphore>(0);
  auto self = shared_from_this();
  const CallerGone gone = currentCallerGone();
  auto skipped = std::make_shared<std::atomic<bool>>(false);
  operation_queue->async([self, working, levels, callback, done, userTimeout, gone, skipped] {
    dispatch::SignalOnExit finished(*done);
    // A caller that left the bus while the purge waited its turn wants
    // nothing any more: no service is asked on its behalf.
    if (gone->load()) {
      VANTOR_LOG(5, "%s the caller has left; purge skipped", kBody);
      skipped->store(true);
      return;
    }
    self->purgeBody(working, levels, callback, userTimeout);
  });

  if (!done->wait(dispatch::after(kCallerLimit))) {
    // The body goes on in the background and keeps writing its figures into
    // the working dictionary; the caller gets them as they stand now.
    if (logGate(3)) {
      VANTOR_LOG(3, "%s timed out waiting for purge, result: %s, services still in flight: %s",
                 kPurge, working->snapshot().description().c_str(),
                 inFlightDescription(purgeInFlight).c_str());
    }
  }

  if (skipped->load()) {
    // Nobody is left to answer, and nothing ran that the history should show.
    purgeHistory.discard(working.get());
    return Value(Value::Dictionary{});
  }

  const std::uint64_t purged = amountPurged(working->snapshot());
  working->set("VANTOR_AMOUNT", Value(purged));
  working->set("VANTOR_AMOUNT_REPORTED", Value(purge_amount_reported.load()));
  working->set("VANTOR_FREESPACE_END", Value(volumeFreespace(volume)));
  Value result = working->snapshot();
  VANTOR_LOG(5, "%s result %s", kPurge, result.description().c_str());

  if (purged < purge_amount_needed.load()) {
    addReportStat(kDomain, std::string("VantorPurgeFailed"), 1);
    // Read afresh: another purge's body may have set a smaller figure since
    // the comparison, and a deficit is never below zero.
    const std::uint64_t needed = purge_amount_needed.load();
    addDistributionStat(kDomain, "VantorPurgeDeficit",
                        static_cast<double>(needed > purged ? needed - purged : 0));
  }

  // The audit trail: the history entry, its log line and its signal.
  const Value::Dictionary entry = purgeHistory.finish(
      working.get(),
      {{"asked", Value(purge_amount_needed.load())},
       {"freed", Value(purged)},
       {"reported", Value(purge_amount_reported.load())},
       {"servicesFinished", Value(result.find("VANTOR_ASYNC_COMPLETE") != nullptr)}});
  VANTOR_LOG(3, "%s purge finished: %s", kPurge, Value(entry).description().c_str());
  notifyPurgeFinished(entry);
  return result;
}

void Vantor::purgeBody(const std::shared_ptr<WorkingInfo>& working,
                       const std::vector<std::int32_t>& levels, const PurgeCallback& callback,
                       std::uint64_t userTimeout) {
  operation_queue->assertCurrent(kBody);
  const std::int32_t purging = purgingServices();

  const Value amount = working->get("VANTOR_AMOUNT");
  if (amount.isNumber()) {
    purge_amount_needed.store(amount.uint64Value());
  } else {
    // The previous purge's figure stays in force.
    VANTOR_LOG(3, "%s %d amount is not a number: %s", kBody, 773, amount.description().c_str());
  }
  purge_amount_reported.store(0);
  addDistributionStat(kDomain, "VantorPurgeAmountRequested",
                      static_cast<double>(purge_amount_needed.load()));

  for (const std::int32_t level : levels) {
    if (amountPurged(working->snapshot()) >= purge_amount_needed.load() || cancel.load())
      continue;
    currentUrgency.store(level);
    VANTOR_LOG(5, "%s Urgency: %d", kBody, currentUrgency.load());
    purgeHistory.noteLevel(working.get(), level);

    setPurge_semaphore(std::make_shared<dispatch::Semaphore>(0));
    viable_purging_services.store(purging);

    // Every request of the level is queued before the first one computes its
    // share, so all shares start from the same divisor.
    {
      dispatch::ScopedSuspension queueing(*purge_post_queue);
      for (const auto& [identifier, record] : services) {
        if (record->doesPurge())
          queueServiceRequest(record, working, callback);
      }
    }

    const std::uint64_t start = clock::monotonicTicks();
    if (auto semaphore = purge_semaphore()) {
      const std::uint64_t wait =
          userTimeout != 0 ? userTimeout : 2 * static_cast<std::uint64_t>(currentUrgency.load());
      VANTOR_LOG(5, "%s waiting for %llu seconds", kBody, static_cast<unsigned long long>(wait));
      if (!semaphore->wait(dispatch::after(std::chrono::seconds(wait)))) {
        VANTOR_LOG(3, "%s timed out waiting for: %s, purge_active_service_count: %d", kBody,
                   inFlightDescription(purgeInFlight).c_str(), purge_active_service_count.load());
      }
    }
    addDistributionStat(kDomain, "VantorPurgeElapsedNanoseconds",
                        static_cast<double>(clock::monotonicTicks() - start) * gTimebaseConversion);
    setPurge_semaphore(nullptr);
  }

  const std::uint64_t purged = amountPurged(working->snapshot());
  if (cancel.load() ||
      (requestsInFlight(purgeInFlight) != 0 && purged < purge_amount_needed.load())) {
    VANTOR_LOG(3, "%s cancelling purge", kBody);
    purgeHistory.noteCancelled(working.get());
    clientCancelPurge(nullptr);
    cancel.store(false);
  }

  working->set("VANTOR_AMOUNT_REPORTED", Value(purge_amount_reported.load()));
  if (purge_active_service_count.load() == 0)
    working->set("VANTOR_ASYNC_COMPLETE", Value(true));

  addDistributionStat(kDomain, "VantorPurgeAmountPurged", static_cast<double>(purged));
  reportPercentageForAmountRequested(static_cast<std::int64_t>(purge_amount_needed.load()),
                                     static_cast<std::int64_t>(purged), "total");
}

}  // namespace vantor
