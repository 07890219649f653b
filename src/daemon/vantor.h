#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "platform/dispatch/queue.h"
#include "platform/dispatch/semaphore.h"
#include "platform/store/settings_store.h"
#include "platform/values/value.h"
#include "support/admin_protocol.h"
#include "support/client_protocol.h"
#include "support/listener.h"
#include "support/low_space.h"
#include "support/purge_history.h"
#include "support/service_connection.h"
#include "support/service_proxy.h"
#include "support/service_record.h"
#include "support/working_info.h"

namespace vantor {

// Elapsed nanoseconds = (end ticks - start ticks) * gTimebaseConversion.
// Set once by main before any work starts; 0.0 when the timebase is unknown.
extern double gTimebaseConversion;

class Vantor;
class VantorRecentInfo;

// The one coordinator of the process, set once by main.
extern std::shared_ptr<Vantor> sharedVantor;

enum class InFlightChange { kRemove, kAdd };
enum class OptOut { kQuery, kRecord };

// The coordinator: owns every shared collection, the settings store, the five
// serial queues and the listener, and is the object clients call.
//
// Every shared collection belongs to exactly one serial queue and is touched
// only in blocks run on it (after start-up):
//   services                                   operation_queue
//   daemons                                    daemons_queue
//   purgeableInFlight, purgeInFlight,
//   periodicInFlight, optOuts                  collection_queue
//   userDefaults (client state, recent info),
//   unwrittenState, writeInFlight              defaults_queue
// (but the file of the write in flight is written on a pool thread)
// The purge bookkeeping numbers are atomics read and written without a queue.
// The class is declared here; each subsystem folder defines the methods it
// owns.
class Vantor final : public VantorClientProtocol,
                     public VantorAdminProtocol,
                     public std::enable_shared_from_this<Vantor> {
 public:
  using StringSet = std::set<std::string>;
  using ServiceTable = std::map<std::string, std::shared_ptr<VTService>>;

  struct Options {
    // Overrides of ZEPHON_SIMULATOR_ROOT and STATE_DIRECTORY; unset reads the
    // environment.
    std::optional<std::string> root;
    std::optional<std::string> stateDirectory;
    // Whether to resume the listener on the bus (in-process tests do not).
    bool listen = true;
  };

  // Creates and starts the coordinator: reads the descriptor files, opens the
  // settings store, and resumes the listener. Never fails as a whole; a
  // listener that could not take the bus name is reported in `listenError`.
  static std::shared_ptr<Vantor> create(const Options& options, std::string* listenError = nullptr);
  ~Vantor() override;

  // --- properties ---------------------------------------------------------
  std::unique_ptr<VantorListener> listener;
  StringSet purgeableInFlight;
  StringSet purgeInFlight;
  StringSet periodicInFlight;
  std::unique_ptr<SettingsStore> userDefaults;
  ServiceTable services;
  StringSet daemons;
  Value::Dictionary default_values;
  std::map<std::string, Date> optOuts;
  dispatch::QueuePtr operation_queue;
  dispatch::QueuePtr daemons_queue;
  dispatch::QueuePtr collection_queue;
  dispatch::QueuePtr defaults_queue;
  std::atomic<bool> cancel{false};
  std::string rootPath;
  // Where the settings store and the daily run's stamp live.
  std::string stateDirectory;
  std::atomic<std::uint64_t> purge_amount_needed{0};
  std::atomic<std::uint64_t> purge_amount_reported{0};
  std::atomic<std::int32_t> purge_active_service_count{0};
  std::atomic<std::int32_t> viable_purging_services{0};
  std::atomic<std::int32_t> currentUrgency{0};
  dispatch::QueuePtr purge_post_queue;
  std::shared_ptr<dispatch::Semaphore> purge_semaphore() const;
  void setPurge_semaphore(std::shared_ptr<dispatch::Semaphore> semaphore);

  // A copy of `services` as it stood after its last change, for readers that
  // cannot wait for operation_queue (a purge holds it for minutes). Only
  // code running on operation_queue (or start-up) publishes.
  std::shared_ptr<const ServiceTable> publishedServices() const;
  void publishServices();

  // The descriptor directory: rootPath followed by "/System/Library/Vantor/".
  std::string plistDir() const;

  // --- descriptor files and service records --------------------------------
  // Calls `execBlock` with every descriptor below `path` (all depths, any
  // name) whose contents are a property-list dictionary.
  void scanPlistsAtPath(const std::string& path,
                        const std::function<void(const Value&)>& execBlock);
  // Turns one descriptor into a service record in `services` and its ID into
  // `daemons`. Only for start-up, before the listener runs.
  void addDescriptorService(const Value& descriptor);
  // The administrator's and the packages' descriptor directories below the
  // root, in the order they are read after plistDir: "/etc/vantor/services.d/"
  // and "/usr/lib/vantor/services.d/".
  std::vector<std::string> serviceDirs() const;
  // Reads the `*.plist` files of serviceDirs, in name order: a file of the
  // first directory masks the same-named file of the second, and an empty
  // one, or a link to /dev/null, disables the name. A descriptor whose ID is
  // already known is logged and skipped. Only for start-up.
  void scanServiceDirs();

  // --- request info --------------------------------------------------------
  // Null when `info` is acceptable, otherwise the error result.
  std::optional<Value> _checkInfo(const Value& info) const;
  // The urgency under `key`, 1 to 4, or 0 when absent or invalid.
  std::int32_t urgencyFromInfo(const Value& info, const std::string& key) const;

  // --- in-flight sets and opt-outs -----------------------------------------
  // Atomic test-and-set on collection_queue; false when refused (adding an
  // identifier already present, removing one not present).
  bool updateInFlight(const std::string& identifier, StringSet& set, InFlightChange change);
  std::uint64_t requestsInFlight(const StringSet& set);
  // kRecord notes an opt-out now and answers false; kQuery answers whether
  // the service opted out less than 120 seconds ago.
  bool optOutService(const std::string& identifier, OptOut action);
  // Services whose doesPurge is set. Must run on operation_queue.
  std::int32_t purgingServices();
  // The members of `set`, for log lines.
  std::string inFlightDescription(const StringSet& set);

  // --- recent-info cache (runs on defaults_queue) ----------------------------
  // Which purging services must be asked about info["VANTOR_VOLUME"]
  // ("VANTOR_SERVICES_TO_QUERY") and the cached amounts of the others
  // ("VANTOR_SERVICES_TO_COUNT"). Synchronous; never call it on defaults_queue.
  Value cachedInfo(const Value& info);
  // Records one service's reply {"VANTOR_VOLUME", "VANTOR_AMOUNT"}; returns at
  // once and writes the cache on defaults_queue.
  void updateServiceStats(const std::string& identifier, const Value& info);

  // The record last read or written, decoded, and the archive it came from:
  // while the stored archive is unchanged it need not be decoded again. A
  // reader takes the record out and hands it back if it stays as stored.
  // Belongs to defaults_queue.
  struct RecentInfoMemo {
    Value::Data archive;
    std::shared_ptr<VantorRecentInfo> record;
  };
  RecentInfoMemo recentInfoMemo;

  // --- purgeable-space query ---------------------------------------------
  // The error result of _checkInfo, or the query's result: one entry per
  // counted service, "VANTOR_VOLUME" and "VANTOR_TOTAL_AVAILABLE". Never call
  // it on operation_queue.
  Value totalAvailable(const Value& info);
  // The query itself; must run on operation_queue, which it holds throughout.
  Value _totalAvailable(std::int32_t urgency, const Value& info);

  // --- purge ---------------------------------------------------------------
  // Called with each service's reply to a purge request, as it comes.
  using PurgeCallback = std::function<void(const Value& reply)>;
  // Purges info["VANTOR_AMOUNT"] bytes on info["VANTOR_VOLUME"], walking the
  // purging services through the urgency levels, and returns the purge
  // result (or the error result of _checkInfo). Blocks the caller until the
  // body on operation_queue has finished or 120 seconds have passed; the body
  // goes on in the background after that. Never call it on operation_queue.
  Value purge(const Value& info, const PurgeCallback& callback);
  // Asks `service` for its share of what `info`'s purge still misses; returns
  // at once, the request runs on purge_post_queue.
  void queueServiceRequest(const std::shared_ptr<VTService>& service,
                           const std::shared_ptr<WorkingInfo>& info, const PurgeCallback& callback);
  // Records "<identifier>.purged" and, for a non-zero request, the percentage
  // bucket "<identifier>.purged.<bucket>.percent".
  void reportPercentageForAmountRequested(std::int64_t requested, std::int64_t purged,
                                          const std::string& identifier);

  // --- client protocol -----------------------------------------------------
  void clientCheckin(const std::string& serviceId, const ServiceEndpoint& endpoint,
                     const Value& info, CheckinReply reply) override;
  void clientPurgeableSpace(const Value& info, DictionaryReply reply) override;
  void clientItemizedPurgeableSpace(const Value& info, DictionaryReply reply) override;
  void clientPurge(const Value& info, DictionaryReply reply) override;
  void clientCancelPurge(EmptyReply reply) override;
  void clientSetState(const Value& value, const Value& key, StatusReply reply) override;
  void clientGetState(const Value& key, ObjectReply reply) override;

  // --- administration ----------------------------------------------------
  // The last purges, filed by the purge driver as each one finishes.
  PurgeHistory purgeHistory;
  NamedEntries adminListServices() override;
  NamedEntries adminGetVolumes() override;
  Value::Dictionary adminGetStatistics() override;
  Value::Array adminGetPurgeHistory() override;
  Value::Dictionary adminGetCounters() override;

  // --- service connections ---------------------------------------------
  // Sends a ping through `proxy` and waits, with no limit of its own, for the
  // pong; false when the connection failed first.
  // `wake` is also signalled when the connection fails, so a dead endpoint
  // does not hold the caller for good.
  bool pingService(const std::shared_ptr<VantorServiceProxy>& proxy,
                   const std::shared_ptr<dispatch::Semaphore>& wake);
  // Sends {name: value} to every service that subscribed to `name`; returns
  // at once.
  void notifyRecipients(const std::string& name, const Value& value);

  // --- client state (runs on defaults_queue) --------------------------------
  // `sender` names a client whose request is held to the state's limits;
  // empty for the daemon's own writes.
  void _clientSetState(const Value& value, const Value& key, const StatusReply& reply,
                       const std::string& sender = {});
  void _clientGetState(const Value& key, const ObjectReply& reply);
  // Changes to the client state made in memory and not yet written, by key
  // (a null value removes the key), and the callers waiting for them. The
  // first change schedules a write on defaults_queue, and every change queued
  // before that write runs goes out with it: a burst of sets costs one write,
  // and each caller is answered once its change is in the store. Clients read
  // only what is written; the daemon's own reads see its unwritten changes.
  struct UnwrittenState {
    Value::Dictionary changes;
    std::vector<StatusReply> waiting;
    bool writeScheduled = false;
  };
  UnwrittenState unwrittenState;
  // The write on its way to the file: its changes are made in the store's
  // memory, the file is written on a pool thread meanwhile (reads on
  // defaults_queue need not wait for the disk), and its callers are answered
  // when it ends. Changes made in the meantime wait for the next write.
  struct WriteInFlight {
    std::shared_ptr<SettingsStore::StagedMerge> staged;
    std::vector<StatusReply> waiting;
  };
  std::optional<WriteInFlight> writeInFlight;
  void _writeUnwrittenState();
  void _finishWrite(bool written, const std::string& error);
  // Answers `key` from the stored state, as it was before `unwritten` when
  // that is given.
  void _answerState(const Value& key, const ObjectReply& reply,
                    const SettingsStore::StagedMerge* unwritten);
  // The daemon's own read of `key`: its unwritten change when there is one,
  // else what the get worker answers.
  void _readOwnState(const Value& key, const ObjectReply& reply);
  // What the in-process forms carry: a property-list value, or the
  // recent-info record, which the store keeps as its keyed archive. The set
  // archives a record and passes any other value unchanged; the get unarchives
  // every data value it meets (data that is no archive of a record answers
  // null).
  using StateObject = std::variant<Value, std::shared_ptr<VantorRecentInfo>>;
  void clientSetStateSync(const StateObject& value, const Value& key);
  StateObject clientGetStateSync(const Value& key);

  // Reads the entitlement policy below rootPath again and installs it.
  void reloadEntitlementPolicy();

  // --- maintenance ---------------------------------------------------------
  // Asks every periodic service, at urgency 3, to do its housekeeping on
  // info["VANTOR_VOLUME"]. Runs on operation_queue and returns once every
  // call is sent; replies are only logged. Never call it on operation_queue.
  void performPeriodicsWithInfo(const Value& info);
  // Purges every volume that is low on space now, one after another, and
  // counts the event by its flags. Blocks up to 120 seconds per low volume.
  void handleVFSStreamXPCEvent(const VolumeEvent& event);
  // Registers the daily activity "com.tessaly.Vantor.daily": its handler runs
  // every periodic service on every local volume once per interval, and the
  // time of the last run is kept in stateDirectory. Called once, by main.
  void registerDailyActivity();
  // Starts the low-space monitor, whose events go to handleVFSStreamXPCEvent
  // on the global queue. Called once, by main.
  void registerVolumeEventStream();
  // Tells the low-space monitor that a purging service has appeared, so a
  // volume that is low now raises its event at once rather than at the next
  // poll. Does nothing before the monitor runs.
  void purgingServicesChanged();
  // Whether any known service purges (a descriptor or a checked-in service),
  // from the published table; the monitor raises no event while none does.
  bool anyPurgingService() const;

 private:
  Vantor() = default;
  bool init(const Options& options, std::string* listenError);
  // Asks one service for its purgeable amount and records the answer.
  void askPurgeable(const std::shared_ptr<VTService>& service, const std::string& identifier,
                    std::int32_t urgency, const Value& info);
  void registerService(const std::string& serviceId, const ServiceEndpoint& endpoint,
                       const Value& info, const std::string& sender, const CheckinReply& reply);
  // The purge's body, on operation_queue, which it holds throughout.
  void purgeBody(const std::shared_ptr<WorkingInfo>& working,
                 const std::vector<std::int32_t>& levels, const PurgeCallback& callback,
                 std::uint64_t userTimeout);
  // One service request's steps: computing and sending the share (on
  // purge_post_queue) and accounting the reply (on a pool thread).
  void sendServiceRequest(const std::shared_ptr<VTService>& service,
                          const std::shared_ptr<WorkingInfo>& info, const PurgeCallback& callback);
  void accountServiceReply(const std::shared_ptr<VTService>& service, const std::string& identifier,
                           const std::shared_ptr<WorkingInfo>& info, const PurgeCallback& callback,
                           std::uint64_t donation, std::uint64_t start, std::int32_t urgency,
                           const Value& reply, const std::function<void()>& finish);

  mutable std::mutex semaphoreMutex_;
  std::shared_ptr<dispatch::Semaphore> purgeSemaphore_;
  mutable std::mutex publishedMutex_;
  std::shared_ptr<const ServiceTable> published_ = std::make_shared<const ServiceTable>();
};

}  // namespace vantor
