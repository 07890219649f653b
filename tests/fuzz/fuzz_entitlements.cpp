// Entitlement policy files: one input is the one file of the policy
// directory; the loaded rules are then matched against a peer.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "support/entitlements.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto dir = vantor::fuzz::scratchDirectory() / "entitlements.d";
  vantor::fuzz::writeInput(dir / "policy.plist", data, size);
  std::vector<std::string> warnings;
  const auto policy = vantor::EntitlementPolicy::load(dir, &warnings);
  const vantor::PeerIdentity peer{.credentials = {.uid = 0, .gids = {0, 100}, .pid = {}},
                                  .executable = "/usr/bin/vantorctl"};
  (void)policy.namesFor(peer);
  return 0;
}
