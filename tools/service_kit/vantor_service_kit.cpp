#include "vantor_service_kit.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/bus.h"
#include "platform/dbus/service_adaptor.h"
#include "platform/values/dbus_value.h"

namespace vantor::kit {

namespace {

Value emptyDictionary() {
  return Value(Value::Dictionary{});
}

VariantMap dictionaryOf(const Value& v) {
  if (const auto* d = v.asDictionary())
    return toVariantMap(*d);
  return {};
}

}  // namespace

void Service::purgeable(std::int32_t, const Value&, DictionaryReply reply) {
  reply(Value(Value::Dictionary{{"VANTOR_AMOUNT", Value(std::uint64_t{0})}}));
}
void Service::purge(std::int32_t, const Value&, DictionaryReply reply) {
  reply(Value(Value::Dictionary{{"VANTOR_AMOUNT", Value(std::uint64_t{0})}}));
}
void Service::periodic(std::int32_t, const Value&, DictionaryReply reply) {
  reply(Value());
}
void Service::callback(const Value&, DictionaryReply reply) {
  reply(emptyDictionary());
}

// A call's result, answered at most once. Answering also lets go of the
// call's message, there and then. The bus library takes its connection lock
// to release a message, and the bus thread holds that lock while it runs the
// service's methods; a reply callable dropped later, perhaps under a lock of
// the service's that those methods take too, must no longer hold one.
template <typename R>
class PendingResult {
 public:
  explicit PendingResult(R&& result) : result_(std::move(result)) {}

  template <typename... Args>
  void answer(Args&&... args) {
    std::optional<R> result;
    {
      std::lock_guard lock(mutex_);
      result.swap(result_);
    }
    if (result)
      result->returnResults(std::forward<Args>(args)...);
  }

