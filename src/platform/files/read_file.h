#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vantor {

// Reads a whole regular file of at most `maxBytes`. Anything else (a
// directory, a fifo, a device) is refused without being opened for long:
// reading a fifo could block its caller for good. On failure returns nullopt
// and sets `*error` to a readable reason.
std::optional<std::vector<std::uint8_t>> readRegularFile(const std::filesystem::path& path,
                                                         std::size_t maxBytes, std::string* error);

}  // namespace vantor
