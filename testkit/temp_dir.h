#pragma once

#include <filesystem>

namespace vantor::testkit {

// A temporary directory, removed with everything in it when destroyed.
// Throws when it cannot be made.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace vantor::testkit
