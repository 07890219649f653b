// Check-in: services that make themselves known at run time.

#include "daemon/vantor.h"
#include "support/client_connection.h"
#include "support/entitlements.h"
#include "support/log.h"

namespace vantor {

namespace {
constexpr char kCheckin[] = "-[Vantor clientCheckin:endpoint:info:reply:]";
constexpr char kRegister[] = "-[Vantor clientCheckin:endpoint:info:reply:]_block_invoke";

// What one caller may make the daemon keep through check-ins: services filed
// under distinct IDs per bus connection, and notification names per service.
// An honest program checks in one service or a few.
constexpr std::size_t kMaxCheckinsPerSender = 16;
constexpr std::size_t kMaxNotificationsPerService = 64;
constexpr std::size_t kMaxNotificationNameBytes = 256;

// The notification limit `info` breaks, or nullopt.
std::optional<std::string> notificationLimitBroken(const Value& info) {
  const Value* names = info.find("VANTOR_NOTIFICATIONS");
  if (names == nullptr)
    return std::nullopt;
  std::size_t count = 0;
  if (const auto* array = names->asArray()) {
    count = array->size();
    for (const auto& name : *array) {
      if (const auto* text = name.asString(); text && text->size() > kMaxNotificationNameBytes)
        return "notification name of " + std::to_string(text->size()) + " bytes (limit " +
               std::to_string(kMaxNotificationNameBytes) + ")";
    }
  } else if (const auto* dict = names->asDictionary()) {
    count = dict->size();
  }
  if (count > kMaxNotificationsPerService)
    return std::to_string(count) + " notification names (limit " +
           std::to_string(kMaxNotificationsPerService) + ")";
  return std::nullopt;
}
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
  const std::string sender = currentConnection()->sender();
  if (auto broken = notificationLimitBroken(info)) {
    VANTOR_LOG(3, "%s refused a check-in from %s: %s", kCheckin, sender.c_str(), broken->c_str());
    reply(Value(), ClientError{kErrorLimitsExceeded, "Refused: " + *broken});
    return;
  }
  auto self = shared_from_this();
  operation_queue->async([self, serviceId, endpoint, info, sender, gone = currentCallerGone(),
                          reply = std::move(reply)] {
    // A service whose connection left while its check-in waited is not
    // filed: it could never be reached.
    if (gone->load()) {
      VANTOR_LOG(5, "%s %s left before its check-in was handled", kCheckin, sender.c_str());
      reply(Value(), std::nullopt);
      return;
    }
    self->registerService(serviceId, endpoint, info, sender, reply);
  });
}

void Vantor::registerService(const std::string& serviceId, const ServiceEndpoint& endpoint,
                             const Value& info, const std::string& sender,
                             const CheckinReply& reply) {
  std::shared_ptr<VTService> record;
  if (auto it = services.find(serviceId); it != services.end()) {
    // The first connection stays; the endpoint just received is dropped.
    VANTOR_LOG(5, "%s operating on an existing service", kRegister);
    record = it->second;
  } else {
    std::size_t mine = 0;
    for (const auto& [id, other] : services)
      mine += other->checkedInBy() == sender ? 1 : 0;
    if (mine >= kMaxCheckinsPerSender) {
      const std::string broken = std::to_string(mine) + " services checked in (limit " +
                                 std::to_string(kMaxCheckinsPerSender) + ")";
      VANTOR_LOG(3, "%s refused a check-in from %s: %s", kRegister, sender.c_str(), broken.c_str());
      reply(Value(), ClientError{kErrorLimitsExceeded, "Refused: " + broken});
      return;
    }
    record = std::make_shared<VTService>();
    record->setID(serviceId);
    record->setCheckedInBy(sender);
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
          self->publishServices();
        }
      });
    };
    connection->setInvalidationHandler([forget] { forget("invalidationHandler ENTRY"); });
    connection->setInterruptionHandler([forget] { forget("interruptionHandler ENTRY"); });

    auto wake = std::make_shared<dispatch::Semaphore>(0);
    auto proxy =
        connection->remoteObjectProxyWithErrorHandler([record, wake](const std::string& error) {
          VANTOR_LOG(5, "%s remoteObjectProxyWithErrorHandler error: %s", kRegister, error.c_str());
          if (auto c = record->xpcConn())
            c->invalidate();
          wake->signal();
        });
    connection->resume();
    pingService(proxy, wake);
    services[serviceId] = record;
    publishServices();
  }

  const Value* periodic = info.find("PERIODIC");
  const Value* purge = info.find("PURGE");
  const Value* notifications = info.find("VANTOR_NOTIFICATIONS");
  record->setDoesPeriodic(periodic != nullptr && periodic->boolValue());
  record->setDoesPurge(purge != nullptr && purge->boolValue());
  record->setDesiredNotifications(notifications != nullptr ? *notifications : Value());
  // A volume already low waited for someone who can purge: this one.
  if (record->doesPurge())
    purgingServicesChanged();

  reply(Value(Value::Dictionary{{"VANTOR_ID", Value(serviceId)}, {"ANON", Value(true)}}),
        std::nullopt);
}

}  // namespace vantor
