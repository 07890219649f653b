#pragma once

// The service kit: everything a program needs to offer its throw-away data to
// vantord. Implement vantor::kit::Service, hand it to a ServiceHost, and
// either check in at run time or install a descriptor file naming the bus
// name the host owns.
//
// Threads: the host runs its own bus thread. Service methods are called on
// it and must not block; answer through the reply, now or later, from any
// thread, once (later answers are ignored). Answer while holding no lock
// that a service method takes: sending waits for the bus thread's own lock.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/values/value.h"

namespace sdbus {
class IConnection;
}

namespace vantor::kit {

class Service {
 public:
  using DictionaryReply = std::function<void(Value reply)>;
  virtual ~Service() = default;

  // How many bytes could be purged on info["VANTOR_VOLUME"] at `urgency`
  // (1 to 4): answer {"VANTOR_AMOUNT": bytes}, or add "VANTOR_OPT_OUT" to be
  // left out of purging for a while.
  virtual void purgeable(std::int32_t urgency, const Value& info, DictionaryReply reply);
  // Purge up to info["VANTOR_AMOUNT"] bytes: answer {"VANTOR_AMOUNT": purged}.
  virtual void purge(std::int32_t urgency, const Value& info, DictionaryReply reply);
  // Daily maintenance on info["VANTOR_VOLUME"]; answer a dictionary or null.
  virtual void periodic(std::int32_t urgency, const Value& info, DictionaryReply reply);
  // Stop purging as soon as possible.
  virtual void cancelPurge() {}
  // A notification: a dictionary of one entry, name to value.
  virtual void notify(const Value& notification) { (void)notification; }
  // The liveness ping; answer to prove the service is there.
  virtual void ping(std::function<void()> reply) { reply(); }
  virtual void callback(const Value& info, DictionaryReply reply);
};

struct CheckinRequest {
  std::string id;  // the service's identifier, e.g. "com.example.thumbnails"
  // Where vantord reaches the service: this object path on the host's unique
  // name. A service added with addService() gives its own path here.
  std::string objectPath = "/com/tessaly/vantor/Service";
  bool purge = true;
  bool periodic = false;
  std::vector<std::string> notifications;  // e.g. {"VANTOR_CACHE_ENABLED"}
};

class ServiceHost {
 public:
  // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS overrides its
  // address), exports `service` on /com/tessaly/vantor/Service and, when
  // `busName` is given, takes that name. Throws sdbus::Error on failure.
  explicit ServiceHost(std::shared_ptr<Service> service,
                       std::optional<std::string> busName = std::nullopt);
  ~ServiceHost();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;

  // Serves one more service from the same connection, for a process that
  // offers several sources of data, each under an ID of its own. It is
  // exported on `objectPath` (below /com/tessaly/vantor/Service), to check in
  // with; and when `busName` is given, the host takes that name too and
  // hands calls addressed to it on /com/tessaly/vantor/Service to `service`,
  // as a descriptor file naming that ID (and D-Bus activation) expects.
  // Throws sdbus::Error when the path is taken or the name refused.
  void addService(std::shared_ptr<Service> service, const std::string& objectPath,
                  std::optional<std::string> busName = std::nullopt);

  // Checks in with vantord. Returns its reply: {"VANTOR_ID", "ANON"} for a
  // new registration, an empty dictionary when a descriptor file already
  // names the ID. Throws sdbus::Error when the daemon refuses or does not
  // answer within `timeout` (a check-in without the entitlement to it is
  // never answered).
  Value checkIn(const CheckinRequest& request,
                std::chrono::milliseconds timeout = std::chrono::seconds(25));

  // The host's unique bus name.
  std::string uniqueName() const;

  // Serves until stop() is called, e.g. from a signal-handling thread.
  void run();
  void stop();

 private:
  class Adaptor;
  // The service a call on /com/tessaly/vantor/Service is for, by the bus
  // name it was addressed to.
  std::shared_ptr<Service> serviceFor(const std::string& destination);
  std::shared_ptr<Service> service_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<Adaptor> adaptor_;
  std::vector<std::unique_ptr<Adaptor>> added_;
  std::mutex routesMutex_;
  std::map<std::string, std::shared_ptr<Service>> byBusName_;
  std::mutex runMutex_;
  std::condition_variable runCv_;
  bool stopped_ = false;
};

}  // namespace vantor::kit
