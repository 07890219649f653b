#include "fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>

namespace vantor::fuzz {

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::perror(what.c_str());
  std::abort();
}

}  // namespace

const std::filesystem::path& scratchDirectory() {
  static const std::filesystem::path dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "vantor-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
      fail("mkdtemp");
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(scratchDirectory(), ec);
    });
    return std::filesystem::path(pattern);
  }();
  return dir;
}

void writeInput(const std::filesystem::path& path, const std::uint8_t* data, std::size_t size) {
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0)
    fail("open " + path.string());
  for (std::size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n <= 0)
      fail("write " + path.string());
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
}

}  // namespace vantor::fuzz
