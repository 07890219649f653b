#include "log.h"

#include <cstdio>
#include <mutex>

namespace vantor::cachedir {

void log(Priority priority, const std::string& line) {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  std::fprintf(stderr, "<%d>%s\n", static_cast<int>(priority), line.c_str());
  std::fflush(stderr);
}

}  // namespace vantor::cachedir
