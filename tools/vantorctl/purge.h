#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/values/value.h"

namespace vantor::ctl {

// A size in bytes: a whole number, or a number (fractions allowed) followed by
// a binary suffix: K, M, G, T, each optionally followed by "iB" or "B"
// (500M, 2G, 1.5GiB, 4KiB), or "B" alone. nullopt when `text` is none of
// these or does not fit in 64 bits.
std::optional<std::uint64_t> parseSize(std::string_view text);

// Prints a purge's outcome for a person: asked, freed (measured on the
// volume), reported by the services, free space before and after, and whether
// services were still working when vantord answered.
void printPurgeResult(std::uint64_t asked, const Value::Dictionary& result);

// While it lives, shows a spinner with the elapsed time on stderr when stderr
// is a terminal; shows nothing otherwise. The line is cleared at the end.
class ProgressLine {
 public:
  explicit ProgressLine(const char* what);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vantor::ctl
