#pragma once

// Log lines of vantor-cachedir: one line on stderr per event, prefixed with
// the `<N>` priority that journald files it under.

#include <string>

namespace vantor::cachedir {

enum class Priority { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

void log(Priority priority, const std::string& line);

}  // namespace vantor::cachedir
