#include "support/client_connection.h"

namespace vantor {

namespace {
thread_local const ClientConnection* tCurrentConnection = nullptr;
thread_local CallerGone tCurrentGone;

// The flag of work done outside any call: nobody can leave.
const CallerGone& neverGone() {
  static const CallerGone flag = std::make_shared<const std::atomic<bool>>(false);
  return flag;
}
}  // namespace

const ClientConnection* currentConnection() {
  return tCurrentConnection;
}

CallerGone currentCallerGone() {
  return tCurrentGone ? tCurrentGone : neverGone();
}

ScopedCurrentConnection::ScopedCurrentConnection(const ClientConnection* connection,
                                                 CallerGone gone)
    : previous_(tCurrentConnection), previousGone_(std::move(tCurrentGone)) {
  tCurrentConnection = connection;
  tCurrentGone = std::move(gone);
}

ScopedCurrentConnection::~ScopedCurrentConnection() {
  tCurrentConnection = previous_;
  tCurrentGone = std::move(previousGone_);
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
