#include "index.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "log.h"

namespace vantor::cachedir {

namespace {

constexpr char kTagName[] = "CACHEDIR.TAG";
constexpr char kTagSignature[] = "Signature: 8a477f597d28d172789f06886806bc55";
constexpr int kTagSearchDepth = 6;
// Offsets into the name arena are 32-bit.
constexpr std::size_t kMaxNameBytes = std::numeric_limits<std::uint32_t>::max() - 4096;

std::uint32_t saturate32(std::int64_t v) {
  if (v < 0)
    return 0;
  return static_cast<std::uint32_t>(
      std::min<std::int64_t>(v, std::numeric_limits<std::uint32_t>::max()));
}

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// An open directory stream on the walk's stack.
struct Frame {
  DIR* dir;
  std::uint32_t index;
  int depth;
};

class Walk {
 public:
  ~Walk() {
    for (Frame& f : frames_)
      ::closedir(f.dir);
  }
  // Takes `fd`; false (with the descriptor closed) when it cannot be read.
  bool push(Fd fd, std::uint32_t index, int depth) {
    DIR* dir = ::fdopendir(fd.get());
    if (dir == nullptr)
      return false;
    fd.release();
    frames_.push_back({dir, index, depth});
    return true;
  }
  bool empty() const { return frames_.empty(); }
  Frame& top() { return frames_.back(); }
  void pop() {
    ::closedir(frames_.back().dir);
    frames_.pop_back();
  }

 private:
  std::vector<Frame> frames_;
};

bool hasValidTag(int dirfd, uid_t* owner) {
  Fd fd(::openat(dirfd, kTagName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid())
    return false;
  // A tag with another link may be someone else's, linked in to have their
  // files count as this directory's.
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1)
    return false;
  char buffer[sizeof kTagSignature - 1];
  std::size_t got = 0;
  while (got < sizeof buffer) {
    const ssize_t n = ::read(fd.get(), buffer + got, sizeof buffer - got);
    if (n <= 0)
      return false;
    got += static_cast<std::size_t>(n);
  }
  *owner = st.st_uid;
  return std::memcmp(buffer, kTagSignature, sizeof buffer) == 0;
}

}  // namespace

std::uint64_t RootIndex::bytesUsedBefore(std::int64_t cutoff) const {
  if (cutoff < 0)
    return 0;
  const std::uint32_t limit = saturate32(cutoff);
  const auto end =
      std::upper_bound(files.begin(), files.end(), limit,
                       [](std::uint32_t t, const FileRecord& f) { return t < f.lastUse; });
  const std::size_t count = static_cast<std::size_t>(end - files.begin());
  const std::size_t block = count / kPrefixStride;
  std::uint64_t sum = block < prefix_.size() ? prefix_[block] : 0;
  for (std::size_t i = block * kPrefixStride; i < count; ++i)
    sum += std::uint64_t{files[i].blocks} * 512;
  return sum;
}

std::string RootIndex::relativePath(std::uint32_t dir) const {
  std::vector<std::uint32_t> chain;
  for (std::uint32_t d = dir; d != 0; d = dirs[d].parent)
    chain.push_back(d);
  std::string path;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if (!path.empty())
      path += '/';
    path += name(dirs[*it].name);
  }
  return path;
}

std::size_t RootIndex::memoryBytes() const {
  return dirs.capacity() * sizeof(DirRecord) + files.capacity() * sizeof(FileRecord) +
         names.capacity() + prefix_.capacity() * sizeof(std::uint64_t);
}

void RootIndex::sortAndSum() {
  // Ties keep files of one directory together, which the purge's directory
  // cache likes.
  std::sort(files.begin(), files.end(), [](const FileRecord& a, const FileRecord& b) {
    if (a.lastUse != b.lastUse)
      return a.lastUse < b.lastUse;
    if (a.dir != b.dir)
      return a.dir < b.dir;
    return a.name < b.name;
  });
  prefix_.clear();
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (i % kPrefixStride == 0)
      prefix_.push_back(sum);
    sum += std::uint64_t{files[i].blocks} * 512;
  }
  if (files.capacity() > files.size() + files.size() / 4)
    files.shrink_to_fit();
  if (names.capacity() > names.size() + names.size() / 4)
    names.shrink_to_fit();
}

