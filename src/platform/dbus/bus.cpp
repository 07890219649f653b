#include "platform/dbus/bus.h"

#include <condition_variable>
#include <map>
#include <mutex>

#include <sdbus-c++/sdbus-c++.h>

namespace vantor::dbus {

std::unique_ptr<sdbus::IConnection> openSystemBus() {
  // sd-bus reads DBUS_SYSTEM_BUS_ADDRESS itself.
  return sdbus::createSystemBusConnection();
}

BusDaemon::BusDaemon(sdbus::IConnection& connection)
    : proxy_(sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")) {
  proxy_->finishRegistration();
}

BusDaemon::~BusDaemon() = default;

namespace {

// Reads an unsigned number out of a credentials entry of any integer type.
std::optional<std::uint64_t> readUnsigned(const sdbus::Variant& v) {
  try {
    const std::string type = v.peekValueType();
    if (type == "u")
      return v.get<std::uint32_t>();
    if (type == "t")
      return v.get<std::uint64_t>();
    if (type == "i")
      return static_cast<std::uint64_t>(v.get<std::int32_t>());
    if (type == "x")
      return static_cast<std::uint64_t>(v.get<std::int64_t>());
  } catch (const sdbus::Error&) {
  }
  return std::nullopt;
}

// The answer to an asynchronous call to the bus daemon, which the caller waits
// for with a deadline. Shared with the reply handler, which may run after the
// caller gave up waiting.
template <typename T>
struct Pending {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;
  std::optional<T> result;

  void finish(std::optional<T> value) {
    std::lock_guard lock(mutex);
    result = std::move(value);
    done = true;
    cv.notify_all();
  }
  std::optional<T> wait(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex);
    if (!cv.wait_for(lock, timeout, [&] { return done; }))
      return std::nullopt;
    return result;
  }
};

}  // namespace

std::optional<PeerCredentials> BusDaemon::peerCredentials(const std::string& sender,
                                                          std::chrono::milliseconds timeout) {
  auto pending = std::make_shared<Pending<PeerCredentials>>();
  try {
    proxy_->callMethodAsync("GetConnectionCredentials")
        .onInterface("org.freedesktop.DBus")
        .withArguments(sender)
        .uponReplyInvoke(
            [pending](const sdbus::Error* error, std::map<std::string, sdbus::Variant> entries) {
              std::optional<PeerCredentials> creds;
              if (error == nullptr) {
                PeerCredentials c;
                bool haveUid = false;
                if (auto it = entries.find("UnixUserID"); it != entries.end()) {
                  if (auto uid = readUnsigned(it->second)) {
                    c.uid = static_cast<uid_t>(*uid);
                    haveUid = true;
                  }
                }
                if (auto it = entries.find("ProcessID"); it != entries.end()) {
                  if (auto pid = readUnsigned(it->second))
                    c.pid = static_cast<pid_t>(*pid);
                }
                if (auto it = entries.find("UnixGroupIDs"); it != entries.end()) {
                  try {
                    for (auto gid : it->second.get<std::vector<std::uint32_t>>()) {
                      c.gids.push_back(static_cast<gid_t>(gid));
                    }
                  } catch (const sdbus::Error&) {
                  }
                }
                if (haveUid)
                  creds = std::move(c);
              }
              pending->finish(std::move(creds));
            });
  } catch (const sdbus::Error&) {
    return std::nullopt;
  }
  return pending->wait(timeout);
}

std::optional<bool> BusDaemon::nameHasOwner(const std::string& name,
                                            std::chrono::milliseconds timeout) {
  auto pending = std::make_shared<Pending<bool>>();
  try {
    proxy_->callMethodAsync("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withArguments(name)
        .uponReplyInvoke([pending](const sdbus::Error* error, bool owned) {
          pending->finish(error == nullptr ? std::optional<bool>(owned) : std::nullopt);
        });
  } catch (const sdbus::Error&) {
    return std::nullopt;
  }
  return pending->wait(timeout);
}

bool BusDaemon::startServiceByName(const std::string& name, std::chrono::milliseconds timeout) {
  auto pending = std::make_shared<Pending<bool>>();
  try {
    proxy_->callMethodAsync("StartServiceByName")
        .onInterface("org.freedesktop.DBus")
        .withArguments(name, std::uint32_t{0})
        .uponReplyInvoke([pending](const sdbus::Error* error, std::uint32_t) {
          pending->finish(error == nullptr);
        });
  } catch (const sdbus::Error&) {
    return false;
  }
  return pending->wait(timeout).value_or(false);
}

}  // namespace vantor::dbus
