#include "service.h"

#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <map>
#include <set>

#include "log.h"
#include "platform/dispatch/global_pool.h"

namespace vantor::cachedir {

namespace {

constexpr std::int64_t kDay = 24 * 3600;
// How long a purgeable question waits for the very first scan.
constexpr auto kFirstScanWait = std::chrono::milliseconds(40);

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::int64_t usedBefore(const DirPolicy& policy, std::int64_t unused) {
  return nowSeconds() - std::max(unused, policy.minimumAge);
}

Value amountReply(std::uint64_t bytes) {
  return Value(Value::Dictionary{{"VANTOR_AMOUNT", Value(bytes)}});
}

std::uint64_t askedAmount(const Value& info) {
  const Value* amount = info.find("VANTOR_AMOUNT");
  if (amount == nullptr || !amount->isNumber() || amount->doubleValue() <= 0)
    return 0;
  return amount->uint64Value();
}

}  // namespace

std::int64_t unusedFor(std::int32_t urgency) {
  switch (std::clamp(urgency, 1, 4)) {
    case 1:
      return 30 * kDay;
    case 2:
      return 7 * kDay;
    case 3:
      return kDay;
    default:
      return 0;  // only the directory's "MinimumAge"
  }
}

CacheDirService::CacheDirService(std::filesystem::path configDir, std::chrono::seconds scanInterval)
    : configDir_(std::move(configDir)), scanInterval_(scanInterval) {
  scanner_ = std::thread([this] { scanLoop(); });
  worker_ = std::thread([this] { workLoop(); });
}

CacheDirService::~CacheDirService() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopFlag_.store(true);
  changed_.notify_all();
  scanner_.join();
  worker_.join();
  // Whoever still waits gets an answer, as the protocol wants exactly one.
  const Snapshot none;
  for (PendingReply& p : pending_) {
    if (!p.answered->exchange(true))
      p.answer(none);
  }
}

void CacheDirService::reload() {
  {
    std::lock_guard lock(mutex_);
    reloadPending_ = true;
    ++requested_;
  }
  changed_.notify_all();
}

std::uint64_t CacheDirService::requestScan() {
  std::uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    generation = ++requested_;
  }
  changed_.notify_all();
  return generation;
}

void CacheDirService::scanLoop() {
  Config config;
  std::unique_lock lock(mutex_);
  while (true) {
    if (!changed_.wait_for(lock, scanInterval_,
                           [this] { return stopping_ || requested_ > completed_; }))
      ++requested_;  // the interval passed: a routine rescan
    if (stopping_)
      return;
    const std::uint64_t generation = requested_;
    const bool reload = reloadPending_;
    reloadPending_ = false;
    std::shared_ptr<const Snapshot> previous = snapshot_;
    lock.unlock();

    if (reload) {
      config = loadConfig(configDir_);
      log(Priority::kInfo, "configuration " + configDir_.string() + ": " +
                               std::to_string(config.directories.size()) + " directories, " +
                               std::to_string(config.taggedBelow.size()) + " tagged trees");
    }
    std::vector<DirPolicy> policies = config.directories;
    for (const std::string& below : config.taggedBelow) {
      for (DirPolicy& tagged : Scanner::findTagged(below, stopFlag_))
        policies.push_back(std::move(tagged));
    }
    std::shared_ptr<const Snapshot> fresh = scanAll(policies, previous.get());
    previous.reset();  // only the published snapshot, and purges using it, keep it now

    lock.lock();
    if (stopping_)
      return;
    snapshot_ = fresh;
    completed_ = generation;
    std::vector<PendingReply> due;
    auto keep = std::partition(pending_.begin(), pending_.end(),
                               [generation](const auto& p) { return p.generation > generation; });
    std::move(keep, pending_.end(), std::back_inserter(due));
    pending_.erase(keep, pending_.end());
    changed_.notify_all();
    lock.unlock();
    for (PendingReply& p : due) {
      if (!p.answered->exchange(true))
        p.answer(*fresh);
    }
    due.clear();  // released unlocked, as the worker releases its jobs
    lock.lock();
  }
}

std::shared_ptr<const CacheDirService::Snapshot> CacheDirService::scanAll(
    const std::vector<DirPolicy>& policies, const Snapshot* previous) {
  std::map<std::string, const RootIndex*> last;
  if (previous != nullptr) {
    for (const auto& root : previous->roots)
      last[root->policy.path] = root.get();
  }
  auto snapshot = std::make_shared<Snapshot>();
  std::set<std::string> seen;
  for (const DirPolicy& policy : policies) {
    // The first entry for a directory wins; files are read in name order.
    if (!seen.insert(policy.path).second)
      continue;
    auto index = Scanner::scan(policy, stopFlag_, last[policy.path]);
    if (index)
      snapshot->roots.push_back(std::move(index));
  }
  return snapshot;
}

void CacheDirService::workLoop() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (stopping_)
      break;
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    // What the job captured, its reply among them, goes before the lock is
    // taken again: releasing a reply may wait for the bus thread, which may
    // be waiting for this lock to queue the next job.
    job = nullptr;
    lock.lock();
  }
  // Jobs never run still answer their callers.
  std::deque<std::function<void()>> left;
  left.swap(jobs_);
  lock.unlock();
  for (auto& job : left)
    job();
}

void CacheDirService::enqueue(std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_all();
}

std::shared_ptr<const CacheDirService::Snapshot> CacheDirService::firstSnapshot(
    const std::function<bool()>& gone) {
  std::unique_lock lock(mutex_);
  // Woken by the scanner when it publishes, and by cancels and stops.
  changed_.wait(lock, [&] { return stopping_ || snapshot_ != nullptr || gone(); });
  if (stopping_ || gone())
    return nullptr;
  return snapshot_;
}

