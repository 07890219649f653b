// The recent-info cache: which services have a usable recent answer for a
// volume, and recording each answer as it arrives. The record lives only in
// the settings store, archived, and is touched only on defaults_queue.

#include <utility>

#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "support/log.h"
#include "support/recent_info.h"
#include "support/volumes.h"

namespace vantor {

namespace {

constexpr char kRecentKey[] = "VANTOR_RECENT_SERVICE_STATS";
// Entries whose volume's free space moved by more than this, or that are
// older than kAgeLimit seconds, can no longer be trusted.
constexpr std::uint64_t kFreespaceTolerance = 5242880;
constexpr double kAgeLimit = 120.0;

// The stored record, or null when there is none or it cannot be read. The
// caller owns what it gets; see keepRecentInfo.
std::shared_ptr<VantorRecentInfo> loadRecentInfo(Vantor& vantor) {
  std::shared_ptr<VantorRecentInfo> info;
  // A reply of our own rather than clientGetStateSync: the archive is
  // compared where it is kept, not copied out first.
  vantor._readOwnState(Value(kRecentKey), [&](const Value& stored) {
    if (stored.isNull())
      return;
    if (!stored.isData()) {
      VANTOR_LOG(3, "%s %s is not an archive: %s", "loadRecentInfo", kRecentKey,
                 stored.description().c_str());
      return;
    }
    const auto& archive = stored.get<Value::Data>();
    auto& memo = vantor.recentInfoMemo;
    if (memo.record && memo.archive == archive) {
      info = std::exchange(memo.record, nullptr);
      return;
    }
    std::string error;
    info = unarchiveRecentInfo(archive, &error);
    if (!info) {
      VANTOR_LOG(3, "%s cannot unarchive %s: %s", "loadRecentInfo", kRecentKey, error.c_str());
      return;
    }
    memo = {archive, nullptr};
  });
  return info;
}

// Hands back a record that loadRecentInfo gave and that still matches what
// is stored, so the next reader need not decode it again.
void keepRecentInfo(Vantor& vantor, std::shared_ptr<VantorRecentInfo> info) {
  vantor.recentInfoMemo.record = std::move(info);
}

// A readable form of the record for log lines: volume to service to amount.
std::string describe(const VantorRecentInfo& info) {
  Value::Dictionary volumes;
  for (const auto& [name, volume] : info.volumes) {
    Value::Dictionary services;
    for (const auto& [identifier, service] : volume->services)
      services.insert_or_assign(identifier, service->amount);
    volumes.insert_or_assign(name, Value(std::move(services)));
  }
  return Value(std::move(volumes)).description();
}

void storeRecentInfo(Vantor& vantor, std::shared_ptr<VantorRecentInfo> info) {
  if (!info) {
    vantor.recentInfoMemo = {};
    vantor.clientSetStateSync(Value(), Value(kRecentKey));
    return;
  }
  auto archive = archiveRecentInfo(*info);
  vantor.recentInfoMemo = {archive, std::move(info)};
  vantor.clientSetStateSync(Value(std::move(archive)), Value(kRecentKey));
}

}  // namespace

Value Vantor::cachedInfo(const Value& info) {
  constexpr char kName[] = "-[Vantor cachedInfo:]_block_invoke";
  return defaults_queue->syncResult([&] {
    const Value* volume = info.find("VANTOR_VOLUME");
    Value::Array servicesToQuery;
    Value::Dictionary servicesToCount;
    std::int32_t status = VantorRecentInfo::kUnchanged;
    std::shared_ptr<VantorRecentInfo> stats;
    if (volume != nullptr && volume->isString()) {
      stats = loadRecentInfo(*this);
      if (stats) {
        // Validation first, so entries it removes are not counted.
        status = stats->validate(kFreespaceTolerance, kAgeLimit);
        if (auto it = stats->volumes.find(volume->get<std::string>()); it != stats->volumes.end()) {
          for (const auto& [identifier, serviceInfo] : it->second->services)
            servicesToCount.insert_or_assign(identifier, serviceInfo->amount);
        }
      }
    }
    VANTOR_LOG(5, "%s servicesToCount: %s", kName, Value(servicesToCount).description().c_str());

    // Cached services are counted whatever their flags are now; only the
    // services still to ask are filtered.
    for (const auto& [identifier, service] : services) {
      if (!service->doNotQuery() && service->doesPurge() && servicesToCount.count(identifier) == 0)
        servicesToQuery.emplace_back(identifier);
    }

    if (status == VantorRecentInfo::kRemoveRecord) {
      VANTOR_LOG(5, "%s Recent Info is invalid, deleting...", kName);
      storeRecentInfo(*this, nullptr);
    } else if (status == VantorRecentInfo::kStoreAgain) {
      VANTOR_LOG(5, "%s Recent Info need syncing. New values: %s", kName, describe(*stats).c_str());
      storeRecentInfo(*this, std::move(stats));
    } else if (stats) {
      keepRecentInfo(*this, std::move(stats));
    }
    if (!servicesToQuery.empty()) {
      VANTOR_LOG(5, "%s servicesToQuery: %s", kName, Value(servicesToQuery).description().c_str());
    } else {
      VANTOR_LOG(5, "%s using all cached info", kName);
    }
    return Value(Value::Dictionary{
        {"VANTOR_SERVICES_TO_QUERY", Value(std::move(servicesToQuery))},
        {"VANTOR_SERVICES_TO_COUNT", Value(std::move(servicesToCount))},
    });
  });
}

void Vantor::updateServiceStats(const std::string& identifier, const Value& info) {
  VANTOR_LOG(5, "%s ^^^ENTRY, serviceID: %s : %s", "-[Vantor updateServiceStats:withInfo:]",
             identifier.c_str(), info.description().c_str());
  auto self = shared_from_this();
  defaults_queue->async([self, identifier, info] {
    const Value* volumeValue = info.find("VANTOR_VOLUME");
    const std::string volume =
        volumeValue != nullptr && volumeValue->isString() ? volumeValue->get<std::string>() : "";
    const Value* amount = info.find("VANTOR_AMOUNT");
    const Date now = clock::now();
    auto stats = loadRecentInfo(*self);
    auto serviceInfo =
        VantorRecentServiceInfo::vantorRecentServiceInfo(amount ? *amount : Value(), now);

    VantorRecentInfo::Volumes volumes = stats ? stats->volumes : VantorRecentInfo::Volumes{};
    std::shared_ptr<VantorRecentVolumeInfo> volumeInfo;
    if (auto it = volumes.find(volume); it != volumes.end()) {
      volumeInfo = it->second;
      volumeInfo->services.insert_or_assign(identifier, serviceInfo);
      volumeInfo->freespace = volumeFreespace(volume);
      volumeInfo->timestamp = now;
    } else {
      volumeInfo = VantorRecentVolumeInfo::vantorRecentVolumeInfo(
          {{identifier, serviceInfo}}, volumeFreespace(volume), now, volume);
      volumes.insert_or_assign(volume, volumeInfo);
    }
    if (stats) {
      stats->volumes = std::move(volumes);
    } else {
      stats = VantorRecentInfo::vantorRecentInfo({{volume, volumeInfo}});
    }
    stats->validate(kFreespaceTolerance, kAgeLimit);
    storeRecentInfo(*self, std::move(stats));
  });
}

}  // namespace vantor
