#include "service.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>
#include <set>

#include "log.h"
#include "platform/dispatch/global_pool.h"
#include "platform/values/utf8.h"

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

// The device of info["VANTOR_VOLUME"] in `*dev`, left empty when no volume
// is named (every volume); false when the named volume cannot be found.
bool askedVolume(const Value& info, std::optional<dev_t>* dev) {
  const Value* volume = info.find("VANTOR_VOLUME");
  if (volume == nullptr)
    return true;
  struct stat st;
  const std::string* path = volume->asString();
  if (path == nullptr || ::stat(path->c_str(), &st) != 0)
    return false;
  *dev = st.st_dev;
  return true;
}

std::uint64_t askedAmount(const Value& info) {
  const Value* amount = info.find("VANTOR_AMOUNT");
  if (amount == nullptr || !amount->isNumber() || amount->doubleValue() <= 0)
    return 0;
  return amount->uint64Value();
}

// `path` as D-Bus carries it, valid UTF-8: a byte that is not part of a
// valid sequence becomes \xNN, and a backslash \\, so that nothing is lost.
std::string busString(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  forEachUtf8Unit(path, [&out](const Utf8Unit& unit) {
    if (unit.malformed()) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(unit.bytes[0]));
      out += escaped;
    } else if (unit.codePoint == '\\') {
      out += "\\\\";
    } else {
      out += unit.bytes;
    }
  });
  return out;
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

CacheDirService::CacheDirService(std::function<Config()> load, std::string where,
                                 std::chrono::seconds scanInterval)
    : load_(std::move(load)), where_(std::move(where)), scanInterval_(scanInterval) {
  scanner_ = std::thread([this] { scanLoop(); });
}

CacheDirService::~CacheDirService() {
  stop();
}

void CacheDirService::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopped_)
      return;
    stopping_ = true;
  }
  stopFlag_.store(true);
  changed_.notify_all();
  scanner_.join();
  // Whoever still waits gets an answer, as the protocol wants exactly one:
  // the job under way stops between two files, the jobs queued behind it find
  // the service stopping and answer that they freed nothing, and rescans
  // answer with nothing.
  jobs_->sync([] {});
  std::vector<PendingReply> pending;
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    pending.swap(pending_);
  }
  const Snapshot none;
  for (PendingReply& p : pending) {
    if (!p.answered->exchange(true))
      runGuarded([&] { p.answer(none); }, "an answer");
  }
}

void CacheDirService::runGuarded(const std::function<void()>& job, const char* what) {
  try {
    job();
  } catch (const std::exception& e) {
    log(Priority::kError, std::string(what) + " failed: " + e.what());
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

    std::shared_ptr<const Snapshot> fresh;
    runGuarded([&] { scanOnce(config, reload, previous.get(), &fresh); }, "a scan");
    // A scan that failed leaves the last snapshot in place.
    if (!fresh)
      fresh = previous ? previous : std::make_shared<const Snapshot>();
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
        runGuarded([&] { p.answer(*fresh); }, "an answer");
    }
    due.clear();  // released unlocked, as the worker releases its jobs
    lock.lock();
  }
}

void CacheDirService::scanOnce(Config& config, bool reload, const Snapshot* previous,
                               std::shared_ptr<const Snapshot>* fresh) {
  if (reload) {
    config = load_();
    log(Priority::kInfo, "configuration " + where_ + ": " +
                             std::to_string(config.directories.size()) + " directories, " +
                             std::to_string(config.taggedBelow.size()) + " tagged trees, " +
                             std::to_string(config.commands.size()) + " commands");
  }
  if (reload) {
    std::lock_guard lock(mutex_);
    sources_ = config.sources;
    changed_.notify_all();
  }
  std::vector<DirPolicy> policies = config.directories;
  for (const TaggedTree& tree : config.taggedBelow) {
    for (DirPolicy& tagged : Scanner::findTagged(tree.below, stopFlag_)) {
      tagged.source = tree.source;
      policies.push_back(std::move(tagged));
    }
  }
  auto snapshot = scanAll(policies, previous);
  for (const TrashDir& trash : config.trashes) {
    Fd dir = openRootDirectory(trash.path);
    if (!dir.valid())
      continue;  // no Trash yet
    if (auto index = scanTrash(std::move(dir), stopFlag_))
      snapshot->trashes.push_back({trash.source, std::move(index)});
  }
  // Purgeable answers read what the commands measured here, so that none of
  // them waits for a command.
  for (const CommandDefinition& definition : config.commands) {
    if (stopFlag_.load())
      break;
    Command command{std::make_shared<const CommandSource>(definition)};
    struct stat st;
    const std::string on = definition.required.empty() ? "/" : definition.required.front();
    command.dev = ::stat(on.c_str(), &st) == 0 ? st.st_dev : 0;
    const auto measured = command.source->measure([this] { return stopFlag_.load(); });
    if (!measured)
      log(Priority::kWarning, definition.name + ": the measurement failed; it offers nothing");
    command.measured = measured.value_or(0);
    snapshot->commands.push_back(std::move(command));
  }
  *fresh = std::move(snapshot);
}

