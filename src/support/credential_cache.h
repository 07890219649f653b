#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/dbus/bus.h"
#include "support/client_connection.h"

namespace vantor {

// The identities of the listener's callers, by unique bus name. Unique names
// are never reused while the bus runs, and a connection's credentials are
// fixed when it connects, so an identity, once learnt, is kept until the
// caller leaves the bus; a caller whose identity the bus could not tell is
// asked about again on its next call. Holds at most a few thousand callers
// and starts afresh when full. Thread-safe.
class CredentialCache {
 public:
  // The connection of `sender` when its identity is known already, else null.
  // Never waits.
  std::shared_ptr<const ClientConnection> known(const std::string& sender);

  // The connection of `sender`, asking `busDaemon` (when not null) for its
  // credentials if they are not known yet. Waits for the bus, a few seconds
  // at most, so never call it on a bus thread. The connection has no
  // identity when the bus did not tell it.
  std::shared_ptr<const ClientConnection> lookUp(const std::string& sender,
                                                 dbus::BusDaemon* busDaemon);

  // `sender` left the bus: its identity is forgotten.
  void forget(const std::string& sender);

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<const ClientConnection>> cache_;
};

}  // namespace vantor
