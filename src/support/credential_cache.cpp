#include "support/credential_cache.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

namespace vantor {

namespace {

constexpr std::size_t kMaxCachedPeers = 4096;
constexpr std::chrono::seconds kCredentialsTimeout{5};

std::optional<std::filesystem::path> executableOf(pid_t pid) {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
  if (ec)
    return std::nullopt;
  return path;
}

}  // namespace

std::shared_ptr<const ClientConnection> CredentialCache::known(const std::string& sender) {
  std::lock_guard lock(mutex_);
  auto it = cache_.find(sender);
  return it != cache_.end() ? it->second : nullptr;
}

std::shared_ptr<const ClientConnection> CredentialCache::lookUp(const std::string& sender,
                                                                dbus::BusDaemon* busDaemon) {
  if (auto connection = known(sender))
    return connection;
  std::optional<PeerIdentity> identity;
  if (busDaemon != nullptr) {
    if (auto creds = busDaemon->peerCredentials(sender, kCredentialsTimeout)) {
      PeerIdentity peer{*creds, std::nullopt};
      if (creds->pid)
        peer.executable = executableOf(*creds->pid);
      identity = std::move(peer);
    }
  }
  auto connection = std::make_shared<const ClientConnection>(sender, std::move(identity));
  if (connection->identity()) {
    std::lock_guard lock(mutex_);
    if (cache_.size() >= kMaxCachedPeers)
      cache_.clear();
    cache_.emplace(sender, connection);
  }
  return connection;
}

void CredentialCache::forget(const std::string& sender) {
  std::lock_guard lock(mutex_);
  cache_.erase(sender);
}

}  // namespace vantor
