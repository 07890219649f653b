#include "support/listener.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
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

std::atomic<VantorListener*> gResumedListener{nullptr};

std::optional<std::filesystem::path> executableOf(pid_t pid) {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
  if (ec)
    return std::nullopt;
  return path;
}

// Holds an sdbus::Result so a copyable reply block can carry it.
template <typename R>
std::shared_ptr<R> share(R&& result) {
  return std::make_shared<R>(std::move(result));
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
                                                           com::tessaly::vantor::Notify_adaptor> {
 public:
  ClientObject(sdbus::IConnection& connection, VantorListener& listener)
      : AdaptorInterfaces(connection, dbus::kObjectPath), listener_(listener) {
    registerAdaptor();
  }
  ~ClientObject() { unregisterAdaptor(); }

  using Notify_adaptor::emitPosted;

 private:
  template <typename R>
  void dispatchCall(R&& result, std::function<void(std::shared_ptr<R>)> body) {
    std::string sender = getObject().getCurrentlyProcessedMessage()->getSender();
    auto shared = share(std::move(result));
    VantorListener* listener = &listener_;
    dispatch::globalAsync([listener, sender = std::move(sender), shared, body = std::move(body)] {
      listener->admit(
          sender,
          [&] {
            try {
              body(shared);
            } catch (const NotSupportedError& e) {
              shared->returnError(sdbus::Error(dbus::kErrorNotSupported, e.what()));
            }
          },
          [&] {
            shared->returnError(
                sdbus::Error(dbus::kErrorAccessDenied, "Connection is not entitled"));
          });
    });
  }

  template <typename R>
  static bool convertArgs(const std::shared_ptr<R>& result, const std::string& error) {
    if (error.empty())
      return true;
    result->returnError(sdbus::Error(dbus::kErrorInvalidArgs, error));
    return false;
  }

  void ClientCheckin(sdbus::Result<VariantMap>&& result, std::string serviceId,
                     sdbus::Struct<std::string, sdbus::ObjectPath> endpoint,
                     VariantMap info) override {
    dispatchCall<sdbus::Result<VariantMap>>(
        std::move(result), [this, serviceId = std::move(serviceId), endpoint = std::move(endpoint),
                            info = std::move(info)](auto reply) {
          std::string error;
          Value infoValue(fromVariantMap(info, &error));
          if (!convertArgs(reply, error))
            return;
          ServiceEndpoint ep{std::get<0>(endpoint), std::get<1>(endpoint)};
          listener_.exported().clientCheckin(
              serviceId, ep, infoValue, [reply](Value dict, std::optional<std::string> failure) {
                if (failure) {
                  reply->returnError(sdbus::Error(dbus::kErrorFailed, *failure));
                } else {
                  reply->returnResults(dictionaryReply(dict));
                }
              });
        });
  }

  void dictionaryCall(sdbus::Result<VariantMap>&& result, VariantMap info,
                      void (VantorClientProtocol::*method)(const Value&,
                                                           VantorClientProtocol::DictionaryReply)) {
    dispatchCall<sdbus::Result<VariantMap>>(
        std::move(result), [this, info = std::move(info), method](auto reply) {
          std::string error;
          Value infoValue(fromVariantMap(info, &error));
          if (!convertArgs(reply, error))
            return;
          (listener_.exported().*method)(
              infoValue, [reply](Value dict) { reply->returnResults(dictionaryReply(dict)); });
        });
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
    dispatchCall<sdbus::Result<>>(std::move(result), [this](auto reply) {
      listener_.exported().clientCancelPurge([reply] { reply->returnResults(); });
    });
  }

  void ClientSetState(sdbus::Result<>&& result, VariantArray value, std::string key) override {
    dispatchCall<sdbus::Result<>>(
        std::move(result), [this, value = std::move(value), key = std::move(key)](auto reply) {
          if (value.size() > 1) {
            reply->returnError(
                sdbus::Error(dbus::kErrorInvalidArgs, "value holds more than one element"));
            return;
          }
          std::string error;
          Value v = fromOptionalVariant(value, &error);
          if (!convertArgs(reply, error))
            return;
          listener_.exported().clientSetState(v, Value(key), [reply] { reply->returnResults(); });
        });
  }

  void ClientGetState(sdbus::Result<VariantArray>&& result, std::string key) override {
    dispatchCall<sdbus::Result<VariantArray>>(
        std::move(result), [this, key = std::move(key)](auto reply) {
          listener_.exported().clientGetState(
              Value(key), [reply](const Value& v) { reply->returnResults(toOptionalVariant(v)); });
        });
  }

  VantorListener& listener_;
};

VantorListener::VantorListener(std::shared_ptr<VantorClientProtocol> exported)
    : exported_(std::move(exported)) {}

VantorListener::~VantorListener() {
  VantorListener* self = this;
  if (gResumedListener.compare_exchange_strong(self, nullptr))
    setServiceBus(nullptr, nullptr);
  object_.reset();
  if (connection_)
    connection_->leaveEventLoop();
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
    connection_->requestName(dbus::kBusName);
    connection_->enterEventLoopAsync();
    busDaemon_ = std::make_unique<dbus::BusDaemon>(*connection_);
    setServiceBus(connection_.get(), busDaemon_.get());
  } catch (const sdbus::Error& e) {
    if (error)
      *error = e.getName() + ": " + e.getMessage();
    object_.reset();
    connection_.reset();
    return false;
  }
  gResumedListener.store(this);
  return true;
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

std::shared_ptr<const ClientConnection> VantorListener::connectionFor(const std::string& sender) {
  {
    std::lock_guard lock(cacheMutex_);
    if (auto it = cache_.find(sender); it != cache_.end())
      return it->second;
  }
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

void VantorListener::admit(const std::string& sender, const std::function<void()>& body,
                           const std::function<void()>& deny) {
  auto connection = connectionFor(sender);
  if (!connectionIsEntitled(connection.get(),
                            std::vector<std::string>(required_.begin(), required_.end()))) {
    VANTOR_LOG(3, "%s refused a call from %@: not entitled", "-[VantorListener admit]",
               sender.c_str());
    deny();
    return;
  }
  ScopedCurrentConnection scope(connection.get());
  body();
}

int notifyPost(const std::string& name) {
  VantorListener* listener = gResumedListener.load();
  if (listener == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  int status = listener->postNotification(name);
  if (status == 0)
    sd_notify(0, "READY=1");
  return status;
}

}  // namespace vantor
