// The administration views: what the coordinator knows of its services and
// volumes, its statistics and its recent purges. Each view is read from
// snapshots, never from a queue a purge may hold for minutes.

#include <tuple>

#include "daemon/vantor.h"
#include "support/low_space.h"
#include "support/stats.h"
#include "support/volumes.h"

namespace vantor {

namespace {

Value stringArray(const Value& names) {
  Value::Array out;
  if (const auto* array = names.asArray()) {
    for (const auto& name : *array) {
      if (name.isString())
        out.push_back(name);
    }
  }
  return Value(std::move(out));
}

}  // namespace

Vantor::NamedEntries Vantor::adminListServices() {
  const auto table = publishedServices();
  const auto [purgeable, purging, periodic, optedOut] = collection_queue->syncResult([this] {
    return std::make_tuple(purgeableInFlight, purgeInFlight, periodicInFlight, optOuts);
  });

  NamedEntries entries;
  for (const auto& [identifier, record] : *table) {
    Value::Dictionary fields{
        {"PURGE", Value(record->doesPurge())},
        {"PERIODIC", Value(record->doesPeriodic())},
        {"DO_NOT_QUERY", Value(record->doNotQuery())},
        {"NOTIFICATIONS", stringArray(record->desiredNotifications())},
    };
    if (const auto endpoint = record->endpoint()) {
      fields.emplace("origin", Value("checkin"));
      fields.emplace("busName", Value(endpoint->busName));
      fields.emplace("objectPath", Value(endpoint->objectPath));
    } else {
      fields.emplace("origin", Value("descriptor"));
    }
    Value::Array marks;
    if (purgeable.count(identifier) != 0)
      marks.emplace_back("purgeable");
    if (purging.count(identifier) != 0)
      marks.emplace_back("purge");
    if (periodic.count(identifier) != 0)
      marks.emplace_back("periodic");
    fields.emplace("inFlight", Value(std::move(marks)));
    // The query forgets an opt-out once it has run out, as a purgeable query
    // would.
    if (auto it = optedOut.find(identifier);
        it != optedOut.end() && optOutService(identifier, OptOut::kQuery)) {
      fields.emplace("optedOutAt", Value(it->second));
    }
    entries.emplace_back(identifier, std::move(fields));
  }
  return entries;
}

Vantor::NamedEntries Vantor::adminGetVolumes() {
  const LowSpaceSettings settings = LowSpaceSettings::fromEnvironment();
  NamedEntries entries;
  for (const auto& volume : getLocalVolumes()) {
    const auto space = volumeSpace(volume);
    if (!space)
      continue;
    const LowSpaceThresholds thresholds = thresholdsFor(space->size, settings);
    const std::uint64_t flags = lowSpaceFlags(space->available, thresholds);
    entries.emplace_back(volume, Value::Dictionary{
                                     {"size", Value(space->size)},
                                     {"available", Value(space->available)},
                                     {"lowThreshold", Value(thresholds.low)},
                                     {"veryLowThreshold", Value(thresholds.veryLow)},
                                     {"low", Value(flags != 0)},
                                     {"veryLow", Value((flags & kVqVeryLowDisk) != 0)},
                                 });
  }
  return entries;
}

Value::Dictionary Vantor::adminGetStatistics() {
  Value::Dictionary out;
  for (const auto& [name, summary] : statsSnapshot()) {
    out.emplace(name, Value(Value::Dictionary{
                          {"count", Value(summary.count)},
                          {"sum", Value(summary.sum)},
                          {"min", Value(summary.min)},
                          {"max", Value(summary.max)},
                          {"last", Value(summary.last)},
                      }));
  }
  return out;
}

Value::Array Vantor::adminGetPurgeHistory() {
  return purgeHistory.entries();
}

Value::Dictionary Vantor::adminGetCounters() {
  return {
      {"purge_active_service_count",
       Value(static_cast<std::int64_t>(purge_active_service_count.load()))},
      {"viable_purging_services", Value(static_cast<std::int64_t>(viable_purging_services.load()))},
      {"purge_amount_needed", Value(purge_amount_needed.load())},
      {"purge_amount_reported", Value(purge_amount_reported.load())},
  };
}

}  // namespace vantor