Fd Scanner::openRoot(const DirPolicy& policy) {
  Fd root;
  struct stat st;
  if (!policy.below) {
    root = openRootDirectory(policy.path);
  } else if (::fstat(policy.below->get(), &st) == 0) {
    root = openDirectoryBelow(policy.below->get(), policy.relative.c_str(), st.st_dev);
    const dev_t dev = st.st_dev;
    if (root.valid() &&
        (::fstat(root.get(), &st) != 0 || st.st_dev != dev || st.st_ino != policy.ino)) {
      root = Fd();
      errno = ESTALE;
    }
  }
  if (!root.valid())
    log(Priority::kWarning, "cannot open \"" + policy.path + "\": " + std::strerror(errno));
  return root;
}

namespace {

// A fresh index of `root`, the directory of `policy`, holding the root
// directory alone; null when `root` cannot be read. `previous` sizes its lists.
std::shared_ptr<RootIndex> startIndex(const DirPolicy& policy, Fd root, const RootIndex* previous) {
  auto index = std::make_shared<RootIndex>();
  index->policy = policy;
  index->root = std::move(root);
  struct stat st;
  if (!index->root.valid() || ::fstat(index->root.get(), &st) != 0)
    return nullptr;
  index->dev = st.st_dev;
  index->mount = mountOf(index->root.get());
  index->names.push_back('\0');  // offset 0: the root's empty name
  index->dirs.push_back({0, 0, st.st_ino});
  if (previous != nullptr) {
    index->files.reserve(previous->files.size() + previous->files.size() / 16);
    index->names.reserve(previous->names.size() + previous->names.size() / 16);
  }
  return index;
}

std::uint32_t addName(RootIndex& index, const char* name) {
  const auto offset = static_cast<std::uint32_t>(index.names.size());
  index.names.append(name);
  index.names.push_back('\0');
  return offset;
}

// Lists the directory `name` of the directory of `frame` and pushes it on
// the walk, unless it is too deep, no longer a directory on the same mount, or
// another cache directory.
void enterDirectory(RootIndex& index, Walk& walk, const Frame& frame, const char* name,
                    const Scanner::Nested& nested) {
  if (frame.depth + 1 > Scanner::kMaxDepth || index.dirs.size() >= UINT32_MAX ||
      index.names.size() > kMaxNameBytes) {
    index.complete = false;
    return;
  }
  // Mount points (EXDEV) and names turned into symbolic links (ELOOP,
  // ENOTDIR) are simply not entered.
  Fd sub = openDirectoryBelow(::dirfd(frame.dir), name, index.dev);
  struct stat st;
  if (!sub.valid() || ::fstat(sub.get(), &st) != 0 ||
      nested.roots.count({st.st_dev, st.st_ino}) != 0)
    return;
  if (!nested.paths.empty()) {
    std::string relative = index.relativePath(frame.index);
    relative += relative.empty() ? "" : "/";
    if (nested.paths.count(relative + name) != 0)
      return;
  }
  const auto position = static_cast<std::uint32_t>(index.dirs.size());
  index.dirs.push_back({frame.index, addName(index, name), st.st_ino});
  if (!walk.push(std::move(sub), position, frame.depth + 1))
    index.complete = false;
}

// Counts the regular file `entry` of the directory of `frame` and lists it
// when it may ever be deleted. `statted` is its status when the walk already
// took it.
void addFile(RootIndex& index, const Frame& frame, const struct dirent& entry, AsideKind aside,
             const struct stat* statted) {
  const char* name = entry.d_name;
  struct stat st;
  if (statted != nullptr)
    st = *statted;
  // A file mounted over a name is not this directory's.
  else if (!statOnMount(::dirfd(frame.dir), name, index.mount, entry.d_ino, &st))
    return;
  // A file with another link frees nothing when this name goes.
  if (!S_ISREG(st.st_mode) || st.st_nlink != 1)
    return;
  index.totalBytes += static_cast<std::uint64_t>(st.st_blocks) * 512;
  // A leftover was taken by an earlier purge for deletion, so its name
  // once matched; the other checks still hold when it goes.
  const DirPolicy& policy = index.policy;
  if (std::strcmp(name, kTagName) == 0 || (aside == AsideKind::kNone && !policy.matches(name)) ||
      (policy.owner && st.st_uid != *policy.owner) || index.names.size() > kMaxNameBytes ||
      index.files.size() >= UINT32_MAX)
    return;
  index.files.push_back(
      {frame.index, addName(index, name), saturate32(lastUse(st)), saturate32(st.st_blocks)});
}

}  // namespace

