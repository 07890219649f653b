#pragma once

// File-system steps that cannot be led astray. Every path is resolved from a
// directory descriptor downwards, never as a string from `/`: no symbolic
// link is followed, no mount point is crossed, and a name is unlinked only
// relative to the directory that was verified, after checking that it is
// still the file that was looked at.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vantor::cachedir {

// An owned file descriptor, closed on destruction.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd();
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_ = -1;
};

// Whether the kernel resolves paths with openat2 (Linux 5.6 and later).
bool haveOpenat2();

// Opens the directory `absolute` without following a symbolic link in any
// of its components (the configured roots are real paths). Invalid Fd with
// errno set on failure.
Fd openRootDirectory(const std::string& absolute);

// Opens the directory `relative` (one or more components) below `dirfd`.
// It must stay below `dirfd`, pass no symbolic link and no mount point; the
// fallback without openat2 walks one component at a time with O_NOFOLLOW and
// checks each directory's device against `dev`. Invalid Fd with errno set
// on failure.
Fd openDirectoryBelow(int dirfd, const char* relative, dev_t dev);

// The later of access and modification time, in seconds since 1970.
std::int64_t lastUse(const struct stat& st);

// What a file must still be for removeFile to delete it.
struct Expected {
  dev_t dev = 0;
  std::int64_t usedBefore = 0;  // lastUse must not be later than this
  std::optional<uid_t> owner;   // when set, the file's owner must be this
};

enum class Removal { kRemoved, kGone, kChanged, kLocked, kFailed };

// Unlinks `name` in the directory `dirfd` when it is a regular file with one
// link that `expected` allows (device, last use, owner) and nobody holds a
// BSD lock on it.
// `*freed` receives its allocated bytes when it went.
Removal removeFile(int dirfd, const char* name, const Expected& expected, std::uint64_t* freed);

// Removes the directory `name` of `parentfd` when it is empty and still the
// inode `dev`/`ino`.
bool removeEmptyDirectory(int parentfd, const char* name, dev_t dev, ino_t ino);

}  // namespace vantor::cachedir
