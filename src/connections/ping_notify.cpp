// Liveness pings and notifications to services.

#include <atomic>

#include "daemon/vantor.h"
#include "support/log.h"
#include "support/service_call.h"

namespace vantor {

bool Vantor::pingService(const std::shared_ptr<VantorServiceProxy>& proxy,
                         const std::shared_ptr<dispatch::Semaphore>& wake) {
  constexpr char kName[] = "-[Vantor pingService:]";
  auto answered = std::make_shared<std::atomic<bool>>(false);
  VANTOR_LOG(5, "%s calling servicePing", kName);
  proxy->servicePing([answered, wake] {
    VANTOR_LOG(5, "%s ping got pong", "-[Vantor pingService:]_block_invoke");
    answered->store(true);
    wake->signal();
  });
  wake->wait(dispatch::kForever);
  return answered->load();
}

void Vantor::notifyRecipients(const std::string& name, const Value& value) {
  VANTOR_LOG(5, "%s name: %s, value: %s", "-[Vantor notifyRecipients:value:]", name.c_str(),
             value.description().c_str());
  auto self = shared_from_this();
  operation_queue->async([self, name, value] {
    std::vector<std::string> identifiers;
    identifiers.reserve(self->services.size());
    for (const auto& entry : self->services)
      identifiers.push_back(entry.first);
    for (const auto& identifier : identifiers) {
      auto it = self->services.find(identifier);
      if (it == self->services.end() || !it->second->wantsNotification(name))
        continue;
      CallServiceAsync(
          it->second,
          [name, value, identifier](std::shared_ptr<VantorServiceProxy> proxy,
                                    std::function<void()> finish) {
            VANTOR_LOG(5, "%s %d serviceID: %s", "-[Vantor notifyRecipients:value:]_block_invoke",
                       894, identifier.c_str());
            Value::Dictionary notification;
            if (!value.isNull())
              notification.emplace(name, value);
            proxy->serviceNotify(Value(std::move(notification)), [finish] { finish(); });
          },
          [] {
            VANTOR_LOG(5, "%s connection invalidated",
                       "-[Vantor notifyRecipients:value:]_block_invoke_2");
          });
    }
  });
}

}  // namespace vantor
