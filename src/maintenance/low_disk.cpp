// Low-disk events: purge every volume that is low now, then count the event.

#include "maintenance/low_disk.h"

#include "daemon/vantor.h"
#include "support/log.h"
#include "support/stats.h"
#include "support/volumes.h"

namespace vantor {

namespace {

constexpr char kHandle[] = "-[Vantor handleVFSStreamXPCEvent:]";
constexpr std::uint64_t kLowDiskPurgeAmount = 262'144'000;  // 250 MiB
constexpr std::int32_t kLowDiskPurgeTimeoutSeconds = 300;

}  // namespace

void handleLowDiskEvent(const VolumeEvent& event, const LowDiskActions& actions) {
  const std::uint64_t flags = event.flags;
  const std::vector<std::string> volumes = actions.lowSpaceVolumes();
  if (volumes.empty()) {
    VANTOR_LOG(5, "%s No volumes report low disk space, skipping purge", kHandle);
    return;
  }

  // The flags choose only the log line and the statistic; the low volumes
  // decide what is purged.
  std::optional<std::string> statistic;
  if ((flags & kVqLowDisk) != 0) {
    VANTOR_LOG(3, "%s caught VQ_LOWDISK", kHandle);
    statistic = "VT_LOWDISK_EVENT";
  } else if ((flags & kVqVeryLowDisk) != 0) {
    VANTOR_LOG(3, "%s caught VQ_VERYLOWDISK", kHandle);
    statistic = "VT_VERYLOWDISK_EVENT";
  }

  for (const auto& volume : volumes) {
    actions.purge(Value(Value::Dictionary{
        {"VANTOR_VOLUME", Value(volume)},
        {"VANTOR_AMOUNT", Value(kLowDiskPurgeAmount)},
        {"VANTOR_ASYNC", Value(true)},
        {"VANTOR_PURGE_TIMEOUT", Value(kLowDiskPurgeTimeoutSeconds)},
    }));
  }
  // Counted even with no name: an event that named neither condition still
  // purged.
  actions.countEvent(statistic);
}

void Vantor::handleVFSStreamXPCEvent(const VolumeEvent& event) {
  VANTOR_LOG(5, "%s event for %s, _Flags: 0x%llx", kHandle, event.volume.c_str(),
             static_cast<unsigned long long>(event.flags));
  handleLowDiskEvent(event, LowDiskActions{
                                lowSpaceVolumes,
                                [this](const Value& request) { purge(request, nullptr); },
                                [](const std::optional<std::string>& statistic) {
                                  addReportStat("com.tessaly.vantor", statistic, 1);
                                },
                            });
}

}  // namespace vantor
