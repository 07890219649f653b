// Check-in: services that make themselves known at run time.

#include "daemon/vantor.h"
#include "support/client_connection.h"
#include "support/entitlements.h"
#include "support/log.h"

namespace vantor {

namespace {
constexpr char kCheckin[] = "-[Vantor clientCheckin:endpoint:info:reply:]";
constexpr char kRegister[] = "-[Vantor clientCheckin:endpoint:info:reply:]_block_invoke";
}  // namespace

void Vantor::clientCheckin(const std::string& serviceId, const ServiceEndpoint& endpoint,
                           const Value& info, CheckinReply reply) {
  // A descriptor service is already known: answer null and change nothing.
  const bool declared = daemons_queue->syncResult([&] { return daemons.count(serviceId) > 0; });
  if (declared) {
    reply(Value(), std::nullopt);
    return;
  }
  if (!connectionIsEntitled(currentConnection(), {kServiceEntitlement})) {
    // No reply at all: the caller learns nothing about the daemon.
    VANTOR_LOG(3, "%s Connection is not entitled!", kCheckin);
    return;
  }
  auto self = shared_from_this();
  operation_queue->async([self, serviceId, endpoint, info, reply = std::move(reply)] {
    self->registerService(serviceId, endpoint, info, reply);
  });
}

void Vantor::registerService(const std::string& serviceId, const ServiceEndpoint& endpoint,
                             const Value& info, const CheckinReply& reply) {
  std::shared_ptr<VTService> record;
  if (auto it = services.find(serviceId); it != services.end()) {
    // The first connection stays; the endpoint just received is dropped.
    VANTOR_LOG(5, "%s operating on an existing service", kRegister);
    record = it->second;
  } else {
    record = std::make_shared<VTService>();
    record->setID(serviceId);
    record->setEndpoint(endpoint);
    auto connection = ServiceConnection::initWithListenerEndpoint(endpoint);
    record->setXpcConn(connection);

    // The handlers hold the record weakly: the record owns the connection
    // and the connection its handlers.
    std::weak_ptr<VTService> weakRecord = record;
    auto self = shared_from_this();
    auto forget = [self, serviceId, weakRecord](const char* entry) {
      VANTOR_LOG(5, "%s %s", kRegister, entry);
      self->operation_queue->async([self, serviceId, weakRecord] {
        auto filed = self->services.find(serviceId);
        auto current = weakRecord.lock();
        if (filed != self->services.end() && current && filed->second == current) {
          self->services.erase(filed);
        }
      });
    };
    connection->setInvalidationHandler([forget] { forget("invalidationHandler ENTRY"); });
    connection->setInterruptionHandler([forget] { forget("interruptionHandler ENTRY"); });

    auto wake = std::make_shared<dispatch::Semaphore>(0);
    auto proxy =
        connection->remoteObjectProxyWithErrorHandler([record, wake](const std::string& error) {
          VANTOR_LOG(5, "%s remoteObjectProxyWithErrorHandler error: %@", kRegister, error.c_str());
          if (auto c = record->xpcConn())
            c->invalidate();
          wake->signal();
        });
    connection->resume();
    pingService(proxy, wake);
    services[serviceId] = record;
  }

  const Value* periodic = info.find("PERIODIC");
  const Value* purge = info.find("PURGE");
  const Value* notifications = info.find("VANTOR_NOTIFICATIONS");
  record->setDoesPeriodic(periodic != nullptr && periodic->boolValue());
  record->setDoesPurge(purge != nullptr && purge->boolValue());
  record->setDesiredNotifications(notifications != nullptr ? *notifications : Value());

  reply(Value(Value::Dictionary{{"VANTOR_ID", Value(serviceId)}, {"ANON", Value(true)}}),
        std::nullopt);
}

}  // namespace vantor
