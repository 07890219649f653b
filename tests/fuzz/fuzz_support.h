#pragma once

// Shared by the fuzz targets whose parsers read files: a scratch directory of
// the process's own and a way to put one input there.

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace vantor::fuzz {

// A fresh directory for this process, removed when it exits.
const std::filesystem::path& scratchDirectory();

// Replaces the file at `path` (creating its directory) with the input bytes.
// Aborts when it cannot: a target that reads nothing would fuzz nothing.
void writeInput(const std::filesystem::path& path, const std::uint8_t* data, std::size_t size);

}  // namespace vantor::fuzz