 private:
  std::mutex mutex_;
  std::optional<R> result_;
};

// The exported object. Each call hands its result holder to the service,
// which may answer from any thread.
class ServiceHost::Adaptor final
    : public sdbus::AdaptorInterfaces<com::tessaly::vantor::Service_adaptor> {
 public:
  using Resolver = std::function<std::shared_ptr<Service>(const std::string& destination)>;

  Adaptor(sdbus::IConnection& connection, const std::string& path, Resolver resolve)
      : AdaptorInterfaces(connection, path), resolve_(std::move(resolve)) {
    registerAdaptor();
  }
  ~Adaptor() { unregisterAdaptor(); }

 private:
  template <typename R>
  static std::shared_ptr<PendingResult<R>> share(R&& r) {
    return std::make_shared<PendingResult<R>>(std::move(r));
  }

  static Service::DictionaryReply dictionaryReply(
      std::shared_ptr<PendingResult<sdbus::Result<VariantMap>>> r) {
    return [r](Value v) { r->answer(dictionaryOf(v)); };
  }

  void ServicePurgeable(sdbus::Result<VariantMap>&& result, std::int32_t urgency,
                        VariantMap info) override {
    service()->purgeable(urgency, Value(fromVariantMap(info)),
                         dictionaryReply(share(std::move(result))));
  }
  void ServicePurge(sdbus::Result<VariantMap>&& result, std::int32_t urgency,
                    VariantMap info) override {
    service()->purge(urgency, Value(fromVariantMap(info)),
                     dictionaryReply(share(std::move(result))));
  }
  void ServicePeriodic(sdbus::Result<VariantArray>&& result, std::int32_t urgency,
                       VariantMap info) override {
    auto r = share(std::move(result));
    service()->periodic(urgency, Value(fromVariantMap(info)),
                        [r](Value v) { r->answer(toOptionalVariant(v)); });
  }
  void ServiceCancelPurge(sdbus::Result<>&& result) override {
    service()->cancelPurge();
    result.returnResults();
  }
  void ServicePing(sdbus::Result<>&& result) override {
    auto r = share(std::move(result));
    service()->ping([r] { r->answer(); });
  }
  void ServiceNotify(sdbus::Result<>&& result, VariantMap notification) override {
    service()->notify(Value(fromVariantMap(notification)));
    result.returnResults();
  }
  void ServiceCallback(sdbus::Result<VariantMap>&& result, VariantMap info) override {
    service()->callback(Value(fromVariantMap(info)), dictionaryReply(share(std::move(result))));
  }

  // The service of the call being handled: the object's own, or the one
  // its destination names.
  std::shared_ptr<Service> service() {
    const sdbus::Message* message = getObject().getCurrentlyProcessedMessage();
    return resolve_(message != nullptr ? message->getDestination() : std::string());
  }

  Resolver resolve_;
};

ServiceHost::ServiceHost(std::shared_ptr<Service> service, std::optional<std::string> busName)
    : service_(std::move(service)), connection_(dbus::openSystemBus()) {
  adaptor_ = std::make_unique<Adaptor>(
      *connection_, dbus::kServiceObjectPath,
      [this](const std::string& destination) { return serviceFor(destination); });
  if (busName)
    connection_->requestName(*busName);
  connection_->enterEventLoopAsync();
}

ServiceHost::~ServiceHost() {
  connection_->leaveEventLoop();
  adaptor_.reset();
  added_.clear();
}

std::shared_ptr<Service> ServiceHost::serviceFor(const std::string& destination) {
  std::lock_guard lock(routesMutex_);
  auto it = byBusName_.find(destination);
  return it != byBusName_.end() ? it->second : service_;
}

void ServiceHost::addService(std::shared_ptr<Service> service, const std::string& objectPath,
                             std::optional<std::string> busName) {
  added_.push_back(std::make_unique<Adaptor>(*connection_, objectPath,
                                             [service](const std::string&) { return service; }));
  if (busName) {
    {
      std::lock_guard lock(routesMutex_);
      byBusName_[*busName] = service;
    }
    connection_->requestName(*busName);
  }
}

std::string ServiceHost::uniqueName() const {
  return connection_->getUniqueName();
}

Value ServiceHost::checkIn(const CheckinRequest& request, std::chrono::milliseconds timeout) {
  Value::Array notifications;
  for (const auto& n : request.notifications)
    notifications.emplace_back(n);
  Value::Dictionary info{{"PURGE", Value(request.purge)}, {"PERIODIC", Value(request.periodic)}};
  if (!notifications.empty())
    info.emplace("VANTOR_NOTIFICATIONS", Value(notifications));

  // The daemon pings the service before it answers, so the bus thread must
  // stay free: the call is asynchronous and this thread waits for it.
  struct Outcome {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    std::optional<sdbus::Error> error;
    VariantMap reply;
  };
  auto outcome = std::make_shared<Outcome>();
  auto proxy = sdbus::createProxy(*connection_, dbus::kBusName, dbus::kObjectPath);
  proxy->callMethodAsync("ClientCheckin")
      .onInterface(dbus::kClientInterface)
      .withTimeout(timeout)
      .withArguments(request.id,
                     sdbus::Struct<std::string, sdbus::ObjectPath>{
                         uniqueName(), sdbus::ObjectPath(request.objectPath)},
                     toVariantMap(info))
      .uponReplyInvoke([outcome](const sdbus::Error* error, VariantMap reply) {
        std::lock_guard lock(outcome->mutex);
        if (error != nullptr)
          outcome->error = *error;
        outcome->reply = std::move(reply);
        outcome->done = true;
        outcome->cv.notify_all();
      });
  std::unique_lock lock(outcome->mutex);
  // The call's own time-out answers first; the margin only guards a bus that
  // never reports it.
  if (!outcome->cv.wait_for(lock, timeout + std::chrono::seconds(5),
                            [&] { return outcome->done; })) {
    throw sdbus::Error("org.freedesktop.DBus.Error.NoReply", "check-in was not answered");
  }
  if (outcome->error)
    throw *outcome->error;
  return Value(fromVariantMap(outcome->reply));
}

void ServiceHost::run() {
  std::unique_lock lock(runMutex_);
  runCv_.wait(lock, [&] { return stopped_; });
}

void ServiceHost::stop() {
  std::lock_guard lock(runMutex_);
  stopped_ = true;
  runCv_.notify_all();
}

}  // namespace vantor::kit