std::shared_ptr<CacheDirService::Snapshot> CacheDirService::scanAll(
    const std::vector<DirPolicy>& policies, const Snapshot* previous) {
  std::map<std::string, const RootIndex*> last;
  if (previous != nullptr) {
    for (const auto& root : previous->roots)
      last[root->policy.path] = root.get();
  }
  // Every directory is opened first, so that each scan knows the others
  // and leaves those nested in it to their own policy.
  struct Opened {
    const DirPolicy* policy;
    Fd root;
  };
  std::vector<Opened> opened;
  std::set<std::string> seen;
  Scanner::Nested nested;
  for (const DirPolicy& policy : policies) {
    // The first entry for a directory wins; files are read in name order.
    if (!seen.insert(policy.path).second)
      continue;
    Fd root = Scanner::openRoot(policy);
    struct stat st;
    if (!root.valid() || ::fstat(root.get(), &st) != 0 ||
        !nested.roots.emplace(st.st_dev, st.st_ino).second)
      continue;
    opened.push_back({&policy, std::move(root)});
  }
  auto snapshot = std::make_shared<Snapshot>();
  for (Opened& o : opened) {
    const std::string& path = o.policy->path;
    nested.paths.clear();
    for (const std::string& other : seen) {
      if (other.size() > path.size() + 1 && other.compare(0, path.size(), path) == 0 &&
          other[path.size()] == '/')
        nested.paths.insert(other.substr(path.size() + 1));
    }
    auto index = Scanner::scan(*o.policy, std::move(o.root), stopFlag_, nested, last[path]);
    if (index)
      snapshot->roots.push_back(std::move(index));
  }
  return snapshot;
}

void CacheDirService::enqueue(std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    if (!stopping_) {
      // What the job captured, its reply among them, is released by the
      // queue with no lock of ours held: releasing a reply may wait for the
      // bus thread, which may be waiting for `mutex_` to queue the next job.
      jobs_->async([job = std::move(job)] { runGuarded(job, "a job"); });
      return;
    }
  }
  // Stopping: the job finds no snapshot and answers at once.
  runGuarded(job, "a job");
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

std::vector<const TrashIndex*> CacheDirService::trashesOn(const Snapshot& snapshot,
                                                          const Value& info,
                                                          const std::string& source) {
  std::vector<const TrashIndex*> trashes;
  std::optional<dev_t> dev;
  if (!askedVolume(info, &dev))
    return trashes;
  for (const Trash& trash : snapshot.trashes) {
    if ((!dev || trash.index->dev == *dev) && (source.empty() || trash.source == source))
      trashes.push_back(trash.index.get());
  }
  return trashes;
}

std::vector<const CacheDirService::Command*> CacheDirService::commandsOn(
    const Snapshot& snapshot, const Value& info, const std::string& source) {
  std::vector<const Command*> commands;
  std::optional<dev_t> dev;
  if (!askedVolume(info, &dev))
    return commands;
  for (const Command& command : snapshot.commands) {
    if ((!dev || command.dev == *dev) &&
        (source.empty() || command.source->definition().name == source))
      commands.push_back(&command);
  }
  return commands;
}

