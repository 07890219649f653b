#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/values/value.h"
#include "support/client_protocol.h"

namespace vantor {

class ServiceConnection;

// One known service: from a descriptor file, or checked in at run time.
// Owned by the coordinator's service table. The flags are atomic and the
// other fields are guarded by the record's own lock, because queues other
// than the one guarding the table read them while check-in may update them.
class VTService {
 public:
  std::string ID() const {
    std::lock_guard lock(mutex_);
    return id_;
  }
  void setID(std::string id) {
    std::lock_guard lock(mutex_);
    id_ = std::move(id);
  }

  bool doesPurge() const { return doesPurge_.load(); }
  void setDoesPurge(bool v) { doesPurge_.store(v); }
  bool doesPeriodic() const { return doesPeriodic_.load(); }
  void setDoesPeriodic(bool v) { doesPeriodic_.store(v); }
  bool doNotQuery() const { return doNotQuery_.load(); }
  void setDoNotQuery(bool v) { doNotQuery_.store(v); }

  // Notification names the service subscribed to: an array (a set, duplicates
  // removed, for descriptor services; the collection as received for
  // checked-in ones), or null for none.
  Value desiredNotifications() const {
    std::lock_guard lock(mutex_);
    return desiredNotifications_;
  }
  void setDesiredNotifications(Value names) {
    std::lock_guard lock(mutex_);
    desiredNotifications_ = std::move(names);
  }
  // Whether `name` is a member of desiredNotifications.
  bool wantsNotification(const std::string& name) const;

  std::optional<ServiceEndpoint> endpoint() const {
    std::lock_guard lock(mutex_);
    return endpoint_;
  }
  void setEndpoint(std::optional<ServiceEndpoint> endpoint) {
    std::lock_guard lock(mutex_);
    endpoint_ = std::move(endpoint);
  }

  // The unique bus name of the caller that checked the service in; empty for
  // descriptor services. Set once, before the record is filed.
  const std::string& checkedInBy() const { return checkedInBy_; }
  void setCheckedInBy(std::string sender) { checkedInBy_ = std::move(sender); }

  // The connection to a checked-in service; null for descriptor services.
  std::shared_ptr<ServiceConnection> xpcConn() const {
    std::lock_guard lock(mutex_);
    return xpcConn_;
  }
  void setXpcConn(std::shared_ptr<ServiceConnection> connection) {
    std::lock_guard lock(mutex_);
    xpcConn_ = std::move(connection);
  }

 private:
  mutable std::mutex mutex_;
  std::string id_;
  std::atomic<bool> doesPurge_{false};
  std::atomic<bool> doesPeriodic_{false};
  std::atomic<bool> doNotQuery_{false};
  Value desiredNotifications_;
  std::optional<ServiceEndpoint> endpoint_;
  std::shared_ptr<ServiceConnection> xpcConn_;
  std::string checkedInBy_;
};

}  // namespace vantor