std::shared_ptr<RootIndex> Scanner::scan(const DirPolicy& policy, Fd root,
                                         const std::atomic<bool>& stop, const Nested& nested,
                                         const RootIndex* previous) {
  auto index = startIndex(policy, std::move(root), previous);
  if (!index)
    return nullptr;
  Walk walk;
  if (!walk.push(Fd(::fcntl(index->root.get(), F_DUPFD_CLOEXEC, 0)), 0, 0))
    return nullptr;
  while (!walk.empty()) {
    if (stop.load(std::memory_order_relaxed))
      return nullptr;
    const Frame frame = walk.top();
    errno = 0;
    const struct dirent* entry = ::readdir(frame.dir);
    if (entry == nullptr) {
      if (errno != 0)
        index->complete = false;
      walk.pop();
      continue;
    }
    const char* name = entry->d_name;
    const AsideKind aside = asideKind(name);
    // A file of ours under an aside name is being removed this moment.
    if (isDotOrDotDot(name) || aside == AsideKind::kOurs)
      continue;
    unsigned char type = entry->d_type;
    struct stat st;
    const struct stat* statted = nullptr;
    if (type == DT_UNKNOWN) {
      if (!statOnMount(::dirfd(frame.dir), name, index->mount, entry->d_ino, &st))
        continue;
      statted = &st;
      type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
    }
    if (type == DT_DIR)
      enterDirectory(*index, walk, frame, name, nested);
    else if (type == DT_REG)
      addFile(*index, frame, *entry, aside, statted);
  }
  index->sortAndSum();
  return index;
}

std::vector<DirPolicy> Scanner::findTagged(const std::string& below,
                                           const std::atomic<bool>& stop) {
  std::vector<DirPolicy> found;
  Fd top = openRootDirectory(below);
  struct stat st;
  if (!top.valid() || ::fstat(top.get(), &st) != 0) {
    log(Priority::kWarning, "cannot open \"" + below + "\": " + std::strerror(errno));
    return found;
  }
  const dev_t dev = st.st_dev;
  // Held by every directory found, which is reopened from it.
  auto held = std::make_shared<const Fd>(::fcntl(top.get(), F_DUPFD_CLOEXEC, 0));
  if (!held->valid())
    return found;
  // Paths of the directories on the stack, relative to `below`.
  std::vector<std::string> paths{""};
  Walk walk;
  if (!walk.push(std::move(top), 0, 0))
    return found;
  while (!walk.empty() && !stop.load(std::memory_order_relaxed)) {
    const Frame frame = walk.top();
    const struct dirent* entry = ::readdir(frame.dir);
    if (entry == nullptr) {
      walk.pop();
      paths.pop_back();
      continue;
    }
    if (isDotOrDotDot(entry->d_name) || (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) ||
        frame.depth >= kTagSearchDepth)
      continue;
    Fd sub = openDirectoryBelow(::dirfd(frame.dir), entry->d_name, dev);
    if (!sub.valid())
      continue;
    const std::string relative = paths.back() + "/" + entry->d_name;
    uid_t owner = 0;
    if (hasValidTag(sub.get(), &owner)) {
      DirPolicy policy;
      policy.path = below == "/" ? relative : below + relative;
      policy.owner = owner;
      policy.below = held;
      policy.relative = relative.substr(1);
      if (::fstat(sub.get(), &st) != 0)
        continue;
      policy.ino = st.st_ino;
      if (auto reason = refusalReason(policy.path))
        log(Priority::kWarning, "refusing tagged \"" + policy.path + "\": " + *reason);
      else
        found.push_back(std::move(policy));
      continue;
    }
    if (walk.push(std::move(sub), 0, frame.depth + 1))
      paths.push_back(relative);
  }
  return found;
}

}  // namespace vantor::cachedir