std::vector<const RootIndex*> CacheDirService::rootsOn(const Snapshot& snapshot, const Value& info,
                                                       const std::string& source) {
  std::vector<const RootIndex*> roots;
  std::optional<dev_t> dev;
  if (!askedVolume(info, &dev))
    return roots;
  for (const auto& root : snapshot.roots) {
    if ((!dev || root->dev == *dev) && (source.empty() || root->policy.source == source))
      roots.push_back(root.get());
  }
  return roots;
}

void CacheDirService::purgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) {
  purgeable(std::string(), urgency, info, std::move(reply));
}

void CacheDirService::purge(std::int32_t urgency, const Value& info, DictionaryReply reply) {
  purge(std::string(), urgency, info, std::move(reply));
}

void CacheDirService::periodic(std::int32_t, const Value& info, DictionaryReply reply) {
  periodic(std::string(), info, std::move(reply));
}

void CacheDirService::cancelPurge() {
  cancelPurge(std::string());
}

void CacheDirService::purgeable(const std::string& source, std::int32_t urgency, const Value& info,
                                DictionaryReply reply) {
  const std::int64_t unused = unusedFor(urgency);
  auto answer = [info, unused, reply, source, urgency](const Snapshot& snapshot) {
    std::uint64_t bytes = 0;
    for (const RootIndex* root : rootsOn(snapshot, info, source))
      bytes += root->bytesUsedBefore(usedBefore(root->policy, unused));
    for (const TrashIndex* trash : trashesOn(snapshot, info, source))
      bytes += trash->bytesDeletedBefore(nowSeconds() - unused);
    for (const Command* command : commandsOn(snapshot, info, source)) {
      if (urgency >= command->source->definition().minimumUrgency)
        bytes += command->measured;
    }
    reply(amountReply(bytes));
  };
  std::shared_ptr<const Snapshot> snapshot;
  auto answered = std::make_shared<std::atomic<bool>>(false);
  {
    std::lock_guard lock(mutex_);
    snapshot = snapshot_;
    if (!snapshot && stopping_)
      snapshot = std::make_shared<const Snapshot>();
    else if (!snapshot)
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
      runGuarded([&] { reply(amountReply(0)); }, "an answer");
  });
}

void CacheDirService::purge(const std::string& source, std::int32_t urgency, const Value& info,
                            DictionaryReply reply) {
  const std::uint64_t generation = cancelGeneration_.load();
  auto sourceCancels = cancelsOf(source);
  const std::uint64_t sourceGeneration = sourceCancels->load();
  const std::uint64_t amount = askedAmount(info);
  const std::int64_t unused = unusedFor(urgency);
  log(Priority::kDebug, (source.empty() ? std::string() : source + ": ") + "purge at urgency " +
                            std::to_string(urgency) + " of " + std::to_string(amount) +
                            " bytes: queued");
  enqueue([this, generation, sourceCancels, sourceGeneration, amount, unused, info, reply, urgency,
           source] {
    const auto cancelled = [this, generation, sourceCancels, sourceGeneration] {
      return cancelGeneration_.load(std::memory_order_relaxed) != generation ||
             sourceCancels->load(std::memory_order_relaxed) != sourceGeneration ||
             stopFlag_.load(std::memory_order_relaxed);
    };
    PurgeOutcome outcome;
    if (auto snapshot = amount > 0 ? firstSnapshot(cancelled) : nullptr) {
      std::vector<Target> targets;
      for (const RootIndex* root : rootsOn(*snapshot, info, source)) {
        // The snapshot stays alive for the whole purge: share its ownership.
        targets.push_back(
            {std::shared_ptr<const RootIndex>(snapshot, root), usedBefore(root->policy, unused)});
      }
      outcome = deleteOldest(targets, amount, cancelled);
      // Then the Trash and the commands, for what the files did not free.
      for (const TrashIndex* trash : trashesOn(*snapshot, info, source)) {
        if (outcome.freed >= amount || cancelled())
          break;
        const TrashPurgeOutcome went =
            purgeTrash(*trash, nowSeconds() - unused, amount - outcome.freed, cancelled);
        outcome.freed += went.freed;
        outcome.files += went.items;
        outcome.kept += went.kept;
      }
      for (const Command* command : commandsOn(*snapshot, info, source)) {
        if (outcome.freed >= amount || cancelled())
          break;
        outcome.freed += command->source->purge(urgency, amount - outcome.freed, cancelled);
      }
      requestScan();
    }
    log(Priority::kInfo, (source.empty() ? std::string() : source + ": ") + "purge at urgency " +
                             std::to_string(urgency) + " of " + std::to_string(amount) +
                             " bytes: freed " + std::to_string(outcome.freed) + " in " +
                             std::to_string(outcome.files) + " files, kept " +
                             std::to_string(outcome.kept) +
                             (outcome.cancelled ? " (cancelled)" : ""));
    reply(amountReply(outcome.freed));
  });
}

