// The keyed archive of the recent-statistics record. A record that decodes
// must archive, decode again and archive to the same bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "support/recent_info.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string error;
  const auto info = vantor::unarchiveRecentInfo(std::span(data, size), &error);
  if (!info)
    return 0;
  const auto archived = vantor::archiveRecentInfo(*info);
  const auto again = vantor::unarchiveRecentInfo(archived, &error);
  if (!again || vantor::archiveRecentInfo(*again) != archived)
    std::abort();
  // What the daemon does with a record it read back.
  (void)info->validate(1 << 20, 0.5);
  return 0;
}
