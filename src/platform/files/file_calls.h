#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace vantor {

// The file operations made while writing files, behind one seam so tests can
// make any step fail (an error, a short write, a full disk). Each member does
// what the system call of its name does and reports the same way.
class FileCalls {
 public:
  virtual ~FileCalls() = default;

  virtual int open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
  virtual ssize_t write(int fd, const void* data, std::size_t size) {
    return ::write(fd, data, size);
  }
  virtual int fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
  virtual int fchmod(int fd, mode_t mode) { return ::fchmod(fd, mode); }
  virtual int fdatasync(int fd) { return ::fdatasync(fd); }
  virtual int fsync(int fd) { return ::fsync(fd); }
  virtual int close(int fd) { return ::close(fd); }
  virtual int rename(const char* from, const char* to) { return ::rename(from, to); }
  // Swaps the two names atomically (both must exist).
  virtual int exchange(const char* a, const char* b) {
    return ::renameat2(AT_FDCWD, a, AT_FDCWD, b, RENAME_EXCHANGE);
  }
  virtual int unlink(const char* path) { return ::unlink(path); }

  // The operations of the system itself.
  static FileCalls& system() {
    static FileCalls calls;
    return calls;
  }
};

}  // namespace vantor
