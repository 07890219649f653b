#pragma once

// Deleting from indexed cache directories, oldest last use first. Every
// directory is reopened from its root's descriptor and checked against the
// index before anything in it is unlinked; every file is checked again just
// before it goes (see safe_fs.h), so whatever changed since the scan is left
// alone.

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "index.h"

namespace vantor::cachedir {

struct Target {
  std::shared_ptr<const RootIndex> index;
  std::int64_t usedBefore;  // files last used later than this stay
};

struct PurgeOutcome {
  std::uint64_t freed = 0;  // allocated bytes of the files removed
  std::uint64_t files = 0;
  std::uint64_t kept = 0;  // locked, changed or unreadable since the scan
  bool cancelled = false;
};

// Removes files of `targets` in order of last use across all of them until
// `amount` bytes are freed, then the directories this left empty (never a
// root). `cancelled` is asked before each file.
PurgeOutcome deleteOldest(const std::vector<Target>& targets, std::uint64_t amount,
                          const std::function<bool()>& cancelled);

}  // namespace vantor::cachedir
