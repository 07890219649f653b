#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/values/value.h"

namespace vantor {

// What the daemon tells its administrators: read-only views of its services,
// volumes, statistics and recent purges. Every method answers at once from any
// pool thread and never blocks on a purge; the listener exports them on the
// client object to callers with the client entitlement.
class VantorAdminProtocol {
 public:
  // Named entries in a stable order: a service ID or a volume, with its fields.
  using NamedEntries = std::vector<std::pair<std::string, Value::Dictionary>>;

  virtual ~VantorAdminProtocol() = default;

  virtual NamedEntries adminListServices() = 0;
  virtual NamedEntries adminGetVolumes() = 0;
  // Statistic name to {"count", "sum", "min", "max", "last"}.
  virtual Value::Dictionary adminGetStatistics() = 0;
  // The recent purges, newest first.
  virtual Value::Array adminGetPurgeHistory() = 0;
  // The purge bookkeeping counters as they stand.
  virtual Value::Dictionary adminGetCounters() = 0;
};

}  // namespace vantor
