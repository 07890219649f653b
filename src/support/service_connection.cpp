#include "support/service_connection.h"

#include <systemd/sd-bus.h>

#include <atomic>
#include <limits>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/queue.h"
#include "platform/values/dbus_value.h"

namespace vantor {

namespace {

// Calls to services carry no time-out of the daemon's own: the daemon's logic
// does its own waiting, and a late reply must still arrive. Only the bus's
// own limit on pending replies applies.
constexpr std::uint64_t kNoTimeout = std::numeric_limits<std::uint64_t>::max();
constexpr std::chrono::seconds kBusAnswerTimeout{10};

// Services' replies and call failures are handled one at a time, in the
// order they arrive, on one serial queue of their own. Every handler only
// does bookkeeping and hands longer work on, so one queue keeps up; and the
// counters that a purge's replies change by a read and a separate write are
// then never changed by two replies at once, which would lose one of the
// changes and leave a level waiting out its full time.
dispatch::SerialQueue& replyQueue() {
  static dispatch::QueuePtr* const queue =
      new dispatch::QueuePtr(dispatch::SerialQueue::create("com.tessaly.vantor.service-replies"));
  return **queue;
}

std::atomic<sdbus::IConnection*> gServiceBus{nullptr};
std::atomic<dbus::BusDaemon*> gServiceBusDaemon{nullptr};

// The service protocol over D-Bus. Replies and failures are handed to the
// pool before any daemon code runs.
class DBusServiceProxy final : public VantorServiceProxy {
 public:
  DBusServiceProxy(sdbus::IConnection& connection, const ServiceEndpoint& endpoint,
                   std::function<void(const std::string&)> errorHandler)
      : proxy_(sdbus::createProxy(connection, endpoint.busName, endpoint.objectPath)),
        errorHandler_(
            std::make_shared<std::function<void(const std::string&)>>(std::move(errorHandler))) {}

  void servicePurgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    dictionaryCall("ServicePurgeable", urgency, info, std::move(reply));
  }
  void servicePurge(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    dictionaryCall("ServicePurge", urgency, info, std::move(reply));
  }
  void servicePeriodic(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    auto onError = errorHandler_;
    send([&](sdbus::AsyncMethodInvoker& call) { call.withArguments(urgency, dictionaryOf(info)); },
         "ServicePeriodic",
         [onError, reply = std::move(reply)](const sdbus::Error* error, VariantArray result) {
           deliver(onError, error, [reply, result] {
             std::string conversion;
             reply(fromOptionalVariant(result, &conversion));
           });
         });
  }
  void serviceCancelPurge(EmptyReply reply) override {
    emptyCall("ServiceCancelPurge", std::move(reply));
  }
  void servicePing(EmptyReply reply) override { emptyCall("ServicePing", std::move(reply)); }
  void serviceNotify(const Value& notification, EmptyReply reply) override {
    auto onError = errorHandler_;
    send([&](sdbus::AsyncMethodInvoker& call) { call.withArguments(dictionaryOf(notification)); },
         "ServiceNotify",
         [onError, reply = std::move(reply)](const sdbus::Error* error) {
           deliver(onError, error, reply);
         });
  }
  void serviceCallback(const Value& info, DictionaryReply reply) override {
    auto onError = errorHandler_;
    send([&](sdbus::AsyncMethodInvoker& call) { call.withArguments(dictionaryOf(info)); },
         "ServiceCallback",
         [onError, reply = std::move(reply)](const sdbus::Error* error, VariantMap result) {
           deliver(onError, error, [reply, result] { reply(Value(fromVariantMap(result))); });
         });
  }

 private:
  using ErrorHandler = std::shared_ptr<std::function<void(const std::string&)>>;

  static VariantMap dictionaryOf(const Value& v) {
    if (const auto* d = v.asDictionary())
      return toVariantMap(*d);
    return {};
  }

  // Runs `onReply` or the error handler on the reply queue.
  static void deliver(const ErrorHandler& onError, const sdbus::Error* error,
                      std::function<void()> onReply) {
    if (error != nullptr) {
      std::string text = error->getName() + ": " + error->getMessage();
      replyQueue().async([onError, text] {
        if (*onError)
          (*onError)(text);
      });
      return;
    }
    replyQueue().async(std::move(onReply));
  }

  template <typename Callback>
  void send(const std::function<void(sdbus::AsyncMethodInvoker&)>& addArgs, const char* method,
            Callback&& callback) {
    try {
      // The invoker keeps a reference to the method name: it must outlive it.
      const std::string methodName(method);
      auto call = proxy_->callMethodAsync(methodName);
      call.onInterface(dbus::kServiceInterface).withTimeout(kNoTimeout);
      addArgs(call);
      call.uponReplyInvoke(std::forward<Callback>(callback));
    } catch (const sdbus::Error& e) {
      std::string text = e.getName() + ": " + e.getMessage();
      auto onError = errorHandler_;
      replyQueue().async([onError, text] {
        if (*onError)
          (*onError)(text);
      });
    }
  }

  void dictionaryCall(const char* method, std::int32_t urgency, const Value& info,
                      DictionaryReply reply) {
    auto onError = errorHandler_;
    send([&](sdbus::AsyncMethodInvoker& call) { call.withArguments(urgency, dictionaryOf(info)); },
         method,
         [onError, reply = std::move(reply)](const sdbus::Error* error, VariantMap result) {
           deliver(onError, error, [reply, result] { reply(Value(fromVariantMap(result))); });
         });
  }

