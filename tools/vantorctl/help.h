#pragma once

#include <string>

namespace vantor::ctl {

// `vantorctl help [COMMAND]` and -h: prints the tool's help, or that of the
// command group `topic` names, on stdout and returns 0. Throws UsageError for
// a topic that is no command.
int showHelp(const std::string& topic);

// The usage lines of `command`'s group, printed with a usage error; the
// tool's own for an empty or unknown command.
const char* synopsisFor(const std::string& command);

}  // namespace vantor::ctl
