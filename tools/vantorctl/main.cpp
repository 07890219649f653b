// vantorctl: the command-line client of vantord. It asks how much space the
// registered services could free on a volume, and reads and writes the state
// vantord keeps for clients. Arguments are checked before the bus is touched,
// and every outcome has its own exit status (see 'vantorctl help').
//
// This file reads the command line and hands it to its command; each command
// group lives in a file of its own.

#include <cstdio>
#include <exception>
#include <string>

#include "admin.h"
#include "cli.h"
#include "client.h"
#include "help.h"
#include "purge.h"
#include "state.h"
#include "status.h"

namespace {

using vantor::ctl::CommandLine;
using vantor::ctl::ExitCode;
using vantor::ctl::Failure;
using vantor::ctl::UsageError;

int run(const CommandLine& line) {
  namespace ctl = vantor::ctl;
  const std::string& command = line.command;
  if (command == "help")
    return ctl::showHelp(line.topic);
  if (line.help)
    return ctl::showHelp(command);
  if (command == "purgeable")
    return ctl::runPurgeable(line);
  if (command == "purge")
    return ctl::runPurge(line);
  if (command == "state")
    return ctl::runState(line);
  if (command == "cancel")
    return ctl::runCancel(line.bus, line.json);
  if (command == "status")
    return ctl::runStatus(line.bus, line.json);
  if (command == "services")
    return ctl::runServices(line.bus, line.json);
  if (command == "history")
    return ctl::runHistory(line.bus, line.json);
  return ctl::runStats(line.bus, line.json, line.prometheus);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(vantor::ctl::parseCommandLine(argc, argv));
  } catch (const UsageError& error) {
    std::fprintf(stderr, "vantorctl: %s\n%sRun 'vantorctl help' for details.\n",
                 error.message.c_str(), vantor::ctl::synopsisFor(error.command));
    return static_cast<int>(ExitCode::kUsage);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "vantorctl: %s\n", failure.what());
    return static_cast<int>(failure.code());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vantorctl: %s\n", error.what());
    return static_cast<int>(ExitCode::kBusFailure);
  }
}
