#include "support/client_connection.h"

namespace vantor {

namespace {
thread_local const ClientConnection* tCurrentConnection = nullptr;
}

const ClientConnection* currentConnection() {
  return tCurrentConnection;
}

ScopedCurrentConnection::ScopedCurrentConnection(const ClientConnection* connection)
    : previous_(tCurrentConnection) {
  tCurrentConnection = connection;
}

ScopedCurrentConnection::~ScopedCurrentConnection() {
  tCurrentConnection = previous_;
}

bool connectionIsEntitled(const ClientConnection* connection,
                          const std::vector<std::string>& names) {
  if (connection == nullptr || !connection->identity())
    return false;
  const auto held = currentEntitlementPolicy()->namesFor(*connection->identity());
  for (const auto& name : names) {
    if (held.count(name) == 0)
      return false;
  }
  return true;
}

}  // namespace vantor
