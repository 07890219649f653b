#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/values/value.h"
#include "support/low_space.h"

namespace vantor {

// What handling a low-disk event does to the rest of the system. The
// coordinator's handler passes the real operations; tests pass their own.
struct LowDiskActions {
  std::function<std::vector<std::string>()> lowSpaceVolumes;
  // Runs one purge to its end (or its caller's time limit); the result is
  // not used.
  std::function<void(const Value& request)> purge;
  // Counts the event under the statistic, which may be absent.
  std::function<void(const std::optional<std::string>& statistic)> countEvent;
};

// Purges every volume that is low now with the fixed low-disk request, one
// after another, then counts the event: "VT_LOWDISK_EVENT" when "_Flags"
// has the low-disk bit (tested first), else "VT_VERYLOWDISK_EVENT" for the
// very-low bit, else under no name. With no low volume it does nothing.
void handleLowDiskEvent(const VolumeEvent& event, const LowDiskActions& actions);

}  // namespace vantor
