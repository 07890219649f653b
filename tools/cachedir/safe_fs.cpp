#include "safe_fs.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace vantor::cachedir {

namespace {

// -1: not known yet, 0: the kernel has no openat2, 1: it has.
std::atomic<int> gOpenat2{-1};

int callOpenat2(int dirfd, const char* path, std::uint64_t flags, std::uint64_t resolve) {
  struct open_how how;
  std::memset(&how, 0, sizeof how);
  how.flags = flags;
  how.resolve = resolve;
  int fd;
  // EAGAIN: a rename elsewhere raced the lookup; a few tries outlast a
  // user renaming in a loop, and then the directory is simply skipped.
  int tries = 8;
  do {
    fd = static_cast<int>(::syscall(SYS_openat2, dirfd, path, &how, sizeof how));
  } while (fd < 0 && errno == EAGAIN && --tries > 0);
  if (fd < 0 && errno == ENOSYS)
    gOpenat2.store(0);
  else if (gOpenat2.load() < 0)
    gOpenat2.store(1);
  return fd;
}

constexpr std::uint64_t kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The mount `fd` is on, or -1 when the kernel cannot say. The device alone
// does not tell a bind mount of the same file system from a directory.
int mountOf(int fd) {
  alignas(struct file_handle) unsigned char buffer[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  auto* handle = reinterpret_cast<struct file_handle*>(buffer);
  handle->handle_bytes = MAX_HANDLE_SZ;
  int mount = -1;
  if (::name_to_handle_at(fd, "", handle, &mount, AT_EMPTY_PATH) != 0 && errno != EOVERFLOW)
    return -1;
  return mount;
}

// One component at a time; every directory entered must be on `dev` and on
// the mount of `start` (pass dev 0 to accept any), and none may be a
// symbolic link.
Fd walk(int start, std::string_view path, dev_t dev) {
  Fd current;
  int at = start;
  const int mount = dev != 0 ? mountOf(start) : -1;
  std::size_t pos = 0;
  while (pos < path.size()) {
    std::size_t end = path.find('/', pos);
    if (end == std::string_view::npos)
      end = path.size();
    const std::string part(path.substr(pos, end - pos));
    pos = end + 1;
    if (part.empty())
      continue;
    if (part == "." || part == "..") {
      errno = EXDEV;
      return Fd();
    }
    Fd next(::openat(at, part.c_str(), kDirFlags));
    if (!next.valid())
      return Fd();
    struct stat st;
    if (::fstat(next.get(), &st) != 0)
      return Fd();
    if (dev != 0 && (st.st_dev != dev || (mount >= 0 && mountOf(next.get()) != mount))) {
      errno = EXDEV;
      return Fd();
    }
    current = std::move(next);
    at = current.get();
  }
  if (!current.valid())
    current = Fd(::fcntl(start, F_DUPFD_CLOEXEC, 0));
  return current;
}

}  // namespace

Fd::~Fd() {
  if (fd_ >= 0)
    ::close(fd_);
}

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

bool haveOpenat2() {
  if (gOpenat2.load() < 0) {
    // A test seam: resolve as on kernels without openat2.
    if (const char* off = std::getenv("VANTOR_CACHEDIR_NO_OPENAT2"); off != nullptr && *off) {
      gOpenat2.store(0);
      return false;
    }
    const int fd = callOpenat2(AT_FDCWD, "/", kDirFlags, 0);
    if (fd >= 0)
      ::close(fd);
  }
  return gOpenat2.load() == 1;
}

Fd openRootDirectory(const std::string& absolute) {
  if (absolute.empty() || absolute.front() != '/') {
    errno = EINVAL;
    return Fd();
  }
  if (haveOpenat2())
    return Fd(callOpenat2(AT_FDCWD, absolute.c_str(), kDirFlags, RESOLVE_NO_SYMLINKS));
  Fd slash(::open("/", kDirFlags));
  if (!slash.valid())
    return Fd();
  return walk(slash.get(), absolute, 0);
}

Fd openDirectoryBelow(int dirfd, const char* relative, dev_t dev) {
  if (haveOpenat2()) {
    return Fd(callOpenat2(dirfd, relative, kDirFlags,
                          RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV));
  }
  return walk(dirfd, relative, dev);
}

std::int64_t lastUse(const struct stat& st) {
  return std::max<std::int64_t>(st.st_atim.tv_sec, st.st_mtim.tv_sec);
}

Removal removeFile(int dirfd, const char* name, const Expected& expected, std::uint64_t* freed) {
  // O_NONBLOCK: a fifo put in the file's place must not hold us, nor a lease.
  Fd fd(::openat(dirfd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid())
    return errno == ENOENT ? Removal::kGone : Removal::kChanged;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0)
    return Removal::kFailed;
  if (!S_ISREG(st.st_mode) || st.st_dev != expected.dev || st.st_nlink != 1 ||
      lastUse(st) > expected.usedBefore || (expected.owner && st.st_uid != *expected.owner))
    return Removal::kChanged;
  // Held while unlinking: whoever locks the file from now on waits for us.
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0)
    return Removal::kLocked;
  // The name may have been pointed at another file since it was opened.
  struct stat now;
  if (::fstatat(dirfd, name, &now, AT_SYMLINK_NOFOLLOW) != 0)
    return Removal::kGone;
  if (now.st_dev != st.st_dev || now.st_ino != st.st_ino)
    return Removal::kChanged;
  if (::unlinkat(dirfd, name, 0) != 0)
    return errno == ENOENT ? Removal::kGone : Removal::kFailed;
  *freed = static_cast<std::uint64_t>(st.st_blocks) * 512;
  return Removal::kRemoved;
}

bool removeEmptyDirectory(int parentfd, const char* name, dev_t dev, ino_t ino) {
  struct stat st;
  if (::fstatat(parentfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode) ||
      st.st_dev != dev || st.st_ino != ino)
    return false;
  return ::unlinkat(parentfd, name, AT_REMOVEDIR) == 0;
}

}  // namespace vantor::cachedir
