#include "support/listener.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <set>
#include <thread>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/bus.h"
#include "platform/dbus/client_adaptor.h"
#include "platform/dispatch/global_pool.h"
#include "platform/values/dbus_value.h"
#include "support/log.h"
#include "support/service_connection.h"

namespace vantor {

namespace {

constexpr std::size_t kMaxCachedPeers = 4096;
constexpr std::chrono::seconds kCredentialsTimeout{5};
// Client calls that may be in progress (admitted, not yet answered) at once,
// in total and from one sender, for each of the two kinds of call. A call may
// hold a pool thread for minutes, so these keep a flood of callers well below
// the pool's ordinary limit and leave room for every other caller.
constexpr std::size_t kMaxCallsInProgress = 512;
constexpr std::size_t kMaxCallsPerSender = 64;

std::atomic<VantorListener*> gResumedListener{nullptr};

std::optional<std::filesystem::path> executableOf(pid_t pid) {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
  if (ec)
    return std::nullopt;
  return path;
}

// Counts the client calls in progress, in total and per sender. Shared with
// the admissions it hands out, which may outlive the listener.
class CallLimits : public std::enable_shared_from_this<CallLimits> {
 public:
  explicit CallLimits(const char* kind) : kind_(kind) {}

  // One admitted call's place. Released when the call is answered, when it is
  // destroyed, or when its sender leaves the bus, whichever comes first; the
  // last also raises the call's departure flag.
  class Admission {
   public:
    Admission(std::shared_ptr<CallLimits> limits, std::string sender)
        : limits_(std::move(limits)), sender_(std::move(sender)) {}
    ~Admission() { release(); }
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;
    void release() {
      if (!released_.exchange(true))
        limits_->leave(sender_, this);
    }
    CallerGone gone() const { return gone_; }

   private:
    friend class CallLimits;
    std::shared_ptr<CallLimits> limits_;
    std::string sender_;
    std::atomic<bool> released_{false};
    std::shared_ptr<std::atomic<bool>> gone_ = std::make_shared<std::atomic<bool>>(false);
  };

  // Admits a call from `sender`, or returns null with the reason when it would
  // go over a limit.
  std::unique_ptr<Admission> admit(const std::string& sender, std::string* reason) {
    std::lock_guard lock(mutex_);
    Sender& entry = senders_[sender];
    const char* over = nullptr;
    std::size_t limit = 0;
    if (entry.live.size() >= kMaxCallsPerSender) {
      over = "from this sender";
      limit = kMaxCallsPerSender;
    } else if (total_ >= kMaxCallsInProgress) {
      over = "in total";
      limit = kMaxCallsInProgress;
    }
    if (over != nullptr) {
      *reason = std::string("Too many ") + kind_ + " calls in progress " + over + " (limit " +
                std::to_string(limit) + "); retry once earlier calls are answered";
      // One line per episode, not one per refused call of a flood: per
      // sender while it is over its own limit, once for all while the total
      // is reached.
      bool& refusing = limit == kMaxCallsPerSender ? entry.refusing : refusingAll_;
      if (!refusing) {
        refusing = true;
        VANTOR_LOG(3, "%s refusing calls from %s: %s", "-[VantorListener dispatchCall]",
                   sender.c_str(), reason->c_str());
      }
      if (entry.live.empty())
        senders_.erase(sender);
      return nullptr;
    }
    auto admission = std::make_unique<Admission>(shared_from_this(), sender);
    entry.live.insert(admission.get());
    ++total_;
    return admission;
  }

  // `sender` has left the bus: its calls stop counting at once, and each is
  // marked so that its work is skipped when its turn comes.
  void senderLeft(const std::string& sender) {
    std::lock_guard lock(mutex_);
    auto it = senders_.find(sender);
    if (it == senders_.end())
      return;
    for (Admission* admission : it->second.live) {
      admission->gone_->store(true);
      if (!admission->released_.exchange(true))
        --total_;
    }
    refusingAll_ = false;
    senders_.erase(it);
  }

  // Calls counted now, and the senders they come from.
  std::pair<std::size_t, std::size_t> inProgress() {
    std::lock_guard lock(mutex_);
    return {total_, senders_.size()};
  }