  void emptyCall(const char* method, EmptyReply reply) {
    auto onError = errorHandler_;
    send([](sdbus::AsyncMethodInvoker&) {}, method,
         [onError, reply = std::move(reply)](const sdbus::Error* error) {
           deliver(onError, error, reply);
         });
  }

  std::unique_ptr<sdbus::IProxy> proxy_;
  ErrorHandler errorHandler_;
};

}  // namespace

// libsystemd reads C strings: a name or path with a NUL inside would be judged
// by its part before the NUL, so such a string is refused here.
bool isValidBusName(const std::string& name) {
  return name.find('\0') == std::string::npos && sd_bus_service_name_is_valid(name.c_str()) > 0;
}

bool isValidObjectPath(const std::string& path) {
  return path.find('\0') == std::string::npos && sd_bus_object_path_is_valid(path.c_str()) > 0;
}

sdbus::IConnection* serviceBus() {
  return gServiceBus.load();
}
dbus::BusDaemon* serviceBusDaemon() {
  return gServiceBusDaemon.load();
}
void setServiceBus(sdbus::IConnection* connection, dbus::BusDaemon* busDaemon) {
  gServiceBus.store(connection);
  gServiceBusDaemon.store(busDaemon);
}

std::shared_ptr<VantorServiceProxy> makeServiceProxy(
    sdbus::IConnection& connection, const ServiceEndpoint& endpoint,
    std::function<void(const std::string& error)> errorHandler) {
  return std::make_shared<DBusServiceProxy>(connection, endpoint, std::move(errorHandler));
}

std::shared_ptr<ServiceConnection> ServiceConnection::initWithListenerEndpoint(
    const ServiceEndpoint& endpoint) {
  return std::shared_ptr<ServiceConnection>(new ServiceConnection(endpoint));
}

ServiceConnection::~ServiceConnection() = default;

void ServiceConnection::setInvalidationHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  invalidationHandler_ = std::move(handler);
}

void ServiceConnection::setInterruptionHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  interruptionHandler_ = std::move(handler);
}

std::shared_ptr<VantorServiceProxy> ServiceConnection::remoteObjectProxyWithErrorHandler(
    std::function<void(const std::string& error)> errorHandler) {
  sdbus::IConnection* bus = serviceBus();
  if (bus == nullptr || !isValidBusName(endpoint_.busName) ||
      !isValidObjectPath(endpoint_.objectPath)) {
    // Nothing can be reached: every call fails at once.
    class Unreachable final : public VantorServiceProxy {
     public:
      explicit Unreachable(std::function<void(const std::string&)> h) : h_(std::move(h)) {}
      void fail() {
        auto h = h_;
        dispatch::globalAsync([h] {
          if (h)
            h("org.freedesktop.DBus.Error.ServiceUnknown: endpoint cannot be reached");
        });
      }
      void servicePurgeable(std::int32_t, const Value&, DictionaryReply) override { fail(); }
      void servicePurge(std::int32_t, const Value&, DictionaryReply) override { fail(); }
      void servicePeriodic(std::int32_t, const Value&, DictionaryReply) override { fail(); }
      void serviceCancelPurge(EmptyReply) override { fail(); }
      void servicePing(EmptyReply) override { fail(); }
      void serviceNotify(const Value&, EmptyReply) override { fail(); }
      void serviceCallback(const Value&, DictionaryReply) override { fail(); }

     private:
      std::function<void(const std::string&)> h_;
    };
    return std::make_shared<Unreachable>(std::move(errorHandler));
  }
  return makeServiceProxy(*bus, endpoint_, std::move(errorHandler));
}

void ServiceConnection::resume() {
  sdbus::IConnection* bus = serviceBus();
  if (bus == nullptr || !isValidBusName(endpoint_.busName)) {
    invalidate();
    return;
  }
  std::weak_ptr<ServiceConnection> weak = weak_from_this();
  try {
    auto slot = bus->addMatch(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg0='" +
            endpoint_.busName + "'",
        [weak](sdbus::Message& message) {
          std::string name, oldOwner, newOwner;
          message >> name >> oldOwner >> newOwner;
          if (!newOwner.empty())
            return;
          dispatch::globalAsync([weak] {
            if (auto self = weak.lock())
              self->invalidate();
          });
        });
    std::lock_guard lock(mutex_);
    watch_ = std::move(slot);
  } catch (const sdbus::Error&) {
    invalidate();
    return;
  }
  // The owner may have gone before the watch was in place.
  dispatch::globalAsync([weak] {
    auto self = weak.lock();
    if (!self)
      return;
    dbus::BusDaemon* daemon = serviceBusDaemon();
    auto owned = daemon ? daemon->nameHasOwner(self->endpoint_.busName, kBusAnswerTimeout)
                        : std::optional<bool>(false);
    if (owned && !*owned)
      self->invalidate();
  });
}

void ServiceConnection::invalidate() {
  Handler handler;
  sdbus::Slot watch;
  {
    std::lock_guard lock(mutex_);
    if (invalidated_)
      return;
    invalidated_ = true;
    handler = std::move(invalidationHandler_);
    invalidationHandler_ = nullptr;
    interruptionHandler_ = nullptr;
    watch = std::move(watch_);
  }
  // `watch` goes out of scope here, which removes its match rule.
  if (handler)
    dispatch::globalAsync(std::move(handler));
}

bool ServiceConnection::isValid() const {
  std::lock_guard lock(mutex_);
  return !invalidated_;
}

}  // namespace vantor
