#include "safe_fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string_view>
#include <vector>

#include "index.h"
#include "log.h"

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

// -1: not known yet, 0: statx reports no mounts (or the test seam), 1: it does.
std::atomic<int> gStatxMounts{-1};

bool seamSet() {
  const char* off = std::getenv("VANTOR_CACHEDIR_NO_OPENAT2");
  return off != nullptr && *off != '\0';
}

int statxAt(int dirfd, const char* name, int flags, struct statx* stx) {
  return ::statx(dirfd, name, flags | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                 STATX_BASIC_STATS | STATX_MNT_ID, stx);
}

// Logs, once per file system, that mounts on it cannot be told apart.
void logUnknownMount(int fd) {
  static std::mutex mutex;
  static std::set<dev_t> logged;
  struct stat st;
  if (::fstat(fd, &st) != 0)
    return;
  {
    std::lock_guard lock(mutex);
    if (!logged.insert(st.st_dev).second)
      return;
  }
  char device[32];
  std::snprintf(device, sizeof device, "%u:%u", major(st.st_dev), minor(st.st_dev));
  log(Priority::kWarning, std::string("cannot tell mounts apart on device ") + device +
                              ": its subdirectories are not entered");
}

// One component at a time; every directory entered must be on `dev` and on
// the mount of `start` (pass dev 0 to accept any), and none may be a
// symbolic link. A mount that cannot be determined is not entered.
Fd walk(int start, std::string_view path, dev_t dev) {
  Fd current;
  int at = start;
  std::optional<std::uint64_t> mount;
  if (dev != 0 && !(mount = mountOf(start))) {
    logUnknownMount(start);
    errno = EXDEV;
    return Fd();
  }
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
    if (dev != 0 && (st.st_dev != dev || mountOf(next.get()) != mount)) {
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

// This process's part of its aside names, random so that a later process
// tells its own names from those an earlier one left.
const std::string& processToken() {
  static const std::string token = [] {
    std::uint32_t random = 0;
    if (::getrandom(&random, sizeof random, 0) != sizeof random)
      random = static_cast<std::uint32_t>(::getpid()) ^ static_cast<std::uint32_t>(::time(nullptr));
    char text[16];
    std::snprintf(text, sizeof text, "%08x-", random);
    return std::string(text);
  }();
  return token;
}

constexpr std::string_view kAsidePrefix = ".vantor-purging-";
constexpr std::string_view kKeptPrefix = ".vantor-kept-";

std::string uniqueName(std::string_view prefix) {
  static std::atomic<std::uint64_t> counter{0};
  char number[24];
  std::snprintf(number, sizeof number, "%llx",
                static_cast<unsigned long long>(counter.fetch_add(1, std::memory_order_relaxed)));
  std::string name(prefix);
  name += processToken();
  name += number;
  return name;
}

// Puts the file named `aside` back as `name`, or keeps it under a name of
// its own when `name` was taken meanwhile (an application replaced the file).
void putBack(int dirfd, const std::string& aside, const char* name, std::string* keptAs) {
  if (::renameat2(dirfd, aside.c_str(), dirfd, name, RENAME_NOREPLACE) == 0 || errno == ENOENT)
    return;
  if (errno == EEXIST) {
    for (int tries = 0; tries < 4; ++tries) {
      std::string kept = uniqueName(kKeptPrefix);
      if (::renameat2(dirfd, aside.c_str(), dirfd, kept.c_str(), RENAME_NOREPLACE) == 0) {
        *keptAs = std::move(kept);
        return;
      }
      if (errno != EEXIST)
        break;
    }
  }
  *keptAs = aside;
}

// Renames `name` of `dirfd` to a fresh aside name, never replacing a file.
// False with errno set when it cannot.
bool takeAside(int dirfd, const char* name, std::string* aside) {
  *aside = uniqueName(kAsidePrefix);
  int tries = 4;  // EEXIST: someone made that name first; take the next
  while (::renameat2(dirfd, name, dirfd, aside->c_str(), RENAME_NOREPLACE) != 0) {
    if (errno != EEXIST || --tries == 0)
      return false;
    *aside = uniqueName(kAsidePrefix);
  }
  return true;
}

}  // namespace

bool haveOpenat2() {
  if (gOpenat2.load() < 0) {
    // A test seam: resolve as on kernels without openat2.
    if (seamSet()) {
      gOpenat2.store(0);
      return false;
    }
    const int fd = callOpenat2(AT_FDCWD, "/", kDirFlags, 0);
    if (fd >= 0)
      ::close(fd);
  }
  return gOpenat2.load() == 1;
}

bool haveStatxMounts() {
  if (gStatxMounts.load() < 0) {
    struct statx stx;
    const bool have = !seamSet() && statxAt(AT_FDCWD, "/", 0, &stx) == 0 &&
                      (stx.stx_mask & STATX_MNT_ID) != 0 &&
                      (stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0;
    gStatxMounts.store(have ? 1 : 0);
  }
  return gStatxMounts.load() == 1;
}

std::optional<std::uint64_t> mountOf(int fd) {
  if (haveStatxMounts()) {
    struct statx stx;
    if (statxAt(fd, "", AT_EMPTY_PATH, &stx) != 0 || (stx.stx_mask & STATX_MNT_ID) == 0)
      return std::nullopt;
    return stx.stx_mnt_id;
  }
  // The device alone does not tell a bind mount of the same file system from
  // a directory; the mount ID of a file handle does, where there are handles.
  alignas(struct file_handle) unsigned char buffer[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  auto* handle = reinterpret_cast<struct file_handle*>(buffer);
  handle->handle_bytes = MAX_HANDLE_SZ;
  int mount = -1;
  if (::name_to_handle_at(fd, "", handle, &mount, AT_EMPTY_PATH) != 0 && errno != EOVERFLOW)
    return std::nullopt;
  if (mount < 0)
    return std::nullopt;
  return static_cast<std::uint64_t>(mount);
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

bool statOnMount(int dirfd, const char* name, std::optional<std::uint64_t> mount, ino_t direntIno,
                 struct stat* st) {
  if (haveStatxMounts()) {
    struct statx stx;
    if (statxAt(dirfd, name, 0, &stx) != 0 || (stx.stx_mask & STATX_MNT_ID) == 0 || !mount ||
        stx.stx_mnt_id != *mount || (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0)
      return false;
    std::memset(st, 0, sizeof *st);
    st->st_dev = makedev(stx.stx_dev_major, stx.stx_dev_minor);
    st->st_ino = stx.stx_ino;
    st->st_mode = stx.stx_mode;
    st->st_nlink = stx.stx_nlink;
    st->st_uid = stx.stx_uid;
    st->st_gid = stx.stx_gid;
    st->st_size = static_cast<off_t>(stx.stx_size);
    st->st_blocks = static_cast<blkcnt_t>(stx.stx_blocks);
    st->st_atim = {stx.stx_atime.tv_sec, stx.stx_atime.tv_nsec};
    st->st_mtim = {stx.stx_mtime.tv_sec, stx.stx_mtime.tv_nsec};
    st->st_ctim = {stx.stx_ctime.tv_sec, stx.stx_ctime.tv_nsec};
    return true;
  }
  // Without mount IDs: a name with something mounted on it stats as the
  // mounted inode, while the directory still lists its own.
  return ::fstatat(dirfd, name, st, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0 &&
         st->st_ino == direntIno;
}

AsideKind asideKind(const char* name) {
  const std::string_view view(name);
  if (view.substr(0, kAsidePrefix.size()) != kAsidePrefix)
    return AsideKind::kNone;
  return view.substr(kAsidePrefix.size(), processToken().size()) == processToken()
             ? AsideKind::kOurs
             : AsideKind::kLeftover;
}

namespace {

// The checks of removeFile on the file named `aside`, and its unlink.
Removal checkAndUnlink(int dirfd, const char* aside, const Expected& expected,
                       std::uint64_t* freed) {
  // O_NONBLOCK: a fifo put in the file's place must not hold us, nor a lease.
  Fd fd(::openat(dirfd, aside, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid())
    return errno == EWOULDBLOCK ? Removal::kLocked : Removal::kChanged;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0)
    return Removal::kFailed;
  if (!S_ISREG(st.st_mode) || st.st_dev != expected.dev || st.st_nlink != 1 ||
      lastUse(st) > expected.usedBefore || (expected.owner && st.st_uid != *expected.owner))
    return Removal::kChanged;
  // Held while unlinking: whoever locks the file from now on waits for us.
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0)
    return Removal::kLocked;
  // Only this process uses the aside name; still, unlink nothing but the
  // inode that was checked.
  struct stat now;
  if (::fstatat(dirfd, aside, &now, AT_SYMLINK_NOFOLLOW) != 0 || now.st_dev != st.st_dev ||
      now.st_ino != st.st_ino)
    return Removal::kChanged;
  if (::unlinkat(dirfd, aside, 0) != 0)
    return Removal::kFailed;
  *freed = static_cast<std::uint64_t>(st.st_blocks) * 512;
  return Removal::kRemoved;
}

}  // namespace

Removal removeFile(int dirfd, const char* name, const Expected& expected, std::uint64_t* freed,
                   std::string* keptAs) {
  // The rename takes whichever file has the name at that instant, and from
  // then on nobody else has a reason to touch the aside name: what is checked
  // below is what goes.
  std::string aside;
  if (!takeAside(dirfd, name, &aside)) {
    // EBUSY: a mount point. EINVAL: a file system that cannot rename without
    // replacing; its files stay.
    return errno == ENOENT ? Removal::kGone : errno == EBUSY ? Removal::kChanged : Removal::kFailed;
  }
  const Removal removal = checkAndUnlink(dirfd, aside.c_str(), expected, freed);
  if (removal != Removal::kRemoved)
    putBack(dirfd, aside, name, keptAs);
  return removal;
}

bool removeEmptyDirectory(int parentfd, const char* name, dev_t dev, ino_t ino,
                          std::optional<uid_t> owner) {
  struct stat st;
  if (::fstatat(parentfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode) ||
      st.st_dev != dev || st.st_ino != ino || (owner && st.st_uid != *owner))
    return false;
  return ::unlinkat(parentfd, name, AT_REMOVEDIR) == 0;
}

namespace {

// A directory of removeTree being emptied: its open stream and its name in
// the directory below which it sits (the previous frame, or the caller's).
struct TreeFrame {
  DIR* dir;
  std::string name;
  int depth;
  int passes = 0;
  bool removedAny = false;  // in this pass
};

class TreeStack {
 public:
  ~TreeStack() {
    for (TreeFrame& frame : frames_)
      ::closedir(frame.dir);
  }
  // Takes `fd`; false (with the descriptor closed) when it cannot be read.
  bool push(Fd fd, std::string name, int depth) {
    DIR* dir = ::fdopendir(fd.get());
    if (dir == nullptr)
      return false;
    fd.release();
    frames_.push_back({dir, std::move(name), depth});
    return true;
  }
  bool empty() const { return frames_.empty(); }
  TreeFrame& top() { return frames_.back(); }
  // The descriptor of the directory holding the top frame's.
  int parentOfTop(int outermost) const {
    return frames_.size() > 1 ? ::dirfd(frames_[frames_.size() - 2].dir) : outermost;
  }
  void pop() {
    ::closedir(frames_.back().dir);
    frames_.pop_back();
  }

 private:
  std::vector<TreeFrame> frames_;
};

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Opens the directory `name` of `dirfd`, which statted as `st`, for
// emptying: still that inode, and writable by its owner when that is us.
Fd openForEmptying(int dirfd, const char* name, const struct stat& st) {
  Fd fd = openDirectoryBelow(dirfd, name, st.st_dev);
  struct stat now;
  if (!fd.valid() || ::fstat(fd.get(), &now) != 0 || now.st_dev != st.st_dev ||
      now.st_ino != st.st_ino)
    return Fd();
  // A tree that was made read-only, as some build tools leave theirs.
  constexpr mode_t kOwnerWrites = S_IWUSR | S_IXUSR;
  if ((now.st_mode & kOwnerWrites) != kOwnerWrites && now.st_uid == ::geteuid())
    ::fchmod(fd.get(), (now.st_mode & 07777) | kOwnerWrites);
  return fd;
}

std::uint64_t allocatedBytes(const struct stat& st) {
  return static_cast<std::uint64_t>(st.st_blocks) * 512;
}

// Empties and removes the directory `aside` of `parentfd`, opened as `top`.
// kRemoved when it went, kKept when something stayed. What stays is simply
// skipped: the directories above it then fail to go.
TreeRemoval removeDirectory(int parentfd, const std::string& aside, Fd top, dev_t dev,
                            std::optional<std::uint64_t> mount,
                            const std::function<bool()>& cancelled, std::uint64_t* freed) {
  bool removed = false;
  TreeStack stack;
  if (!stack.push(std::move(top), aside, 0))
    return TreeRemoval::kKept;
  while (!stack.empty()) {
    if (cancelled())
      return TreeRemoval::kCancelled;
    TreeFrame& frame = stack.top();
    const int dirfd = ::dirfd(frame.dir);
    errno = 0;
    const struct dirent* entry = ::readdir(frame.dir);
    if (entry == nullptr) {
      struct stat own;
      const bool statted = errno == 0 && ::fstat(dirfd, &own) == 0;
      const int parent = stack.parentOfTop(parentfd);
      if (statted && ::unlinkat(parent, frame.name.c_str(), AT_REMOVEDIR) == 0) {
        *freed += allocatedBytes(own);
        stack.pop();
        if (stack.empty())
          removed = true;
        else
          stack.top().removedAny = true;
        continue;
      }
      // Some file systems skip entries when the directory changes while
      // it is read: another pass finds them, as long as passes remove some.
      if (statted && (errno == ENOTEMPTY || errno == EEXIST) && frame.removedAny &&
          ++frame.passes < 4) {
        ::rewinddir(frame.dir);
        frame.removedAny = false;
        continue;
      }
      stack.pop();
      continue;
    }
    const char* name = entry->d_name;
    if (isDotOrDotDot(name))
      continue;
    struct stat st;
    // A mount point or something on another device stays, and so do the
    // directories above it, which cannot be emptied.
    if (!statOnMount(dirfd, name, mount, entry->d_ino, &st) || st.st_dev != dev)
      continue;
    if (S_ISDIR(st.st_mode)) {
      if (frame.depth + 1 <= Scanner::kMaxDepth) {
        if (Fd sub = openForEmptying(dirfd, name, st); sub.valid())
          stack.push(std::move(sub), name, frame.depth + 1);
      }
      continue;
    }
    // Symbolic links included: unlinking one removes the link alone.
    if (::unlinkat(dirfd, name, 0) != 0)
      continue;
    frame.removedAny = true;
    // A file with other links frees nothing until its last one goes.
    if (st.st_nlink == 1)
      *freed += allocatedBytes(st);
  }
  return removed ? TreeRemoval::kRemoved : TreeRemoval::kKept;
}

}  // namespace

TreeRemoval removeTree(int parentfd, const char* name, dev_t dev,
                       std::optional<std::uint64_t> mount, const std::function<bool()>& cancelled,
                       std::uint64_t* freed, std::string* keptAs) {
  *freed = 0;
  // As in removeFile: from the rename on, the tree has a name only this
  // process uses, and what is checked below is what goes.
  std::string aside;
  if (!takeAside(parentfd, name, &aside)) {
    return errno == ENOENT  ? TreeRemoval::kGone
           : errno == EBUSY ? TreeRemoval::kKept  // a mount point
                            : TreeRemoval::kFailed;
  }
  TreeRemoval removal = TreeRemoval::kKept;
  struct stat st;
  // A mount point cannot be renamed, so the aside name is on our mount.
  if (::fstatat(parentfd, aside.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_dev != dev) {
    removal = TreeRemoval::kKept;
  } else if (!S_ISDIR(st.st_mode)) {
    if (::unlinkat(parentfd, aside.c_str(), 0) == 0) {
      if (st.st_nlink == 1)
        *freed = allocatedBytes(st);
      return TreeRemoval::kRemoved;
    }
  } else if (Fd top = openForEmptying(parentfd, aside.c_str(), st); top.valid()) {
    removal = removeDirectory(parentfd, aside, std::move(top), dev, mount, cancelled, freed);
    if (removal == TreeRemoval::kRemoved)
      return removal;
  }
  putBack(parentfd, aside, name, keptAs);
  return removal;
}

}  // namespace vantor::cachedir
