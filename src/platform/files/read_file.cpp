#include "platform/files/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/files/fd.h"

namespace vantor {

std::optional<std::vector<std::uint8_t>> readRegularFile(const std::filesystem::path& path,
                                                         std::size_t maxBytes, std::string* error) {
  // O_NONBLOCK keeps a fifo from blocking the open; fstat then refuses it.
  const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd.valid()) {
    *error = std::system_category().message(errno);
    return std::nullopt;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = S_ISDIR(st.st_mode) ? "Is a directory" : "Not a regular file";
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes;
  std::uint8_t chunk[16384];
  for (;;) {
    const ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      *error = std::system_category().message(errno);
      return std::nullopt;
    }
    if (n == 0)
      break;
    bytes.insert(bytes.end(), chunk, chunk + n);
    if (bytes.size() > maxBytes) {
      *error = "File too large";
      return std::nullopt;
    }
  }
  return bytes;
}

}  // namespace vantor
