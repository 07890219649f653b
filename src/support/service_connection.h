#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <sdbus-c++/IConnection.h>
#include <sdbus-c++/TypeTraits.h>

#include "platform/dbus/bus.h"
#include "support/client_protocol.h"
#include "support/service_proxy.h"

namespace vantor {

// The daemon's connection to a checked-in service's endpoint. It lives until
// it is invalidated: explicitly, or when the endpoint's bus name loses its
// owner (the service's process ended or closed its bus connection). The
// invalidation handler runs once, on a pool thread. An endpoint whose bus name
// has no owner when the connection resumes is invalidated at once.
class ServiceConnection : public std::enable_shared_from_this<ServiceConnection> {
 public:
  using Handler = std::function<void()>;

  static std::shared_ptr<ServiceConnection> initWithListenerEndpoint(
      const ServiceEndpoint& endpoint);
  ~ServiceConnection();

  void setInvalidationHandler(Handler handler);
  void setInterruptionHandler(Handler handler);

  // A proxy whose failed calls report to `errorHandler` (with the D-Bus error
  // name and message) on a pool thread.
  std::shared_ptr<VantorServiceProxy> remoteObjectProxyWithErrorHandler(
      std::function<void(const std::string& error)> errorHandler);

  // Starts watching the endpoint's bus name.
  void resume();
  void invalidate();
  bool isValid() const;

  const ServiceEndpoint& endpoint() const { return endpoint_; }

 private:
  explicit ServiceConnection(ServiceEndpoint endpoint) : endpoint_(std::move(endpoint)) {}

  const ServiceEndpoint endpoint_;
  mutable std::mutex mutex_;
  Handler invalidationHandler_;
  Handler interruptionHandler_;
  bool invalidated_ = false;
  sdbus::Slot watch_;
};

// Makes a proxy to the service interface at `endpoint` on `connection`.
std::shared_ptr<VantorServiceProxy> makeServiceProxy(
    sdbus::IConnection& connection, const ServiceEndpoint& endpoint,
    std::function<void(const std::string& error)> errorHandler);

// Whether `name` is a valid D-Bus bus name (unique or well-known), and
// whether `path` is a valid D-Bus object path.
bool isValidBusName(const std::string& name);
bool isValidObjectPath(const std::string& path);

// The bus the daemon reaches services over (the listener's connection, once
// resumed) and its bus daemon; null before.
sdbus::IConnection* serviceBus();
dbus::BusDaemon* serviceBusDaemon();
void setServiceBus(sdbus::IConnection* connection, dbus::BusDaemon* busDaemon);

}  // namespace vantor
