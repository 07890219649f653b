#pragma once

#include <string>
#include <vector>

namespace vantor::test {

// Records the log lines written while an instance lives, formatted and
// prefixed with "<level>", in place of writing them to stderr. One capture
// at a time; the destructor restores the default writer.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> lines() const;
  bool contains(const std::string& text) const;
  void clear();
};

}  // namespace vantor::test
