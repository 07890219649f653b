#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// Statistics kept in memory: report samples (counts, byte amounts) and
// distribution samples (doubles), per domain and name. Safe from any thread.

namespace vantor {

// Records one report sample. A missing name is accepted and records nothing.
void addReportStat(const std::string& domain, const std::optional<std::string>& name,
                   std::int64_t value);

// Records one distribution sample.
void addDistributionStat(const std::string& domain, const std::string& name, double value);

struct StatSummary {
  std::uint64_t count = 0;
  double sum = 0;
  double min = 0;
  double max = 0;
  double last = 0;
};

// A copy of what was recorded, keyed by "domain/name".
std::map<std::string, StatSummary> statsSnapshot();
void resetStatsForTesting();

}  // namespace vantor
