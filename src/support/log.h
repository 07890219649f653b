#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

// The daemon's log: a handle carrying a threshold, a level gate, and a
// replaceable writer.
//
// The handle exists when VANTOR_LOG_LEVEL is set; its threshold is that
// number. The gate treats the two levels the daemon uses differently:
//   level 5 (tracing) is written when there is no handle, or when the
//     handle's threshold is 5 or more;
//   level 3 (errors)  is written only when a handle exists and its threshold
//     is 3 or more.
// Lines go to stderr as "<N>Tag: text" so journald files them at priority N.
//
// Formats are printf formats, checked against their arguments by the
// compiler; an object is written with "%s" and its description's c_str().
// Use VANTOR_LOG: it evaluates the arguments only when the line is written.

namespace vantor {

struct LogHandle {
  std::int32_t threshold = 0;
};

// The process's log handle, or null. Cheap and safe from any thread.
const LogHandle* getLogHandle();

// Replaces the handle for tests: nullopt-like `present == false` removes it.
void setLogHandleForTesting(bool present, std::int32_t threshold);

// Whether a line of `level` passes the gate right now.
bool logGate(int level);

using LogWriteFunction = void (*)(const LogHandle* handle, int level, const char* tag,
                                  const char* format, ...);

// The writer used for every line, read afresh at each use; tests swap it to
// capture lines. The default, writeLogLine, writes to stderr.
extern std::atomic<LogWriteFunction> gMOLogWrite;

[[gnu::format(printf, 4, 5)]] void writeLogLine(const LogHandle* handle, int level, const char* tag,
                                                const char* format, ...);

// Renders a format (exposed for writers installed by tests). Lines longer
// than 16 KiB are cut.
[[gnu::format(printf, 1, 0)]] std::string formatLogText(const char* format, va_list args);

// Never called: lets the compiler check a log line's format against its
// arguments, which the writer, called through a pointer, cannot.
[[gnu::format(printf, 1, 2)]] inline void checkLogFormat(const char*, ...) {}

}  // namespace vantor

#define VANTOR_LOG(level, ...)                                                                \
  do {                                                                                        \
    if (false)                                                                                \
      ::vantor::checkLogFormat(__VA_ARGS__);                                                  \
    if (::vantor::logGate(level)) {                                                           \
      ::vantor::gMOLogWrite.load()(::vantor::getLogHandle(), (level), "Vantor", __VA_ARGS__); \
    }                                                                                         \
  } while (0)