std::vector<const RootIndex*> CacheDirService::rootsOn(const Snapshot& snapshot,
                                                       const Value& info) {
  std::vector<const RootIndex*> roots;
  const Value* volume = info.find("VANTOR_VOLUME");
  std::optional<dev_t> dev;
  if (volume != nullptr) {
    struct stat st;
    const std::string* path = volume->asString();
    if (path == nullptr || ::stat(path->c_str(), &st) != 0)
      return roots;
    dev = st.st_dev;
  }
  for (const auto& root : snapshot.roots) {
    if (!dev || root->dev == *dev)
      roots.push_back(root.get());
  }
  return roots;
}

void CacheDirService::purgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) {
  const std::int64_t unused = unusedFor(urgency);
  auto answer = [info, unused, reply](const Snapshot& snapshot) {
    std::uint64_t bytes = 0;
    for (const RootIndex* root : rootsOn(snapshot, info))
      bytes += root->bytesUsedBefore(usedBefore(root->policy, unused));
    reply(amountReply(bytes));
  };
  std::shared_ptr<const Snapshot> snapshot;
  auto answered = std::make_shared<std::atomic<bool>>(false);
  {
    std::lock_guard lock(mutex_);
    snapshot = snapshot_;
    if (!snapshot)
      pending_.push_back({1, answered, answer});
  }
  if (snapshot) {
    answer(*snapshot);
    return;
  }
  // Before the first scan is done: wait for it, briefly.
  dispatch::globalAsync([answered, reply] {
    std::this_thread::sleep_for(kFirstScanWait);
    if (!answered->exchange(true))
      reply(amountReply(0));
  });
}

void CacheDirService::purge(std::int32_t urgency, const Value& info, DictionaryReply reply) {
  const std::uint64_t generation = cancelGeneration_.load();
  const std::uint64_t amount = askedAmount(info);
  const std::int64_t unused = unusedFor(urgency);
  enqueue([this, generation, amount, unused, info, reply, urgency] {
    const auto cancelled = [this, generation] {
      return cancelGeneration_.load(std::memory_order_relaxed) != generation ||
             stopFlag_.load(std::memory_order_relaxed);
    };
    PurgeOutcome outcome;
    if (auto snapshot = amount > 0 ? firstSnapshot(cancelled) : nullptr) {
      std::vector<Target> targets;
      for (const RootIndex* root : rootsOn(*snapshot, info)) {
        // The snapshot stays alive for the whole purge: share its ownership.
        targets.push_back(
            {std::shared_ptr<const RootIndex>(snapshot, root), usedBefore(root->policy, unused)});
      }
      outcome = deleteOldest(targets, amount, cancelled);
      requestScan();
    }
    log(Priority::kInfo,
        "purge at urgency " + std::to_string(urgency) + " of " + std::to_string(amount) +
            " bytes: freed " + std::to_string(outcome.freed) + " in " +
            std::to_string(outcome.files) + " files, kept " + std::to_string(outcome.kept) +
            (outcome.cancelled ? " (cancelled)" : ""));
    reply(amountReply(outcome.freed));
  });
}

void CacheDirService::periodic(std::int32_t, const Value& info, DictionaryReply reply) {
  enqueue([this, info, reply] {
    const auto stopped = [this] { return stopFlag_.load(std::memory_order_relaxed); };
    std::uint64_t freed = 0;
    if (auto snapshot = firstSnapshot(stopped)) {
      for (const RootIndex* root : rootsOn(*snapshot, info)) {
        const DirPolicy& policy = root->policy;
        std::shared_ptr<const RootIndex> shared(snapshot, root);
        std::uint64_t rootFreed = 0;
        if (policy.maximumAge) {
          rootFreed += deleteOldest({{shared, usedBefore(policy, *policy.maximumAge)}},
                                    std::numeric_limits<std::uint64_t>::max(), stopped)
                           .freed;
        }
        const std::uint64_t left = root->totalBytes - std::min(root->totalBytes, rootFreed);
        if (policy.maximumSize && left > *policy.maximumSize) {
          rootFreed +=
              deleteOldest({{shared, usedBefore(policy, 0)}}, left - *policy.maximumSize, stopped)
                  .freed;
        }
        if (rootFreed > 0)
          log(Priority::kInfo,
              "daily run freed " + std::to_string(rootFreed) + " bytes in \"" + policy.path + "\"");
        freed += rootFreed;
      }
      requestScan();
    }
    reply(amountReply(freed));
  });
}

void CacheDirService::cancelPurge() {
  cancelGeneration_.fetch_add(1);
  // Lock and unlock so a purge between its check and its wait sees the change.
  { std::lock_guard lock(mutex_); }
  changed_.notify_all();
}

void CacheDirService::callback(const Value& info, DictionaryReply reply) {
  const Value* rescan = info.find("Rescan");
  if (rescan == nullptr || !rescan->boolValue()) {
    reply(Value(Value::Dictionary{}));
    return;
  }
  auto answer = [reply](const Snapshot& snapshot) {
    Value::Array paths;
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
    for (const auto& root : snapshot.roots) {
      paths.emplace_back(root->policy.path);
      files += root->files.size();
      bytes += root->totalBytes;
    }
    reply(Value(Value::Dictionary{{"Directories", Value(std::move(paths))},
                                  {"Files", Value(files)},
                                  {"Bytes", Value(bytes)}}));
  };
  {
    std::lock_guard lock(mutex_);
    pending_.push_back({++requested_, std::make_shared<std::atomic<bool>>(false), answer});
  }
  changed_.notify_all();
}

}  // namespace vantor::cachedir
