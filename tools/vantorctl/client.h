#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <sdbus-c++/IConnection.h>
#include <sdbus-c++/IProxy.h>

#include "platform/values/value.h"

namespace vantor::ctl {

// The exit status of every command; --help lists them.
enum class ExitCode : int {
  kSuccess = 0,
  kRefused = 1,      // vantord answered with an error result ("VANTOR_ERROR")
  kUsage = 2,        // bad arguments
  kNotRunning = 3,   // no bus, or nobody owns vantord's name on it
  kNotEntitled = 4,  // AccessDenied, or the null reply of a method
  kBusFailure = 5,   // any other D-Bus failure
  kShortfall = 6,    // a purge ran but freed less than was asked
};

// Ends a command: main prints the message on stderr and exits with `code`.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

enum class PurgeableView { kTotals, kItemized };

// Synchronous calls to vantord's client interface, each waiting at most
// kCallTimeout. Every method throws Failure with the exit code the outcome
// maps to; a single-threaded program uses it, no event loop runs.
class DaemonClient {
 public:
  static constexpr std::chrono::seconds kCallTimeout{60};
  // vantord holds a purge's caller for up to 120 seconds.
  static constexpr std::chrono::seconds kPurgeTimeout{130};

  // Connects to the bus at `address`, or to the system bus when none is given
  // (DBUS_SYSTEM_BUS_ADDRESS overrides its address).
  explicit DaemonClient(const std::optional<std::string>& address);
  ~DaemonClient();
  DaemonClient(const DaemonClient&) = delete;
  DaemonClient& operator=(const DaemonClient&) = delete;

  // The purgeable-space answer for `info`: service IDs to amounts,
  // "VANTOR_VOLUME" and "VANTOR_TOTAL_AVAILABLE". The daemon's error result
  // throws kRefused with its text, the null reply kNotEntitled.
  Value::Dictionary purgeable(PurgeableView view, const Value::Dictionary& info);

  // Runs a purge of `info` and returns vantord's result dictionary. The
  // daemon's error result throws kRefused, the null reply kNotEntitled.
  Value::Dictionary purge(const Value::Dictionary& info);
  // Asks vantord to cancel the purge under way (or the next one).
  void cancelPurge();

  // The value stored under `key`; null when none is.
  Value getState(const std::string& key);
  // Stores `value` under `key`; null removes the key.
  void setState(const std::string& key, const Value& value);

  // The administration views, as vantord gives them.
  using NamedEntries = std::vector<std::pair<std::string, Value::Dictionary>>;
  NamedEntries services();
  NamedEntries volumes();
  Value::Dictionary statistics();
  Value::Array purgeHistory();

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace vantor::ctl
