#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "cli.h"

namespace vantor::ctl {

// A size in bytes: a whole number, or a number (fractions allowed) followed by
// a binary suffix: K, M, G, T, each optionally followed by "iB" or "B"
// (500M, 2G, 1.5GiB, 4KiB), or "B" alone. nullopt when `text` is none of
// these or does not fit in 64 bits.
std::optional<std::uint64_t> parseSize(std::string_view text);

// The purge commands. Each asks vantord on the bus of `line` and prints a
// table, or vantord's answer as JSON with --json; each returns the exit
// status or throws Failure.

// `vantorctl purgeable`: what each service could free on the volume of
// `line.volume`, then the total and the volume.
int runPurgeable(const CommandLine& line);

// `vantorctl purge`: has the services free `line.size` bytes and prints the
// outcome; 0 when that much was freed, ExitCode::kShortfall otherwise.
int runPurge(const CommandLine& line);

// `vantorctl cancel`: stops the purge under way (or the next one).
int runCancel(const std::optional<std::string>& bus, bool json);

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
