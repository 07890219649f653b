#include "testkit/temp_dir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace vantor::testkit {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vantor-test-XXXXXX").string();
  char* made = ::mkdtemp(pattern.data());
  if (made == nullptr)
    throw std::runtime_error("mkdtemp failed");
  path_ = made;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

}  // namespace vantor::testkit
