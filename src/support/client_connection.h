#pragma once

#include <atomic>
#include <memory>
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

// Whether the caller of a client call has left the bus. The listener sets it
// when the caller's connection goes; work queued on the call's behalf reads
// it when its turn comes, and is skipped once nobody waits for it.
using CallerGone = std::shared_ptr<const std::atomic<bool>>;

// The connection of the client call the calling thread is handling, or null
// outside a call. Set by the listener for the duration of each call.
const ClientConnection* currentConnection();

// The departure flag of the call the calling thread is handling; outside a
// call (the daemon's own work), a flag that never becomes true. Never null.
CallerGone currentCallerGone();

// Makes `connection` (and the call's departure flag `gone`, when given) the
// current ones of this thread until destroyed.
class ScopedCurrentConnection {
 public:
  explicit ScopedCurrentConnection(const ClientConnection* connection, CallerGone gone = nullptr);
  ~ScopedCurrentConnection();
  ScopedCurrentConnection(const ScopedCurrentConnection&) = delete;
  ScopedCurrentConnection& operator=(const ScopedCurrentConnection&) = delete;

 private:
  const ClientConnection* previous_;
  CallerGone previousGone_;
};

// True when the peer of `connection` holds every name of `names` under the
// policy in force. No connection, or a peer whose identity is unknown, holds
// nothing.
bool connectionIsEntitled(const ClientConnection* connection,
                          const std::vector<std::string>& names);

}  // namespace vantor
