#include "support/service_call.h"

#include <atomic>
#include <chrono>

#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/queue.h"
#include "support/service_connection.h"

namespace vantor {

namespace {

constexpr std::chrono::seconds kBusAnswerTimeout{10};

// Runs the invalidation handler at most once, whichever failure comes first.
struct CallState {
  std::atomic<bool> invalidated{false};
  ServiceInvalidationHandler invalidation;

  void invalidate() {
    if (!invalidated.exchange(true) && invalidation)
      invalidation();
  }
};

// Where the service listens, or nullopt when it cannot be reached now.
std::optional<ServiceEndpoint> reach(const VTService& service) {
  dbus::BusDaemon* daemon = serviceBusDaemon();
  if (serviceBus() == nullptr || daemon == nullptr)
    return std::nullopt;
  if (auto connection = service.xpcConn()) {
    if (!connection->isValid())
      return std::nullopt;
    return connection->endpoint();
  }
  const std::string id = service.ID();
  if (!isValidBusName(id))
    return std::nullopt;
  auto owned = daemon->nameHasOwner(id, kBusAnswerTimeout);
  if (!owned)
    return std::nullopt;
  if (!*owned && !daemon->startServiceByName(id, kBusAnswerTimeout))
    return std::nullopt;
  return ServiceEndpoint{id, dbus::kServiceObjectPath};
}

// A checked-in service is reached at the endpoint its connection already
// knows, so its calls are sent without waiting on anything: they go out one
// after another from one serial queue, and a purge level's hundred requests
// cost one hand-off to the pool, not a hundred threads woken or started.
// Reaching a descriptor service may mean asking the bus daemon to look up or
// start its name, which can take seconds, so each of those calls has a pool
// thread of its own.
dispatch::SerialQueue& sendQueue() {
  static dispatch::QueuePtr* const queue =
      new dispatch::QueuePtr(dispatch::SerialQueue::create("com.tessaly.vantor.service-calls"));
  return **queue;
}

void connect(const std::shared_ptr<VTService>& service,
             const ServiceConnectionHandler& connectionHandler,
             const std::shared_ptr<CallState>& state) {
  auto endpoint = service ? reach(*service) : std::nullopt;
  sdbus::IConnection* bus = serviceBus();
  if (!endpoint || bus == nullptr) {
    state->invalidate();
    return;
  }
  auto proxy =
      makeServiceProxy(*bus, *endpoint, [state](const std::string&) { state->invalidate(); });
  // The finish handle owns the proxy: calling it ends the call's connection,
  // releasing the proxy and its bus resources, and an ended connection
  // reports its end through the invalidation handler, as any ended
  // connection does. The caller calls it once it has handled the reply, so
  // the handler runs after that handling and before the reply handler goes
  // on, and only once, whichever end comes first.
  auto holder = std::make_shared<std::shared_ptr<VantorServiceProxy>>(proxy);
  connectionHandler(std::move(proxy), [holder, state] {
    holder->reset();
    state->invalidate();
  });
}

}  // namespace

void CallServiceAsync(const std::shared_ptr<VTService>& service,
                      ServiceConnectionHandler connectionHandler,
                      ServiceInvalidationHandler invalidationHandler) {
  auto state = std::make_shared<CallState>();
  state->invalidation = std::move(invalidationHandler);
  auto send = [service, connectionHandler = std::move(connectionHandler), state] {
    connect(service, connectionHandler, state);
  };
  if (service && service->xpcConn())
    sendQueue().async(std::move(send));
  else
    dispatch::globalAsync(std::move(send));
}

void CallService(const std::shared_ptr<VTService>& service,
                 ServiceConnectionHandler connectionHandler,
                 ServiceInvalidationHandler invalidationHandler) {
  auto state = std::make_shared<CallState>();
  state->invalidation = std::move(invalidationHandler);
  connect(service, connectionHandler, state);
}

}  // namespace vantor
