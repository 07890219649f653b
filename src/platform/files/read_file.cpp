#include "platform/files/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace vantor {

std::optional<std::vector<std::uint8_t>> readRegularFile(const std::filesystem::path& path,
                                                         std::size_t maxBytes, std::string* error) {
  // O_NONBLOCK keeps a fifo from blocking the open; fstat then refuses it.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    *error = std::system_category().message(errno);
    return std::nullopt;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = S_ISDIR(st.st_mode) ? "Is a directory" : "Not a regular file";
    ::close(fd);
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes;
  std::uint8_t chunk[16384];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      *error = std::system_category().message(errno);
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0)
      break;
    bytes.insert(bytes.end(), chunk, chunk + n);
    if (bytes.size() > maxBytes) {
      *error = "File too large";
      ::close(fd);
      return std::nullopt;
    }
  }
  ::close(fd);
  return bytes;
}

}  // namespace vantor
