#include "support/stats.h"

#include <algorithm>
#include <mutex>

namespace vantor {

namespace {

// Distinct statistic names are bounded by the services known to the daemon;
// this cap keeps a misbehaving caller from growing the table without end.
constexpr std::size_t kMaxStatistics = 65536;

struct StatsTable {
  std::mutex mutex;
  std::map<std::string, StatSummary> entries;
};

StatsTable& table() {
  static auto* t = new StatsTable;  // never destroyed: samples may arrive during exit
  return *t;
}

void record(const std::string& key, double value) {
  StatsTable& t = table();
  std::lock_guard lock(t.mutex);
  auto it = t.entries.find(key);
  if (it == t.entries.end()) {
    if (t.entries.size() >= kMaxStatistics)
      return;
    it = t.entries.emplace(key, StatSummary{0, 0, value, value, value}).first;
  }
  StatSummary& s = it->second;
  ++s.count;
  s.sum += value;
  s.min = std::min(s.min, value);
  s.max = std::max(s.max, value);
  s.last = value;
}

}  // namespace

void addReportStat(const std::string& domain, const std::optional<std::string>& name,
                   std::int64_t value) {
  if (!name)
    return;
  record(domain + "/" + *name, static_cast<double>(value));
}

void addDistributionStat(const std::string& domain, const std::string& name, double value) {
  record(domain + "/" + name, value);
}

std::map<std::string, StatSummary> statsSnapshot() {
  StatsTable& t = table();
  std::lock_guard lock(t.mutex);
  return t.entries;
}

void resetStatsForTesting() {
  StatsTable& t = table();
  std::lock_guard lock(t.mutex);
  t.entries.clear();
}

}  // namespace vantor
