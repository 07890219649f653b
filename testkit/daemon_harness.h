#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/values/value.h"
#include "testkit/child_process.h"
#include "testkit/private_bus.h"
#include "testkit/signal_watch.h"
#include "testkit/temp_dir.h"

// What the integration tests and the benchmarks share: temporary
// directories, child processes, a private bus and the real daemon on it. This
// header brings all of them.
namespace vantor::testkit {

// A fresh temporary root (descriptor directory and entitlement policy), state
// directory and private bus, and the daemon started on them. Problems are
// reported through reportFailure, which a test framework may override.
class DaemonHarness {
 public:
  DaemonHarness();
  virtual ~DaemonHarness();
  DaemonHarness(const DaemonHarness&) = delete;
  DaemonHarness& operator=(const DaemonHarness&) = delete;

  // The temporary directory that holds everything below, logs included.
  const std::filesystem::path& directory() const { return dir_.path(); }
  const std::filesystem::path& root() const { return root_; }
  const std::filesystem::path& stateDir() const { return stateDir_; }
  std::filesystem::path descriptorDir() const { return root_ / "System/Library/Vantor"; }
  std::filesystem::path policyDir() const { return root_ / "etc/vantor/entitlements.d"; }
  const std::string& busAddress() const { return bus_->address(); }
  const std::filesystem::path& busServiceDir() const { return bus_->serviceDir(); }

  // Takes the bus away, as when it is stopped or crashes: the harness's own
  // connection is closed, then the bus is killed. Close every connection of
  // your own to it first: a connection whose bus vanishes ends its event loop
  // with an exception.
  void stopBus();
  // Starts a new bus (at a new address) in place of the stopped one; the
  // root and the state directory stay as they were.
  void startBus();

  void writeFile(const std::filesystem::path& path, const std::string& bytes);
  void writeDescriptor(const std::string& name, const Value& descriptor);
  // Writes a policy file granting `names` to the user `uid`.
  void grantUser(const std::string& file, uid_t uid, const std::vector<std::string>& names);

  // A new client connection to the private bus with its event loop running.
  std::unique_ptr<sdbus::IConnection> connect();

  // Starts vantord and waits until it owns its bus name and has announced its
  // launch. Reports a failure (and returns false) when it does not within the
  // deadline.
  bool startDaemon(const std::map<std::string, std::string>& extraEnv = {});
  ChildProcess& daemon() { return *daemon_; }
  // Words put before the daemon's path when it is started, e.g. a shell that
  // sets a resource limit and then runs the rest of its arguments.
  void setDaemonLauncher(std::vector<std::string> launcher) { launcher_ = std::move(launcher); }
  // Stops the daemon with SIGTERM and waits for it; false when it did not end.
  bool stopDaemon();
  std::string daemonLog() const;
  // How many times `text` occurs in the daemon's log so far.
  std::size_t logCount(const std::string& text) const;

  // Waits until the daemon's log contains `text`.
  bool waitForLog(const std::string& text, std::chrono::milliseconds timeout) const;

  // Starts the example service with `args`, capturing its event lines.
  std::unique_ptr<ChildProcess> startService(const std::vector<std::string>& args);
  // Starts `count` example services "<idPrefix>0", "<idPrefix>1", ... that
  // check in, each with `args` besides, and waits until all have; an empty
  // list when one did not within a minute.
  std::vector<std::unique_ptr<ChildProcess>> startCheckedInServices(
      const std::string& idPrefix, int count, const std::vector<std::string>& args);
  // The example service's executable.
  static std::string exampleServicePath();

  // The daemon's log and the services' stderr, on stderr.
  void dumpLogs() const;

  // Signals seen on the context's own connection: "Posted:<name>" and
  // "NameOwnerChanged:<name>:<new owner>".
  SignalWatch& signals() { return watch_; }
  sdbus::IConnection& watcher() { return *watcher_; }

 protected:
  virtual void reportFailure(const std::string& what);

 private:
  TempDir dir_;
  std::filesystem::path root_;
  std::filesystem::path stateDir_;
  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<sdbus::IConnection> watcher_;
  SignalWatch watch_;
  std::unique_ptr<ChildProcess> daemon_;
  std::vector<std::string> launcher_;
};

// Waits until `file` exists and contains `text`.
bool waitForText(const std::filesystem::path& file, const std::string& text,
                 std::chrono::milliseconds timeout);

// Calls `method` of the daemon's client interface and returns the D-Bus
// error name it answered with, or "" on success.
std::string callForError(sdbus::IConnection& connection, const std::string& method,
                         const std::function<void(sdbus::MethodCall&)>& addArgs = {});

}  // namespace vantor::testkit
