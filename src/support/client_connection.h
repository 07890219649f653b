#pragma once

#include <optional>
#include <string>
#include <vector>

#include "support/entitlements.h"

namespace vantor {

// The peer of a client call: its unique bus name and, when the bus could tell,
// its identity. Plain data; safe to share between threads.
class ClientConnection {
 public:
  ClientConnection(std::string sender, std::optional<PeerIdentity> identity)
      : sender_(std::move(sender)), identity_(std::move(identity)) {}

  const std::string& sender() const { return sender_; }
  const std::optional<PeerIdentity>& identity() const { return identity_; }

 private:
  std::string sender_;
  std::optional<PeerIdentity> identity_;
};

// The connection of the client call the calling thread is handling, or null
// outside a call. Set by the listener for the duration of each call.
const ClientConnection* currentConnection();

// Makes `connection` the current connection of this thread until destroyed.
class ScopedCurrentConnection {
 public:
  explicit ScopedCurrentConnection(const ClientConnection* connection);
  ~ScopedCurrentConnection();
  ScopedCurrentConnection(const ScopedCurrentConnection&) = delete;
  ScopedCurrentConnection& operator=(const ScopedCurrentConnection&) = delete;

 private:
  const ClientConnection* previous_;
};

// True when the peer of `connection` holds every name of `names` under the
// policy in force. No connection, or a peer whose identity is unknown, holds
// nothing.
bool connectionIsEntitled(const ClientConnection* connection,
                          const std::vector<std::string>& names);

}  // namespace vantor
