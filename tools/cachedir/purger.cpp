#include "purger.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>

#include "log.h"

namespace vantor::cachedir {

namespace {

// Open, verified directories of the purge, a few dozen at most: files come
// in order of age, which mostly keeps neighbours together.
class DirectoryCache {
 public:
  explicit DirectoryCache(const std::vector<Target>& targets) : targets_(targets) {}

  // The descriptor of directory `dir` of target `t`, or -1 when it is no
  // longer the directory the scan saw.
  int get(std::size_t t, std::uint32_t dir) {
    const RootIndex& index = *targets_[t].index;
    if (dir == 0)
      return index.root.get();
    const std::uint64_t key = (std::uint64_t{t} << 32) | dir;
    auto it = open_.find(key);
    if (it != open_.end()) {
      it->second.used = ++tick_;
      return it->second.fd.get();
    }
    if (refused_.count(key) != 0)
      return -1;
    Fd fd = openDirectoryBelow(index.root.get(), index.relativePath(dir).c_str(), index.dev);
    // A path that is missing or a symbolic link just now may be back for the
    // next file (a user moving things about); one that leads to another
    // directory or across a mount is not tried again.
    if (!fd.valid()) {
      if (errno == EXDEV)
        refused_.insert(key);
      return -1;
    }
    struct stat st;
    if (::fstat(fd.get(), &st) != 0 || st.st_dev != index.dev || st.st_ino != index.dirs[dir].ino) {
      refused_.insert(key);
      return -1;
    }
    if (open_.size() >= kCapacity)
      evictOldest();
    const int raw = fd.get();
    open_.emplace(key, Entry{std::move(fd), ++tick_});
    return raw;
  }

 private:
  static constexpr std::size_t kCapacity = 64;
  struct Entry {
    Fd fd;
    std::uint64_t used;
  };

  // Closes the directory used longest ago. Erased by key, not iterator:
  // GCC 12 cannot see that an iterator from the loop is never the end.
  void evictOldest() {
    std::optional<std::uint64_t> oldestKey;
    std::uint64_t oldestUse = UINT64_MAX;
    for (const auto& [key, entry] : open_) {
      if (entry.used < oldestUse) {
        oldestUse = entry.used;
        oldestKey = key;
      }
    }
    if (oldestKey)
      open_.erase(*oldestKey);
  }

  const std::vector<Target>& targets_;
  std::unordered_map<std::uint64_t, Entry> open_;
  std::set<std::uint64_t> refused_;
  std::uint64_t tick_ = 0;
};

int depthOf(const RootIndex& index, std::uint32_t dir) {
  int depth = 0;
  for (std::uint32_t d = dir; d != 0; d = index.dirs[d].parent)
    ++depth;
  return depth;
}

// Removes the directories the purge emptied, deepest first, and then their
// parents when that emptied them too.
void removeEmptied(const std::vector<Target>& targets, DirectoryCache& cache,
                   const std::set<std::pair<std::size_t, std::uint32_t>>& touched) {
  // Deepest first: key (-depth, target, dir).
  std::set<std::tuple<int, std::size_t, std::uint32_t>> pending;
  for (const auto& [t, dir] : touched) {
    if (dir != 0)
      pending.emplace(-depthOf(*targets[t].index, dir), t, dir);
  }
  while (!pending.empty()) {
    const auto [negDepth, t, dir] = *pending.begin();
    pending.erase(pending.begin());
    const RootIndex& index = *targets[t].index;
    const DirRecord& record = index.dirs[dir];
    const int parentfd = cache.get(t, record.parent);
    // Under a tag, only the tag owner's own directories go.
    if (parentfd < 0 || !removeEmptyDirectory(parentfd, index.name(record.name), index.dev,
                                              record.ino, index.policy.owner))
      continue;
    if (record.parent != 0)
      pending.emplace(negDepth + 1, t, record.parent);
  }
}

}  // namespace

PurgeOutcome deleteOldest(const std::vector<Target>& targets, std::uint64_t amount,
                          const std::function<bool()>& cancelled) {
  PurgeOutcome outcome;
  std::vector<std::size_t> next(targets.size(), 0);
  std::vector<std::size_t> end(targets.size(), 0);
  for (std::size_t t = 0; t < targets.size(); ++t) {
    const auto& files = targets[t].index->files;
    const std::int64_t cutoff = targets[t].usedBefore;
    end[t] = static_cast<std::size_t>(
        std::find_if(files.begin(), files.end(),
                     [cutoff](const FileRecord& f) { return f.lastUse > cutoff; }) -
        files.begin());
  }
  DirectoryCache cache(targets);
  std::set<std::pair<std::size_t, std::uint32_t>> touched;
  while (outcome.freed < amount) {
    if (cancelled()) {
      outcome.cancelled = true;
      break;
    }
    // The oldest next file of all targets; there are only a handful.
    std::size_t best = targets.size();
    for (std::size_t t = 0; t < targets.size(); ++t) {
      if (next[t] < end[t] &&
          (best == targets.size() || targets[t].index->files[next[t]].lastUse <
                                         targets[best].index->files[next[best]].lastUse))
        best = t;
    }
    if (best == targets.size())
      break;
    const RootIndex& index = *targets[best].index;
    const FileRecord& file = index.files[next[best]++];
    const int dirfd = cache.get(best, file.dir);
    if (dirfd < 0) {
      ++outcome.kept;
      continue;
    }
    Expected expected{index.dev, targets[best].usedBefore, index.policy.owner};
    std::uint64_t freed = 0;
    std::string keptAs;
    const Removal removal = removeFile(dirfd, index.name(file.name), expected, &freed, &keptAs);
    if (!keptAs.empty()) {
      std::string dir = index.policy.path + "/" + index.relativePath(file.dir);
      if (dir.back() != '/')
        dir += '/';
      // Another file took its name while it was checked, as when an
      // application replaces a file: both are kept.
      log(Priority::kWarning, "\"" + dir + index.name(file.name) +
                                  "\" could not be given its name back after its check; it is "
                                  "kept as \"" +
                                  dir + keptAs + "\"");
    }
    switch (removal) {
      case Removal::kRemoved:
        outcome.freed += freed;
        ++outcome.files;
        touched.emplace(best, file.dir);
        break;
      case Removal::kGone:
        break;
      default:
        ++outcome.kept;
        break;
    }
  }
  if (!outcome.cancelled)
    removeEmptied(targets, cache, touched);
  return outcome;
}

}  // namespace vantor::cachedir
