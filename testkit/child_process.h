#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/fd.h"

namespace vantor::testkit {

// A child process. Destroying the handle kills the process if it still runs.
// Throws when it cannot be started.
class ChildProcess {
 public:
  // Starts `argv` with the current environment plus `env`; its stderr goes
  // to `logFile`, and so does its stdout unless `captureStdout` is set, in
  // which case its lines are read with waitForLine.
  ChildProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
               const std::filesystem::path& logFile, bool captureStdout = false);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int sig);
  // Waits for the process to end; the wait status, or nullopt at the deadline.
  std::optional<int> waitExit(std::chrono::milliseconds timeout);

  // Waits for a line of captured stdout that starts with `prefix` and returns
  // it; nullopt at the deadline. Lines read while waiting are kept.
  std::optional<std::string> waitForLine(const std::string& prefix,
                                         std::chrono::milliseconds timeout);
  // Every captured line read so far.
  const std::vector<std::string>& lines() const { return lines_; }
  bool sawLineStartingWith(const std::string& prefix) const;

 private:
  pid_t pid_ = -1;
  Fd pidfd_;
  Fd stdout_;
  std::string pending_;
  std::vector<std::string> lines_;
  std::size_t scanned_ = 0;
  std::optional<int> status_;
};

}  // namespace vantor::testkit
