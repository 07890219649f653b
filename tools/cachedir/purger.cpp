#include "purger.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "log.h"

namespace vantor::cachedir {

namespace {

constexpr int kRemovers = 2;

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

// The files a purge hands to its removers, and what came of them. The
// purge picks files in order of last use; removers take them in that order.
// Bytes of files handed out but not yet removed count against the amount, so
// the purge frees what was asked and hardly more.
class RemovalQueue {
 public:
  struct Job {
    std::size_t target;
    const FileRecord* file;
  };

  explicit RemovalQueue(const std::vector<Target>& targets) : targets_(targets) {}

  // Hands `job` out, first waiting while the queue is full. False, with the
  // job not handed out, once the amount is met or can no longer be missed.
  bool push(Job job, std::uint64_t amount) {
    std::unique_lock lock(mutex_);
    progress_.wait(lock, [&] {
      return jobs_.size() < kMaxQueued &&
             (outcome_.freed + inFlightBytes_ < amount || inFlight_ == 0);
    });
    if (outcome_.freed >= amount)
      return false;
    jobs_.push_back(job);
    ++inFlight_;
    inFlightBytes_ += std::uint64_t{job.file->blocks} * 512;
    work_.notify_one();
    return true;
  }

  // No more jobs: removers finish the queue and return.
  void close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    work_.notify_all();
  }

  // One remover: takes jobs until the queue is closed and empty, or the
  // purge is cancelled. Each remover opens its own directories.
  void serve(const std::function<bool()>& cancelled) {
    DirectoryCache cache(targets_);
    for (;;) {
      Job job{};
      {
        std::unique_lock lock(mutex_);
        work_.wait(lock, [&] { return closed_ || !jobs_.empty(); });
        if (jobs_.empty())
          return;
        job = jobs_.front();
        jobs_.pop_front();
      }
      Removal removal = Removal::kFailed;
      std::uint64_t freed = 0;
      bool skipped = false;
      if (cancelled()) {
        removal = Removal::kGone;  // not tried
        skipped = true;
      } else {
        try {
          removal = remove(cache, job, &freed);
        } catch (const std::exception& e) {
          log(Priority::kError, std::string("A removal failed: ") + e.what());
        }
      }
      std::lock_guard lock(mutex_);
      outcome_.cancelled = outcome_.cancelled || skipped;
      --inFlight_;
      inFlightBytes_ -= std::uint64_t{job.file->blocks} * 512;
      switch (removal) {
        case Removal::kRemoved:
          outcome_.freed += freed;
          ++outcome_.files;
          touched_.emplace(job.target, job.file->dir);
          break;
        case Removal::kGone:
          break;
        default:
          ++outcome_.kept;
          break;
      }
      progress_.notify_all();
    }
  }

  PurgeOutcome outcome() const { return outcome_; }
  const std::set<std::pair<std::size_t, std::uint32_t>>& touched() const { return touched_; }

 private:
  static constexpr std::size_t kMaxQueued = 64;

  Removal remove(DirectoryCache& cache, const Job& job, std::uint64_t* freed) {
    const RootIndex& index = *targets_[job.target].index;
    const FileRecord& file = *job.file;
    const int dirfd = cache.get(job.target, file.dir);
    if (dirfd < 0)
      return Removal::kChanged;
    const Expected expected{index.dev, targets_[job.target].usedBefore, index.policy.owner};
    std::string keptAs;
    const Removal removal = removeFile(dirfd, index.name(file.name), expected, freed, &keptAs);
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
    return removal;
  }

  const std::vector<Target>& targets_;
  std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable progress_;
  std::deque<Job> jobs_;
  bool closed_ = false;
  std::size_t inFlight_ = 0;
  std::uint64_t inFlightBytes_ = 0;
  PurgeOutcome outcome_;
  std::set<std::pair<std::size_t, std::uint32_t>> touched_;
};

}  // namespace

PurgeOutcome deleteOldest(const std::vector<Target>& targets, std::uint64_t amount,
                          const std::function<bool()>& cancelled) {
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
  RemovalQueue queue(targets);
  // Two removers: most of a removal's time is spent in the kernel, and a
  // second one overlaps its waits with the first's.
  std::vector<std::thread> removers;
  for (int i = 0; i < kRemovers; ++i)
    removers.emplace_back([&] { queue.serve(cancelled); });
  bool wasCancelled = false;
  for (;;) {
    if (cancelled()) {
      wasCancelled = true;
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
    if (best == targets.size() ||
        !queue.push({best, &targets[best].index->files[next[best]]}, amount))
      break;
    ++next[best];
  }
  queue.close();
  for (auto& remover : removers)
    remover.join();
  PurgeOutcome outcome = queue.outcome();
  outcome.cancelled = outcome.cancelled || wasCancelled;
  if (!outcome.cancelled) {
    DirectoryCache cache(targets);
    removeEmptied(targets, cache, queue.touched());
  }
  return outcome;
}

}  // namespace vantor::cachedir
