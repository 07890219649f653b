#include "support/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "platform/files/write_file.h"

namespace vantor {

namespace {

struct HandleState {
  std::atomic<bool> present{false};
  LogHandle handle;
};

HandleState& handleState() {
  // Read once from the environment; tests may replace it afterwards.
  static HandleState* state = [] {
    auto* s = new HandleState;  // intentionally never destroyed: logging may outlive statics
    if (const char* level = std::getenv("VANTOR_LOG_LEVEL"); level != nullptr && *level != '\0') {
      char* end = nullptr;
      errno = 0;
      long value = std::strtol(level, &end, 10);
      if (errno == 0 && end != level) {
        s->handle.threshold = static_cast<std::int32_t>(value);
        s->present.store(true);
      }
    }
    return s;
  }();
  return *state;
}

}  // namespace

std::atomic<LogWriteFunction> gMOLogWrite{&writeLogLine};

const LogHandle* getLogHandle() {
  HandleState& state = handleState();
  return state.present.load(std::memory_order_acquire) ? &state.handle : nullptr;
}

void setLogHandleForTesting(bool present, std::int32_t threshold) {
  HandleState& state = handleState();
  state.present.store(false, std::memory_order_release);
  state.handle.threshold = threshold;
  state.present.store(present, std::memory_order_release);
}

bool logGate(int level) {
  const LogHandle* handle = getLogHandle();
  if (handle == nullptr)
    return level >= 5;
  return handle->threshold >= level;
}

std::string formatLogText(const char* format, va_list args) {
  char buffer[16384];
  int n = std::vsnprintf(buffer, sizeof buffer, format, args);
  if (n < 0)
    return "(unformattable log line)";
  return std::string(buffer, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof buffer - 1));
}

void writeLogLine(const LogHandle*, int level, const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = formatLogText(format, args);
  va_end(args);
  // One write per line, so lines of concurrent threads never interleave.
  std::string line =
      "<" + std::to_string(level < 0 ? 0 : (level > 7 ? 7 : level)) + ">" + tag + ": " + text;
  if (line.empty() || line.back() != '\n')
    line += '\n';
  writeAll(STDERR_FILENO, line.data(), line.size());
}

}  // namespace vantor
