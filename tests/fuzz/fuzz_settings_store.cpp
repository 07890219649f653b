// The settings store file: its checksum check and decoding. Whatever decodes
// must encode and decode again to the very same bytes, or the store would
// change its contents by merely rewriting them.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/store/settings_store.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bytes(data, data + size);
  std::string reason;
  const auto value = vantor::SettingsStore::decode(bytes, &reason);
  if (!value)
    return 0;
  const auto encoded = vantor::SettingsStore::encode(*value);
  const auto again = vantor::SettingsStore::decode(encoded, &reason);
  if (!again || vantor::SettingsStore::encode(*again) != encoded)
    std::abort();
  return 0;
}
