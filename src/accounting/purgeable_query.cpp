// The purgeable-space query: ask every purging service without a fresh
// cached answer, wait a bounded time, record the replies, and add up what the
// cache holds for the volume.

#include <unistd.h>

#include <limits>

#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/group.h"
#include "support/client_connection.h"
#include "support/log.h"
#include "support/service_call.h"
#include "support/stats.h"

namespace vantor {

namespace {

constexpr auto kGroupWait = std::chrono::seconds(10);
constexpr useconds_t kBeat = 10000;  // 10 ms
constexpr std::uint64_t kBeats = 15;
constexpr int kExtensions = 5;  // granted at urgency 4 only

constexpr char kName[] = "-[Vantor _totalAvailable:info:]";

double elapsedNanoseconds(std::uint64_t startTicks) {
  return static_cast<double>(clock::monotonicTicks() - startTicks) * gTimebaseConversion;
}

// Gives the calls still in flight after the group's wait a few more beats
// (and, at urgency 4, a few extensions of them) to come back.
void waitForStragglers(Vantor& vantor, std::int32_t urgency) {
  if (vantor.requestsInFlight(vantor.purgeableInFlight) == 0)
    return;
  VANTOR_LOG(5, "%s ^^^waiting for a little bit", kName);
  int extensionsLeft = kExtensions;
  std::uint64_t counter = 0;
  for (;;) {
    if (vantor.requestsInFlight(vantor.purgeableInFlight) == 0) {
      VANTOR_LOG(5, "%s ^^^beat the timeout, woohoo!", kName);
      break;
    }
    VANTOR_LOG(5, "%s --------- %s --------- %llu ---------", kName,
               counter % 2 == 0 ? "tick" : "tock", static_cast<unsigned long long>(counter));
    ::usleep(kBeat);
    if (urgency == 4 && extensionsLeft != 0 && counter == kBeats - 1) {
      VANTOR_LOG(5, "%s maxExtensions: %d", kName, extensionsLeft);
      --extensionsLeft;
      counter = 1;
      continue;
    }
    if (++counter == kBeats)
      break;
  }
  VANTOR_LOG(5, "%s ^^^done waiting, inFlight[%llu]: %s", kName,
             static_cast<unsigned long long>(vantor.requestsInFlight(vantor.purgeableInFlight)),
             vantor.inFlightDescription(vantor.purgeableInFlight).c_str());
}

// The sum of the counted services' amounts. Services may report amounts near
// the top of the range: the sum saturates at the signed 64-bit limits instead
// of overflowing. An amount that is not a number is logged and left out.
std::int64_t totalOf(const Value::Dictionary& counted) {
  std::int64_t total = 0;
  for (const auto& [identifier, amount] : counted) {
    if (amount.isNumber()) {
      const std::int64_t add = amount.int64Value();
      if (__builtin_add_overflow(total, add, &total))
        total = add < 0 ? std::numeric_limits<std::int64_t>::min()
                        : std::numeric_limits<std::int64_t>::max();
    } else {
      VANTOR_LOG(3, "%s %d %s num is not a number: %s", kName, 587, identifier.c_str(),
                 amount.description().c_str());
    }
  }
  return total;
}

}  // namespace

Value Vantor::totalAvailable(const Value& info) {
  if (auto error = _checkInfo(info))
    return *error;
  const CallerGone gone = currentCallerGone();
  return operation_queue->syncResult([&] {
    // A caller that left the bus while the query waited its turn is asked
    // nothing on its behalf.
    if (gone->load())
      return Value(Value::Dictionary{});
    std::int32_t urgency = urgencyFromInfo(info, "VANTOR_URGENCY");
    if (urgency == 0)
      urgency = urgencyFromInfo(info, "VANTOR_URGENCY_LIMIT");
    if (urgency == 0)
      urgency = 3;
    Value result = _totalAvailable(urgency, info);
    if (auto* dict = result.asDictionary()) {
      const Value* volume = info.find("VANTOR_VOLUME");
      dict->insert_or_assign("VANTOR_VOLUME", volume != nullptr ? *volume : Value());
    }
    return result;
  });
}

Value Vantor::_totalAvailable(std::int32_t urgency, const Value& info) {
  const std::uint64_t start = clock::monotonicTicks();
  VANTOR_LOG(5, "%s ENTRY, info: %s", kName, info.description().c_str());
  operation_queue->assertCurrent(kName);

  // Ask the services the cache has no fresh answer from.
  const Value cached = cachedInfo(info);
  const Value* toQuery = cached.find("VANTOR_SERVICES_TO_QUERY");
  auto group = dispatch::Group::create();
  auto self = shared_from_this();
  if (toQuery != nullptr && toQuery->isArray()) {
    for (const auto& entry : toQuery->get<Value::Array>()) {
      if (!entry.isString())
        continue;
      const std::string identifier = entry.get<std::string>();
      auto it = services.find(identifier);
      if (it == services.end() || it->second->doNotQuery() || !it->second->doesPurge())
        continue;
      if (optOutService(identifier, OptOut::kQuery))
        continue;
      // A call already outstanding (from this or another query) is not made
      // again; the settle loop below waits for it like the others.
      if (!updateInFlight(identifier, purgeableInFlight, InFlightChange::kAdd))
        continue;
      auto service = it->second;
      group->async([self, service, identifier, urgency, info] {
        self->askPurgeable(service, identifier, urgency, info);
      });
    }
  }
  group->wait(dispatch::after(kGroupWait));
  waitForStragglers(*this, urgency);

  // Add up what the cache now holds for the volume.
  const Value cached2 = cachedInfo(info);
  VANTOR_LOG(5, "%s cachedInfo (2nd pass): %s", kName, cached2.description().c_str());
  const Value* counted = cached2.find("VANTOR_SERVICES_TO_COUNT");
  Value::Dictionary result = counted != nullptr && counted->isDictionary()
                                 ? counted->get<Value::Dictionary>()
                                 : Value::Dictionary{};
  const std::int64_t total = totalOf(result);
  const Value* volume = info.find("VANTOR_VOLUME");
  result.insert_or_assign("VANTOR_VOLUME", volume != nullptr ? *volume : Value());
  result.insert_or_assign("VANTOR_TOTAL_AVAILABLE", Value(total));
  const Value answer(std::move(result));

  VANTOR_LOG(5, "%s Still in flight: %s", kName, inFlightDescription(purgeableInFlight).c_str());
  if (logGate(5)) {
    VANTOR_LOG(5, "%s elapsed time: %f result: %s", kName, elapsedNanoseconds(start) / 1e9,
               answer.description().c_str());
  }
  return answer;
}

void Vantor::askPurgeable(const std::shared_ptr<VTService>& service, const std::string& identifier,
                          std::int32_t urgency, const Value& info) {
  auto self = shared_from_this();
  CallServiceAsync(
      service,
      [self, identifier, urgency, info](std::shared_ptr<VantorServiceProxy> proxy,
                                        std::function<void()> finish) {
        VANTOR_LOG(5, "%s ^^^asking %s for urgency %d",
                   "-[Vantor _totalAvailable:info:]_block_invoke", identifier.c_str(), urgency);
        const std::uint64_t callStart = clock::monotonicTicks();
        proxy->servicePurgeable(
            urgency, info, [self, identifier, info, callStart, finish](Value reply) {
              constexpr char kReply[] = "-[Vantor _totalAvailable:info:]_block_invoke_2";
              const double elapsedNs = elapsedNanoseconds(callStart);
              addDistributionStat("com.tessaly.vantor", identifier + "_purgeableElapsedNanoseconds",
                                  elapsedNs);
              VANTOR_LOG(5, "%s %s took %f seconds, returned: %s", kReply, identifier.c_str(),
                         elapsedNs / 1e9, reply.description().c_str());
              const Value* amount = reply.find("VANTOR_AMOUNT");
              const Value* volume = info.find("VANTOR_VOLUME");
              self->updateServiceStats(identifier,
                                       Value(Value::Dictionary{
                                           {"VANTOR_AMOUNT", amount != nullptr ? *amount : Value()},
                                           {"VANTOR_VOLUME", volume != nullptr ? *volume : Value()},
                                       }));
              if (reply.find("VANTOR_OPT_OUT") != nullptr) {
                self->optOutService(identifier, OptOut::kRecord);
                VANTOR_LOG(5, "%s %s has %s, skipping", kReply, identifier.c_str(),
                           reply.description().c_str());
              }
              // Leaving the in-flight set comes last: the settle loop must see
              // the service finished only once its amount is queued for the cache.
              finish();
              self->updateInFlight(identifier, self->purgeableInFlight, InFlightChange::kRemove);
            });
      },
      [self, identifier] {
        VANTOR_LOG(5, "%s connection invalidated: %s",
                   "-[Vantor _totalAvailable:info:]_block_invoke_3", identifier.c_str());
        self->updateInFlight(identifier, self->purgeableInFlight, InFlightChange::kRemove);
      });
}

}  // namespace vantor
