#pragma once
// Small helpers the benchmarks share to turn samples into printed figures.

#include <sys/types.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace vantor::bench {

// The p-quantile (0 to 1) of `samples`, nearest rank.
inline double percentile(std::vector<double> samples, double p) {
  if (samples.empty())
    return 0;
  std::sort(samples.begin(), samples.end());
  return samples[static_cast<std::size_t>(p * static_cast<double>(samples.size() - 1) + 0.5)];
}

// Resident memory of process `pid` in KiB, or -1 when it cannot be read.
inline long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0)
      return std::stol(line.substr(6));
  }
  return -1;
}

}  // namespace vantor::bench
