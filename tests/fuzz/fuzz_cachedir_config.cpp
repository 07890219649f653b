// The cache-directory service's configuration: one input is the one file of
// its configuration directory. Every accepted directory must have passed the
// service's own safety check and belong to a source with a valid name.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "config.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto dir = vantor::fuzz::scratchDirectory() / "cachedirs.d";
  vantor::fuzz::writeInput(dir / "config.plist", data, size);
  const vantor::cachedir::Config config = vantor::cachedir::loadConfig(dir);
  for (const auto& policy : config.directories) {
    if (!policy.owner && vantor::cachedir::refusalReason(policy.path))
      std::abort();
    if (!vantor::cachedir::validSourceName(policy.source))
      std::abort();
    (void)policy.matches("a.tmp");
  }
  return 0;
}
