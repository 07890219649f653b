#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include <sdbus-c++/IConnection.h>

#include "platform/values/value.h"
#include "support/admin_protocol.h"
#include "support/client_connection.h"
#include "support/client_protocol.h"
#include "support/credential_cache.h"
// The notify functions emit through the listener resumed last; their callers
// include this header.
#include "support/notify.h"

namespace vantor {

class ClientObject;

// Accepts client calls on the system bus under the name com.tessaly.vantor
// and hands each one to the exported object.
//
// Threads: the bus's event-loop thread only moves messages. Every call is
// handed to a global-pool thread, where the caller's identity is looked up,
// the required entitlements are checked, the caller becomes the thread's
// current connection, and only then does the exported object's method run. A
// caller lacking a required entitlement gets
// org.freedesktop.DBus.Error.AccessDenied and the exported object never sees
// the call. Calls in progress are limited in total and per sender, apart for
// calls whose work waits on the coordinator's operation queue (queries,
// purges, check-ins) and for the others (state, cancel, administration), so
// a queue held by a silent service never turns away calls that do not need
// it; a call over a limit is answered org.freedesktop.DBus.Error.LimitsExceeded
// on the bus thread. When a caller leaves the bus, its calls stop counting at
// once and their departure flag (currentCallerGone) is raised, so work queued
// for them is skipped. Every call is answered: a method body that throws is
// answered org.freedesktop.DBus.Error.Failed with the message, and logged.
// The administration interface is served on the same object when the
// exported object also implements VantorAdminProtocol. A reply that cannot be
// sent is logged and never ends the process; losing the bus connection does:
// it exits with status 1.
class VantorListener {
 public:
  static std::unique_ptr<VantorListener> daemonListenerWithExportedObject(
      std::shared_ptr<VantorClientProtocol> exported);
  ~VantorListener();

  // Requires `name` of every caller. Call before `resume`.
  void addRequiredEntitlement(const std::string& name);

  // Connects to the bus, exports the client interface and takes the bus name.
  // Returns false with a reason when any of that fails.
  bool resume(std::string* error);

  // Emits the Posted signal with `name`. Returns 0, or -1 with errno set when
  // the listener is not connected or the signal could not be sent.
  int postNotification(const std::string& name);

  // Emits the LowSpace signal. Returns as postNotification does.
  int postLowSpace(const std::string& volume, std::uint64_t available, std::uint64_t threshold,
                   bool veryLow);

  // Emits the PurgeFinished signal with `purge`. Returns as postNotification
  // does.
  int postPurgeFinished(const Value::Dictionary& purge);

  // Runs one client call: resolves the caller, checks entitlements, sets the
  // current connection and the call's departure flag `gone`, and calls
  // `body`; `deny` answers a refused caller. Used by the exported D-Bus
  // object on pool threads.
  void admit(const std::string& sender, const CallerGone& gone, const std::function<void()>& body,
             const std::function<void()>& deny);
  // As admit, for a sender whose credentials are known already; returns
  // false, having run neither, for any other. Never waits, so the bus thread
  // may call it.
  bool admitKnown(const std::string& sender, const CallerGone& gone,
                  const std::function<void()>& body, const std::function<void()>& deny);

  VantorClientProtocol& exported() { return *exported_; }

  // The listener that was resumed last, while it exists; null before and
  // after.
  static VantorListener* resumedLast();

 private:
  explicit VantorListener(std::shared_ptr<VantorClientProtocol> exported);
  // Runs `emit` on the exported object: 0, or -1 with errno ENOTCONN when not
  // connected, EIO when the signal could not be sent.
  int emitSignal(const std::function<void(ClientObject&)>& emit);
  void admitConnection(const std::shared_ptr<const ClientConnection>& connection,
                       const CallerGone& gone, const std::function<void()>& body,
                       const std::function<void()>& deny);
  // A connection left the bus: its calls stop counting and its identity is
  // forgotten. Runs on the callers' bus thread.
  void callerLeft(const std::string& sender);
  std::thread startEventLoop(sdbus::IConnection& connection);
  void leaveEventLoops();

  std::shared_ptr<VantorClientProtocol> exported_;
  std::set<std::string> required_;
  // Calls to the daemon arrive on `connection_`; calls to services go out on
  // `serviceConnection_`, so a burst of service replies never holds up the
  // bus thread that reads the callers' calls. Each has a bus thread of its
  // own.
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<dbus::BusDaemon> busDaemon_;
  std::unique_ptr<sdbus::IConnection> serviceConnection_;
  std::unique_ptr<dbus::BusDaemon> serviceBusDaemon_;
  std::unique_ptr<ClientObject> object_;
  std::thread eventLoop_;
  std::thread serviceEventLoop_;
  std::atomic<bool> leaving_{false};
  // The watch on connections leaving the bus.
  sdbus::Slot departures_;
  CredentialCache credentials_;
};

}  // namespace vantor
