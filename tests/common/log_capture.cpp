#include "common/log_capture.h"

#include <cstdarg>
#include <mutex>

#include "support/log.h"

namespace vantor::test {

namespace {

struct CapturedLines {
  std::mutex mutex;
  std::vector<std::string> lines;
};

CapturedLines& captured() {
  static auto* c = new CapturedLines;
  return *c;
}

void captureLine(const LogHandle*, int level, const char*, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = formatLogText(format, args);
  va_end(args);
  std::lock_guard lock(captured().mutex);
  captured().lines.push_back("<" + std::to_string(level) + ">" + text);
}

}  // namespace

LogCapture::LogCapture() {
  clear();
  gMOLogWrite.store(&captureLine);
}

LogCapture::~LogCapture() {
  gMOLogWrite.store(&writeLogLine);
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(captured().mutex);
  return captured().lines;
}

bool LogCapture::contains(const std::string& text) const {
  for (const auto& line : lines()) {
    if (line.find(text) != std::string::npos)
      return true;
  }
  return false;
}

void LogCapture::clear() {
  std::lock_guard lock(captured().mutex);
  captured().lines.clear();
}

}  // namespace vantor::test
