#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sdbus-c++/IConnection.h>
#include <sdbus-c++/IProxy.h>

namespace vantor::dbus {

// Names of the D-Bus API.
inline constexpr char kBusName[] = "com.tessaly.vantor";
inline constexpr char kObjectPath[] = "/com/tessaly/vantor";
inline constexpr char kClientInterface[] = "com.tessaly.vantor.Client";
inline constexpr char kNotifyInterface[] = "com.tessaly.vantor.Notify";
inline constexpr char kServiceInterface[] = "com.tessaly.vantor.Service";
inline constexpr char kServiceObjectPath[] = "/com/tessaly/vantor/Service";

inline constexpr char kErrorAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr char kErrorNotSupported[] = "org.freedesktop.DBus.Error.NotSupported";
inline constexpr char kErrorInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr char kErrorFailed[] = "org.freedesktop.DBus.Error.Failed";

// Opens a connection to the system bus; `DBUS_SYSTEM_BUS_ADDRESS` overrides
// its address. Throws sdbus::Error when the bus cannot be reached.
std::unique_ptr<sdbus::IConnection> openSystemBus();

// What the bus reports about the process behind a connection.
struct PeerCredentials {
  uid_t uid = static_cast<uid_t>(-1);
  std::vector<gid_t> gids;  // primary and supplementary, as far as the bus knows them
  std::optional<pid_t> pid;
};

// The bus daemon itself (org.freedesktop.DBus), reached over `connection`,
// whose event loop must be running. Safe to use from several threads.
class BusDaemon {
 public:
  explicit BusDaemon(sdbus::IConnection& connection);
  ~BusDaemon();
  BusDaemon(const BusDaemon&) = delete;
  BusDaemon& operator=(const BusDaemon&) = delete;

  // The credentials of the connection `sender`. Never call it on the
  // event-loop thread: it waits for the bus's answer, at most `timeout`.
  // Returns nullopt when the bus does not answer or knows no such connection.
  std::optional<PeerCredentials> peerCredentials(const std::string& sender,
                                                 std::chrono::milliseconds timeout);

  // Whether `name` has an owner now; nullopt when the bus did not answer.
  std::optional<bool> nameHasOwner(const std::string& name, std::chrono::milliseconds timeout);

  // Asks the bus to start the activatable service `name`. True when it runs
  // (already, or now); false when it is not activatable or failed to start.
  bool startServiceByName(const std::string& name, std::chrono::milliseconds timeout);

 private:
  std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace vantor::dbus
