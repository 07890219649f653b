#pragma once

#include "cli.h"

namespace vantor::ctl {

// `vantorctl state get|set|unset`: reads, stores or removes the value under
// `line.key` in the state vantord keeps for its clients. get prints a string
// as it is and any other value in vantord's notation, or
// {"key":KEY,"value":VALUE} with --json. Returns 0 or throws Failure.
int runState(const CommandLine& line);

}  // namespace vantor::ctl
