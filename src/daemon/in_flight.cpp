// In-flight sets and opt-outs: small operations serialised on collection_queue.

#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "support/log.h"

namespace vantor {

namespace {
// How long an opt-out keeps a service out of purging.
constexpr double kOptOutSeconds = 120.0;
}  // namespace

bool Vantor::updateInFlight(const std::string& identifier, StringSet& set, InFlightChange change) {
  constexpr char kName[] = "-[Vantor updateInFlight:set:add:]";
  const bool add = change == InFlightChange::kAdd;
  return collection_queue->syncResult([&]() -> bool {
    VANTOR_LOG(5, "%s %s %s, set: %p", kName, add ? "adding" : "removing", identifier.c_str(),
               static_cast<const void*>(&set));
    const bool present = set.count(identifier) > 0;
    if (add && !present) {
      set.insert(identifier);
      return true;
    }
    if (add) {
      VANTOR_LOG(3, "%s trying to add \"%s\", which is already inFlight", kName,
                 identifier.c_str());
      return false;
    }
    if (present) {
      set.erase(identifier);
      return true;
    }
    VANTOR_LOG(5, "%s trying to remove \"%s\", which is not inFlight", kName, identifier.c_str());
    return false;
  });
}

std::uint64_t Vantor::requestsInFlight(const StringSet& set) {
  return collection_queue->syncResult([&] { return static_cast<std::uint64_t>(set.size()); });
}

std::string Vantor::inFlightDescription(const StringSet& set) {
  return collection_queue->syncResult([&] {
    Value::Array members;
    for (const auto& identifier : set)
      members.emplace_back(identifier);
    return Value(std::move(members)).description();
  });
}

bool Vantor::optOutService(const std::string& identifier, OptOut action) {
  return collection_queue->syncResult([&]() -> bool {
    const Date now = clock::now();
    if (action == OptOut::kRecord) {
      optOuts[identifier] = now;
      return false;
    }
    auto it = optOuts.find(identifier);
    if (it != optOuts.end() && kOptOutSeconds > clock::secondsBetween(it->second, now)) {
      return true;
    }
    if (it != optOuts.end())
      optOuts.erase(it);
    return false;
  });
}

std::int32_t Vantor::purgingServices() {
  operation_queue->assertCurrent("-[Vantor purgingServices]");
  std::int32_t count = 0;
  for (const auto& [identifier, record] : services) {
    if (record->doesPurge())
      ++count;
  }
  return count;
}

}  // namespace vantor