 private:
  struct Sender {
    std::set<Admission*> live;
    bool refusing = false;
  };

  void leave(const std::string& sender, Admission* admission) {
    std::lock_guard lock(mutex_);
    --total_;
    refusingAll_ = false;
    auto it = senders_.find(sender);
    if (it != senders_.end() && it->second.live.erase(admission) != 0 && it->second.live.empty())
      senders_.erase(it);
  }

  const char* const kind_;
  std::mutex mutex_;
  std::size_t total_ = 0;
  bool refusingAll_ = false;
  std::unordered_map<std::string, Sender> senders_;
};

// A client call in progress: its reply handle and its place in the limits.
// Shared, so copyable reply blocks can carry it.
template <typename R>
struct PendingCall {
  R result;
  std::unique_ptr<CallLimits::Admission> admission;
};

// Sends a reply built by `send`. A reply that cannot be built or sent (the
// caller has left, the connection dropped, a string is not valid UTF-8) is
// logged, and the caller gets an error instead where that can still be sent.
template <typename R, typename Send>
void sendReply(const std::shared_ptr<PendingCall<R>>& call, Send&& send) {
  try {
    send(call->result);
  } catch (const std::exception& e) {
    VANTOR_LOG(3, "%s cannot send a reply: %s", "-[VantorListener sendReply]", e.what());
    try {
      call->result.returnError(sdbus::Error(dbus::kErrorFailed, "The reply could not be sent"));
    } catch (const std::exception&) {
      // The caller is gone for good; nothing else to tell.
    }
  }
  call->admission->release();
}

template <typename R>
void sendError(const std::shared_ptr<PendingCall<R>>& call, const std::string& name,
               const std::string& message) {
  sendReply(call, [&](R& result) { result.returnError(sdbus::Error(name, message)); });
}

VariantMap dictionaryReply(const Value& result) {
  if (const auto* dict = result.asDictionary())
    return toVariantMap(*dict);
  return {};
}

}  // namespace

// The object exported on /com/tessaly/vantor. Its methods run on the bus
// thread and do nothing but capture the call and hand it to the pool.
class ClientObject final : public sdbus::AdaptorInterfaces<com::tessaly::vantor::Client_adaptor,
                                                           com::tessaly::vantor::Notify_adaptor,
                                                           com::tessaly::vantor::Admin_adaptor> {
 public:
  ClientObject(sdbus::IConnection& connection, VantorListener& listener)
      : AdaptorInterfaces(connection, dbus::kObjectPath), listener_(listener) {
    registerAdaptor();
  }
  ~ClientObject() { unregisterAdaptor(); }

  using Admin_adaptor::emitPurgeFinished;
  using Notify_adaptor::emitLowSpace;
  using Notify_adaptor::emitPosted;

 private:
  // Whether a call's body may wait (for services, for the bus) or only
  // queues its work and returns.
  enum class Body { kMayWait, kQueuesOnly };
  // Which budget a call counts against: calls whose work waits on
  // operation_queue (queries, purges, check-ins), which a silent service can
  // hold for minutes, or the others (state, cancel, administration), which
  // must stay open whatever that queue does.
  enum class Budget { kOperations, kOthers };

  // Runs on the bus thread: refuses a call over the limits at once, with no
  // pool thread spent on it, and hands every other call to the pool. A body
  // that only queues its work runs here when its caller is known already,
  // sparing the pool a thread switch per call. Whatever the body throws is
  // answered org.freedesktop.DBus.Error.Failed with its message, and logged.
  template <typename R>
  void dispatchCall(R&& result, std::function<void(std::shared_ptr<PendingCall<R>>)> body,
                    Budget budget, Body kind = Body::kMayWait) {
    std::string sender = getObject().getCurrentlyProcessedMessage()->getSender();
    std::string reason;
    auto admission = limitsFor(budget).admit(sender, &reason);
    if (!admission) {
      try {
        result.returnError(sdbus::Error(kErrorLimitsExceeded, reason));
      } catch (const std::exception& e) {
        VANTOR_LOG(3, "%s cannot send a reply: %s", "-[VantorListener sendReply]", e.what());
      }
      return;
    }
    CallerGone gone = admission->gone();
    auto shared =
        std::make_shared<PendingCall<R>>(PendingCall<R>{std::move(result), std::move(admission)});
    const auto run = [shared, body = std::move(body)] {
      try {
        body(shared);
      } catch (const NotSupportedError& e) {
        sendError(shared, dbus::kErrorNotSupported, e.what());
      } catch (const std::exception& e) {
        VANTOR_LOG(3, "%s a call ended by throwing: %s", "-[VantorListener dispatchCall]",
                   e.what());
        sendError(shared, dbus::kErrorFailed, e.what());
      } catch (...) {
        VANTOR_LOG(3, "%s a call ended by throwing", "-[VantorListener dispatchCall]");
        sendError(shared, dbus::kErrorFailed, "The call failed");
      }
    };
    const auto deny = [shared] {
      sendError(shared, dbus::kErrorAccessDenied, "Connection is not entitled");
    };
    if (kind == Body::kQueuesOnly && listener_.admitKnown(sender, gone, run, deny))
      return;
    VantorListener* listener = &listener_;
    dispatch::globalAsync([listener, sender = std::move(sender), gone, run, deny] {
      listener->admit(sender, gone, run, deny);
    });
  }

  CallLimits& limitsFor(Budget budget) {
    return budget == Budget::kOperations ? *operationLimits_ : *otherLimits_;
  }

  template <typename R>
  static bool convertArgs(const std::shared_ptr<PendingCall<R>>& call, const std::string& error) {
    if (error.empty())
      return true;
    sendError(call, dbus::kErrorInvalidArgs, error);
    return false;
  }

  void ClientCheckin(sdbus::Result<VariantMap>&& result, std::string serviceId,
                     sdbus::Struct<std::string, sdbus::ObjectPath> endpoint,
                     VariantMap info) override {
    dispatchCall<sdbus::Result<VariantMap>>(
        std::move(result),
        [this, serviceId = std::move(serviceId), endpoint = std::move(endpoint),
         info = std::move(info)](auto reply) {
          std::string error;
          Value infoValue(fromVariantMap(info, &error));
          if (!convertArgs(reply, error))
            return;
          ServiceEndpoint ep{std::get<0>(endpoint), std::get<1>(endpoint)};
          listener_.exported().clientCheckin(
              serviceId, ep, infoValue, [reply](Value dict, std::optional<ClientError> failure) {
                if (failure) {
                  sendError(reply, failure->name, failure->message);
                } else {
                  sendReply(reply, [&](auto& r) { r.returnResults(dictionaryReply(dict)); });
                }
              });
        },
        Budget::kOperations);
  }

  void dictionaryCall(sdbus::Result<VariantMap>&& result, VariantMap info,
                      void (VantorClientProtocol::*method)(const Value&,
                                                           VantorClientProtocol::DictionaryReply)) {
    dispatchCall<sdbus::Result<VariantMap>>(
        std::move(result),
        [this, info = std::move(info), method](auto reply) {
          std::string error;
          Value infoValue(fromVariantMap(info, &error));
          if (!convertArgs(reply, error))
            return;
          (listener_.exported().*method)(infoValue, [reply](Value dict) {
            sendReply(reply, [&](auto& r) { r.returnResults(dictionaryReply(dict)); });
          });
        },
        Budget::kOperations);
  }

  void ClientPurgeableSpace(sdbus::Result<VariantMap>&& result, VariantMap info) override {
    dictionaryCall(std::move(result), std::move(info), &VantorClientProtocol::clientPurgeableSpace);
  }
  void ClientItemizedPurgeableSpace(sdbus::Result<VariantMap>&& result, VariantMap info) override {
    dictionaryCall(std::move(result), std::move(info),
                   &VantorClientProtocol::clientItemizedPurgeableSpace);
  }
  void ClientPurge(sdbus::Result<VariantMap>&& result, VariantMap info) override {
    dictionaryCall(std::move(result), std::move(info), &VantorClientProtocol::clientPurge);
  }

  void ClientCancelPurge(sdbus::Result<>&& result) override {
    dispatchCall<sdbus::Result<>>(
        std::move(result),
        [this](auto reply) {
          listener_.exported().clientCancelPurge(
              [reply] { sendReply(reply, [](auto& r) { r.returnResults(); }); });
        },
        Budget::kOthers);
  }

  void ClientSetState(sdbus::Result<>&& result, VariantArray value, std::string key) override {
    dispatchCall<sdbus::Result<>>(
        std::move(result),
        [this, value = std::move(value), key = std::move(key)](auto reply) {
          if (value.size() > 1) {
            sendError(reply, dbus::kErrorInvalidArgs, "value holds more than one element");
            return;
          }
          std::string error;
          Value v = fromOptionalVariant(value, &error);
          if (!convertArgs(reply, error))
            return;
          listener_.exported().clientSetState(
              v, Value(key), [reply](std::optional<ClientError> failure) {
                if (failure) {
                  sendError(reply, failure->name, failure->message);
                } else {
                  sendReply(reply, [](auto& r) { r.returnResults(); });
                }
              });
        },
        Budget::kOthers, Body::kQueuesOnly);
  }

  void ClientGetState(sdbus::Result<VariantArray>&& result, std::string key) override {
    dispatchCall<sdbus::Result<VariantArray>>(
        std::move(result),
        [this, key = std::move(key)](auto reply) {
          listener_.exported().clientGetState(Value(key), [reply](const Value& v) {
            sendReply(reply, [&](auto& r) { r.returnResults(toOptionalVariant(v)); });
          });
        },
        Budget::kOthers, Body::kQueuesOnly);
  }

  // --- administration: read-only, answered on the pool thread ------------
  using NamedEntry = sdbus::Struct<std::string, VariantMap>;

  // Runs `answer` with the coordinator's administration side; an exported
  // object without one answers NotSupported.
  template <typename R, typename Answer>
  void adminCall(R&& result, Answer answer) {
    dispatchCall<R>(
        std::move(result),
        [this, answer](auto reply) {
          auto* admin = dynamic_cast<VantorAdminProtocol*>(&listener_.exported());
          if (admin == nullptr)
            throw NotSupportedError("Administration is not offered");
          sendReply(reply, [&](auto& r) { r.returnResults(answer(*admin)); });
        },
        Budget::kOthers);
  }

  static std::vector<NamedEntry> namedEntries(const VantorAdminProtocol::NamedEntries& entries) {
    std::vector<NamedEntry> out;
    out.reserve(entries.size());
    for (const auto& [name, fields] : entries)
      out.emplace_back(name, toVariantMap(fields));
    return out;
  }

  void ListServices(sdbus::Result<std::vector<NamedEntry>>&& result) override {
    adminCall(std::move(result),
              [](VantorAdminProtocol& admin) { return namedEntries(admin.adminListServices()); });
  }
  void GetVolumes(sdbus::Result<std::vector<NamedEntry>>&& result) override {
    adminCall(std::move(result),
              [](VantorAdminProtocol& admin) { return namedEntries(admin.adminGetVolumes()); });
  }
  void GetStatistics(sdbus::Result<std::map<std::string, VariantMap>>&& result) override {
    adminCall(std::move(result), [](VantorAdminProtocol& admin) {
      std::map<std::string, VariantMap> out;
      for (const auto& [name, summary] : admin.adminGetStatistics())
        out.emplace(name, dictionaryReply(summary));
      return out;
    });
  }
  void GetPurgeHistory(sdbus::Result<std::vector<VariantMap>>&& result) override {
    adminCall(std::move(result), [](VantorAdminProtocol& admin) {
      std::vector<VariantMap> out;
      for (const auto& entry : admin.adminGetPurgeHistory())
        out.push_back(dictionaryReply(entry));
      return out;
    });
  }

  void GetCounters(sdbus::Result<VariantMap>&& result) override {
    adminCall(std::move(result), [this](VantorAdminProtocol& admin) {
      Value::Dictionary counters = admin.adminGetCounters();
      // Calls counted against each budget now, and the callers they are from.
      for (const auto& [kind, limits] : {std::pair{"operation", operationLimits_.get()},
                                         std::pair{"other", otherLimits_.get()}}) {
        const auto [calls, callers] = limits->inProgress();
        counters.insert_or_assign(std::string(kind) + "Calls",
                                  Value(static_cast<std::uint64_t>(calls)));
        counters.insert_or_assign(std::string(kind) + "Callers",
                                  Value(static_cast<std::uint64_t>(callers)));
      }
      return dictionaryReply(Value(std::move(counters)));
    });
  }

 public:
  // `sender` has left the bus: its calls stop counting at once.
  void senderLeft(const std::string& sender) {
    operationLimits_->senderLeft(sender);
    otherLimits_->senderLeft(sender);
  }

 private:
  VantorListener& listener_;
  std::shared_ptr<CallLimits> operationLimits_ = std::make_shared<CallLimits>("operation");
  std::shared_ptr<CallLimits> otherLimits_ =
      std::make_shared<CallLimits>("state and administration");
};

VantorListener::VantorListener(std::shared_ptr<VantorClientProtocol> exported)
    : exported_(std::move(exported)) {}

VantorListener::~VantorListener() {
  VantorListener* self = this;
  if (gResumedListener.compare_exchange_strong(self, nullptr))
    setServiceBus(nullptr, nullptr);
  departures_.reset();
  object_.reset();
  leaveEventLoops();
}

void VantorListener::leaveEventLoops() {
  leaving_ = true;
  for (auto [connection, loop] : {std::pair{connection_.get(), &eventLoop_},
                                  std::pair{serviceConnection_.get(), &serviceEventLoop_}}) {
    if (loop->joinable()) {
      connection->leaveEventLoop();
      loop->join();
    }
  }
}

std::unique_ptr<VantorListener> VantorListener::daemonListenerWithExportedObject(
    std::shared_ptr<VantorClientProtocol> exported) {
  return std::unique_ptr<VantorListener>(new VantorListener(std::move(exported)));
}

void VantorListener::addRequiredEntitlement(const std::string& name) {
  required_.insert(name);
}

bool VantorListener::resume(std::string* error) {
  try {
    connection_ = dbus::openSystemBus();
    object_ = std::make_unique<ClientObject>(*connection_, *this);
    // Watched before the name is taken, so no caller can leave unseen. The
    // bus tells of every connection that goes; only unique names are callers.
    departures_ = connection_->addMatch(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg2=''",
        [this](sdbus::Message& message) {
          std::string name, oldOwner, newOwner;
          try {
            message >> name >> oldOwner >> newOwner;
          } catch (const sdbus::Error& e) {
            VANTOR_LOG(3, "%s unreadable NameOwnerChanged: %s", "-[VantorListener resume]",
                       e.what());
            return;
          }
          if (newOwner.empty() && !name.empty() && name.front() == ':')
            callerLeft(name);
        });
    connection_->requestName(dbus::kBusName);
    eventLoop_ = startEventLoop(*connection_);
    busDaemon_ = std::make_unique<dbus::BusDaemon>(*connection_);
    serviceConnection_ = dbus::openSystemBus();
    serviceEventLoop_ = startEventLoop(*serviceConnection_);
    serviceBusDaemon_ = std::make_unique<dbus::BusDaemon>(*serviceConnection_);
    setServiceBus(serviceConnection_.get(), serviceBusDaemon_.get());
  } catch (const sdbus::Error& e) {
    if (error)
      *error = e.getName() + ": " + e.getMessage();
    departures_.reset();
    object_.reset();
    leaveEventLoops();
    serviceBusDaemon_.reset();
    busDaemon_.reset();
    serviceConnection_.reset();
    connection_.reset();
    leaving_ = false;
    return false;
  }
  gResumedListener.store(this);
  return true;
}

// A bus thread. Without its connections the daemon serves nobody and cannot
// get them back by itself (its name, its service connections and its
// callers' identities belong to the old ones), so when a loop ends other than
// by `leaveEventLoop` the process exits with status 1 and the service manager
// starts it afresh.
std::thread VantorListener::startEventLoop(sdbus::IConnection& connection) {
  return std::thread([this, &connection] {
    std::string why = "the connection was closed";
    try {
      connection.enterEventLoop();
    } catch (const std::exception& e) {
      why = e.what();
    }
    if (leaving_)
      return;
    VANTOR_LOG(3, "%s lost the bus connection: %s", "-[VantorListener resume]", why.c_str());
    std::fprintf(stderr, "vantord: lost the system bus connection (%s); exiting\n", why.c_str());
    std::fflush(stderr);
    ::_exit(1);
  });
}

int VantorListener::postNotification(const std::string& name) {
  if (!object_) {
    errno = ENOTCONN;
    return -1;
  }
  try {
    object_->emitPosted(name);
  } catch (const sdbus::Error&) {
    errno = EIO;
    return -1;
  }
  return 0;
}

int VantorListener::postLowSpace(const std::string& volume, std::uint64_t available,
                                 std::uint64_t threshold, bool veryLow) {
  if (!object_) {
    errno = ENOTCONN;
    return -1;
  }
  try {
    object_->emitLowSpace(volume, available, threshold, veryLow);
  } catch (const sdbus::Error&) {
    errno = EIO;
    return -1;
  }
  return 0;
}

int VantorListener::postPurgeFinished(const Value::Dictionary& purge) {
  if (!object_) {
    errno = ENOTCONN;
    return -1;
  }
  try {
    object_->emitPurgeFinished(toVariantMap(purge));
  } catch (const sdbus::Error&) {
    errno = EIO;
    return -1;
  }
  return 0;
}

std::shared_ptr<const ClientConnection> VantorListener::knownConnection(const std::string& sender) {
  std::lock_guard lock(cacheMutex_);
  auto it = cache_.find(sender);
  return it != cache_.end() ? it->second : nullptr;
}

std::shared_ptr<const ClientConnection> VantorListener::connectionFor(const std::string& sender) {
  if (auto known = knownConnection(sender))
    return known;
  // Unique bus names are never reused while the bus runs, and a connection's
  // credentials are fixed when it connects, so the answer can be kept.
  std::optional<PeerIdentity> identity;
  if (busDaemon_) {
    if (auto creds = busDaemon_->peerCredentials(sender, kCredentialsTimeout)) {
      PeerIdentity peer{*creds, std::nullopt};
      if (creds->pid)
        peer.executable = executableOf(*creds->pid);
      identity = std::move(peer);
    }
  }
  auto connection = std::make_shared<const ClientConnection>(sender, std::move(identity));
  if (connection->identity()) {
    std::lock_guard lock(cacheMutex_);
    if (cache_.size() >= kMaxCachedPeers)
      cache_.clear();
    cache_.emplace(sender, connection);
  }
  return connection;
}

void VantorListener::admit(const std::string& sender, const CallerGone& gone,
                           const std::function<void()>& body, const std::function<void()>& deny) {
  admitConnection(connectionFor(sender), gone, body, deny);
}

bool VantorListener::admitKnown(const std::string& sender, const CallerGone& gone,
                                const std::function<void()>& body,
                                const std::function<void()>& deny) {
  auto connection = knownConnection(sender);
  if (!connection)
    return false;
  admitConnection(connection, gone, body, deny);
  return true;
}

void VantorListener::callerLeft(const std::string& sender) {
  if (object_)
    object_->senderLeft(sender);
  std::lock_guard lock(cacheMutex_);
  cache_.erase(sender);
}

void VantorListener::admitConnection(const std::shared_ptr<const ClientConnection>& connection,
                                     const CallerGone& gone, const std::function<void()>& body,
                                     const std::function<void()>& deny) {
  if (!connectionIsEntitled(connection.get(),
                            std::vector<std::string>(required_.begin(), required_.end()))) {
    VANTOR_LOG(3, "%s refused a call from %s: not entitled", "-[VantorListener admit]",
               connection->sender().c_str());
    deny();
    return;
  }
  ScopedCurrentConnection scope(connection.get(), gone);
  body();
}

int notifyPost(const std::string& name) {
  VantorListener* listener = gResumedListener.load();
  if (listener == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  return listener->postNotification(name);
}

void notifyReady() {
  sd_notify(0, "READY=1");
}

int notifyLowSpace(const std::string& volume, std::uint64_t available, std::uint64_t threshold,
                   bool veryLow) {
  VantorListener* listener = gResumedListener.load();
  if (listener == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  return listener->postLowSpace(volume, available, threshold, veryLow);
}

int notifyPurgeFinished(const Value::Dictionary& purge) {
  VantorListener* listener = gResumedListener.load();
  if (listener == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  return listener->postPurgeFinished(purge);
}

}  // namespace vantor
