#pragma once

// Command sources: tools that can measure and free their own throw-away data,
// each described by one property list in <root>/etc/vantor/commands.d or,
// shipped, in <root>/usr/share/vantor/commands.d. A file of the first
// directory replaces the shipped file of the same name; an empty one, or a
// symbolic link to /dev/null, turns it off.
//
// A CommandSource holds no state besides its description, so its calls may
// run on several threads at once (a measurement on one while another purges).

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::cachedir {

// Every field has a default, so tests may name only those they need.
struct CommandDefinition {
  std::string name{};
  std::filesystem::path file{};             // where it was read from, for log lines
  std::vector<std::string> required{};      // "Requires": paths that must exist
  std::vector<std::string> measure{};       // a command printing sizes, or
  std::vector<std::string> measurePaths{};  // globs whose files are counted
  std::vector<std::string> purge{};         // {bytes} and {keep} substituted
  // Files the Purge command counts toward {keep} but never removes; those
  // MeasurePaths also matches are not counted twice.
  std::vector<std::string> keepPaths{};
  std::vector<std::string> periodic{};  // may be empty
  std::int32_t minimumUrgency = 1;
  std::chrono::seconds timeout{300};
};

// Reads one configuration file: it must be a regular file (not reached
// through a symbolic link) owned by root and writable by nobody else, holding
// one dictionary of known keys of the right types. Nullopt, logged, when not.
// "Requires" is not checked here.
std::optional<CommandDefinition> readCommandDefinition(const std::filesystem::path& file);

// The command sources of `root` in file-name order, overrides and masks
// applied, those whose "Requires" paths are missing left out (logged).
std::vector<CommandDefinition> loadCommandSources(const std::filesystem::path& root);

// ZEPHON_SIMULATOR_ROOT, or `/` when it is unset or empty.
std::filesystem::path configurationRoot();

// The size a line of a measuring command's output begins with: bytes, or a
// number with a unit (B, kB, MB, GB, TB in powers of 1000; KiB, MiB, GiB, TiB
// in powers of 1024; any case, decimals allowed), e.g. "1.2GB (50%)".
std::optional<std::uint64_t> parseSize(std::string_view line);

class CommandSource {
 public:
  explicit CommandSource(CommandDefinition definition);

  const CommandDefinition& definition() const { return definition_; }

  // The bytes that could be freed now; nullopt when the measurement fails or
  // is cancelled.
  std::optional<std::uint64_t> measure(const std::function<bool()>& cancelled) const;

  // Runs Purge to free `bytes` at `urgency` (nothing below MinimumUrgency)
  // and answers the bytes the measurement shows were freed (before minus
  // after, never below 0), whatever the command says.
  std::uint64_t purge(std::int32_t urgency, std::uint64_t bytes,
                      const std::function<bool()>& cancelled) const;

  // Runs Periodic, when there is one, and answers what it freed, measured
  // the same way.
  std::uint64_t periodic(const std::function<bool()>& cancelled) const;

 private:
  bool run(const std::vector<std::string>& argv, const std::function<bool()>& cancelled,
           std::string* output) const;

  CommandDefinition definition_;
};

}  // namespace vantor::cachedir