void CacheDirService::periodic(const std::string& source, const Value& info,
                               DictionaryReply reply) {
  enqueue([this, info, reply, source] {
    const auto stopped = [this] { return stopFlag_.load(std::memory_order_relaxed); };
    std::uint64_t freed = 0;
    if (auto snapshot = firstSnapshot(stopped)) {
      for (const RootIndex* root : rootsOn(*snapshot, info, source)) {
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
      for (const Command* command : commandsOn(*snapshot, info, source)) {
        if (stopped())
          break;
        freed += command->source->periodic(stopped);
      }
      requestScan();
    }
    reply(amountReply(freed));
  });
}

void CacheDirService::cancelPurge(const std::string& source) {
  if (source.empty())
    cancelGeneration_.fetch_add(1);
  else
    cancelsOf(source)->fetch_add(1);
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
      paths.emplace_back(busString(root->policy.path));
      files += root->files.size();
      bytes += root->totalBytes;
    }
    reply(Value(Value::Dictionary{{"Directories", Value(std::move(paths))},
                                  {"Files", Value(files)},
                                  {"Bytes", Value(bytes)}}));
  };
  log(Priority::kDebug, "rescan requested");
  {
    std::lock_guard lock(mutex_);
    if (!stopping_) {
      pending_.push_back({++requested_, std::make_shared<std::atomic<bool>>(false), answer});
      changed_.notify_all();
      return;
    }
  }
  answer(Snapshot{});
}

}  // namespace vantor::cachedir

namespace vantor::cachedir {

std::shared_ptr<std::atomic<std::uint64_t>> CacheDirService::cancelsOf(const std::string& source) {
  std::lock_guard lock(mutex_);
  auto& cancels = sourceCancels_[source];
  if (!cancels)
    cancels = std::make_shared<std::atomic<std::uint64_t>>(0);
  return cancels;
}

std::vector<std::string> CacheDirService::awaitSources(const std::vector<std::string>& known) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] {
    return stopping_ || std::any_of(sources_.begin(), sources_.end(), [&](const std::string& s) {
             return std::find(known.begin(), known.end(), s) == known.end();
           });
  });
  if (stopping_)
    return {};
  return sources_;
}

// One source's calls, answered by the service that holds them all. It holds
// the service weakly: once the service is gone, it answers as one with
// nothing to offer.
class CacheDirService::SourceService final : public kit::Service {
 public:
  SourceService(std::weak_ptr<CacheDirService> service, std::string source)
      : service_(std::move(service)), source_(std::move(source)) {}

  void purgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    if (auto service = service_.lock())
      service->purgeable(source_, urgency, info, std::move(reply));
    else
      kit::Service::purgeable(urgency, info, std::move(reply));
  }
  void purge(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    if (auto service = service_.lock())
      service->purge(source_, urgency, info, std::move(reply));
    else
      kit::Service::purge(urgency, info, std::move(reply));
  }
  void periodic(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    if (auto service = service_.lock())
      service->periodic(source_, info, std::move(reply));
    else
      kit::Service::periodic(urgency, info, std::move(reply));
  }
  void cancelPurge() override {
    if (auto service = service_.lock())
      service->cancelPurge(source_);
  }

 private:
  std::weak_ptr<CacheDirService> service_;
  const std::string source_;
};

std::shared_ptr<kit::Service> CacheDirService::sourceService(const std::string& source) {
  return std::make_shared<SourceService>(weak_from_this(), source);
}

}  // namespace vantor::cachedir
