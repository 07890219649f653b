#pragma once

// Runs one configured command without a shell, under a time limit.
//
// The command is started by its absolute path with a clean environment
// (PATH=/usr/sbin:/usr/bin:/sbin:/bin, LANG=C.UTF-8), stdin from /dev/null,
// `/` as its working directory, default signal dispositions, no descriptor
// but 0, 1 and 2, and a session (so a process group) of its own. When its time
// is up, or `cancelled` answers true (asked at least every 50 ms), the group
// gets SIGTERM and, 2 s later, SIGKILL. Once the command has ended, whatever
// is left of its group is killed too, and the command is always reaped before
// runCommand returns, whichever way it leaves.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace vantor::cachedir {

struct CommandResult {
  enum class End { kExited, kSignaled, kTimedOut, kCancelled, kNotStarted };
  End end = End::kNotStarted;
  int status = -1;     // the exit status, or the signal that ended it
  std::string output;  // stdout, at most kMaxCommandOutput bytes
  bool truncated = false;
  std::string error;  // why it could not be started

  bool succeeded() const { return end == End::kExited && status == 0; }
  std::string describe() const;  // for log lines: "exited with 3", "timed out", ...
};

inline constexpr std::size_t kMaxCommandOutput = 64 * 1024;

// Runs `argv` (argv[0] an absolute path). Each line it writes to stdout or
// stderr is logged at info level as "<logName>: <line>" (the first
// kMaxLoggedLines lines of a run; a line is cut at 4 KiB).
CommandResult runCommand(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
                         const std::function<bool()>& cancelled, const std::string& logName);

inline constexpr int kMaxLoggedLines = 200;

}  // namespace vantor::cachedir
