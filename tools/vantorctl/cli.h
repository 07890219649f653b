#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/values/value.h"

namespace vantor::ctl {

// A bad command line: reported with the synopsis of `command` and exit
// status 2, before anything is sent.
struct UsageError {
  std::string message;
  std::string command;
};

// What the command line asks for, checked against every command's operands
// and options and converted to the types the calls take.
struct CommandLine {
  std::string command;  // as typed: "purgeable", "state", "help", ...; empty when none
  std::string action;   // state's get, set or unset
  std::string topic;    // help's COMMAND
  bool help = false;    // -h or --help: show the help of `command` instead
  std::optional<std::string> bus;
  bool json = false;
  bool itemized = false;
  bool prometheus = false;
  std::optional<std::int64_t> urgency;
  std::optional<std::int64_t> urgencyLimit;
  std::optional<std::uint64_t> timeout;
  std::uint64_t size = 0;
  std::string volume = "/";
  std::string key;
  Value value;  // state set's VALUE, read as --type says
};

// Throws UsageError for anything that does not fit a command.
CommandLine parseCommandLine(int argc, char** argv);

}  // namespace vantor::ctl
