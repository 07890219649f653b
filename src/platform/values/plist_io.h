#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/values/value.h"

namespace vantor {

// Property-list encoding through libplist. Parsing never throws and never
// crashes on malformed input: it returns an error text instead.
enum class PlistFormat { kXml, kBinary };

struct PlistParseResult {
  std::optional<Value> value;  // set on success
  std::string error;           // readable reason on failure
};

// Parses XML or binary property-list bytes (the format is detected).
PlistParseResult parsePlist(std::span<const std::uint8_t> bytes);

// Encodes `value`; a null anywhere inside is left out (property lists cannot
// hold it), a null at the top encodes as an empty dictionary.
std::vector<std::uint8_t> encodePlist(const Value& value, PlistFormat format);

}  // namespace vantor
