#pragma once

// vantor-cachedir's answers to vantord. A background thread scans the
// configured cache directories and publishes an immutable snapshot of their
// indexes; purgeable answers read the latest snapshot and never wait for a
// scan in progress. Purges and daily runs go one at a time, in the order they
// arrived, on a serial queue of the platform's, so the bus thread is never
// held. A cancel stops every purge that arrived before it, between two files.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "index.h"
#include "platform/dispatch/queue.h"
#include "purger.h"
#include "trash.h"
#include "vantor_service_kit.h"

namespace vantor::cachedir {

// Seconds a file must have gone unused before it may go at `urgency` (1 to
// 4; others are clamped), before the directory's own "MinimumAge" applies.
std::int64_t unusedFor(std::int32_t urgency);

class CacheDirService final : public kit::Service,
                              public std::enable_shared_from_this<CacheDirService> {
 public:
  // `load` reads the configuration, at start and on each reload; `where`
  // names it in the log.
  CacheDirService(std::function<Config()> load, std::string where,
                  std::chrono::seconds scanInterval);
  ~CacheDirService() override;

  // Stops the scan thread and a purge under way, between two files; the jobs
  // still queued then answer that they freed nothing, and every call still
  // waiting is answered. Calls that come later are answered at once. To be
  // called while the bus connection is still up, so that no answer is left to
  // go through a connection that is gone. The destructor calls it too.
  void stop();

  // Re-reads the configuration, then rescans.
  void reload();

  // Answers for every source together.
  void purgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) override;
  void purge(std::int32_t urgency, const Value& info, DictionaryReply reply) override;
  void periodic(std::int32_t urgency, const Value& info, DictionaryReply reply) override;
  void cancelPurge() override;

  // The same for one source ("" for all of them).
  void purgeable(const std::string& source, std::int32_t urgency, const Value& info,
                 DictionaryReply reply);
  void purge(const std::string& source, std::int32_t urgency, const Value& info,
             DictionaryReply reply);
  void periodic(const std::string& source, const Value& info, DictionaryReply reply);
  void cancelPurge(const std::string& source);

  // One source as a service of its own, to be checked in under its own ID.
  std::shared_ptr<kit::Service> sourceService(const std::string& source);

  // Waits until the configuration names sources beyond the `known` ones, and
  // answers all it names; empty once the service stops.
  std::vector<std::string> awaitSources(const std::vector<std::string>& known);
  // {"Rescan": true}: answers once a scan that started after the call is
  // published, with {"Directories": [paths], "Files": count, "Bytes": total}.
  void callback(const Value& info, DictionaryReply reply) override;

 private:
  // A command source with what it measured at the last scan.
  struct Command {
    std::shared_ptr<const CommandSource> source;
    dev_t dev = 0;  // the volume of its first "Requires" path, else of `/`
    std::uint64_t measured = 0;
  };
  struct Trash {
    std::string source;
    std::shared_ptr<const TrashIndex> index;
  };
  struct Snapshot {
    std::vector<std::shared_ptr<const RootIndex>> roots;
    std::vector<Trash> trashes;
    std::vector<Command> commands;
  };
  class SourceService;
  struct PendingReply {
    std::uint64_t generation;
    std::shared_ptr<std::atomic<bool>> answered;
    std::function<void(const Snapshot&)> answer;
  };

  void scanLoop();
  // Queues `job` behind the others; runs it at once when the service stops.
  void enqueue(std::function<void()> job);
  // Runs `job`, logging what it throws: nothing on a thread of the service
  // ends the process.
  static void runGuarded(const std::function<void()>& job, const char* what);
  std::uint64_t requestScan();
  std::shared_ptr<Snapshot> scanAll(const std::vector<DirPolicy>& policies,
                                    const Snapshot* previous);
  void scanOnce(Config& config, bool reload, const Snapshot* previous,
                std::shared_ptr<const Snapshot>* fresh);
  // Waits for the first snapshot; null when the service stops or `gone()`.
  std::shared_ptr<const Snapshot> firstSnapshot(const std::function<bool()>& gone);
  // The command sources of `source` ("" for all) on the volume of `info`.
  static std::vector<const TrashIndex*> trashesOn(const Snapshot& snapshot, const Value& info,
                                                  const std::string& source);
  static std::vector<const Command*> commandsOn(const Snapshot& snapshot, const Value& info,
                                                const std::string& source);
  static std::vector<const RootIndex*> rootsOn(const Snapshot& snapshot, const Value& info,
                                               const std::string& source);
  // The cancel count of `source`, which its cancels raise.
  std::shared_ptr<std::atomic<std::uint64_t>> cancelsOf(const std::string& source);

  const std::function<Config()> load_;
  const std::string where_;
  const std::chrono::seconds scanInterval_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  bool stopped_ = false;  // stop() is done
  bool reloadPending_ = true;
  std::uint64_t requested_ = 1;
  std::uint64_t completed_ = 0;
  std::shared_ptr<const Snapshot> snapshot_;
  std::vector<PendingReply> pending_;
  std::atomic<std::uint64_t> cancelGeneration_{0};
  std::map<std::string, std::shared_ptr<std::atomic<std::uint64_t>>> sourceCancels_;
  std::vector<std::string> sources_;  // named by the configuration last read
  std::atomic<bool> stopFlag_{false};

  std::thread scanner_;
  // Purges and daily runs, one at a time. Queued only while `stopping_` is
  // false, under `mutex_`, so that stop() knows the last of them.
  const dispatch::QueuePtr jobs_ = dispatch::SerialQueue::create("cachedir.jobs");
};

}  // namespace vantor::cachedir
