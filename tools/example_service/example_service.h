#pragma once

// The example service: a service whose behaviour is set on its command line,
// for trying vantord out and for the demo.
//
// It reports a fixed purgeable amount, purges what it is asked for up to that
// amount, and prints one line on stdout for every event, so a script can
// follow what the daemon asked. Given a directory of its own (--files), it
// really deletes files there when asked to purge, oldest first, and reports
// the bytes it deleted. The tests' fake service builds on it.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "vantor_service_kit.h"

namespace vantor::example {

struct Options {
  kit::CheckinRequest request;  // its id is the service's, also when not checking in
  bool ownName = false;
  bool checkin = false;
  std::uint64_t amount = 1ULL << 30;
  long delayMs = 0;
  bool optOut = false;
  std::string files;
  long purgeStepMs = 0;
};

// Adds the options above to `app`.
void addOptions(CLI::App& app, Options& options);

// Reads the command line into `app`'s options. False when the program is to
// exit with `status`: 0 after --help, 2 after a usage error (on stderr).
bool parse(CLI::App& app, int argc, char** argv, int& status);

// Prints `line` on stdout and flushes it; from any thread.
void say(const std::string& line);

std::shared_ptr<kit::Service> makeService(const Options& options);

// Serves `service` under the options' id until SIGTERM or SIGINT, checking
// in as each of `checkins` first when asked to; returns the exit status.
int serve(const Options& options, std::shared_ptr<kit::Service> service,
          const std::vector<kit::CheckinRequest>& checkins);

}  // namespace vantor::example
