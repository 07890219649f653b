#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "daemon/vantor.h"
#include "platform/values/value.h"

namespace vantor::test {

// A temporary directory, removed with everything in it when destroyed.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// A child process. Destroying the handle kills the process if it still runs.
class ChildProcess {
 public:
  // Starts `argv` with the current environment plus `env`; its stderr goes
  // to `logFile`, and so does its stdout unless `captureStdout` is set, in
  // which case its lines are read with waitForLine.
  ChildProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
               const std::filesystem::path& logFile, bool captureStdout = false);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int sig);
  // Waits for the process to end; the wait status, or nullopt at the deadline.
  std::optional<int> waitExit(std::chrono::milliseconds timeout);

  // Waits for a line of captured stdout that starts with `prefix` and returns
  // it; nullopt at the deadline. Lines read while waiting are kept.
  std::optional<std::string> waitForLine(const std::string& prefix,
                                         std::chrono::milliseconds timeout);
  // Every captured line read so far.
  const std::vector<std::string>& lines() const { return lines_; }
  bool sawLineStartingWith(const std::string& prefix) const;

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  int stdout_ = -1;
  std::string pending_;
  std::vector<std::string> lines_;
  std::size_t scanned_ = 0;
  std::optional<int> status_;
};

// A private dbus-daemon with the test configuration.
class PrivateBus {
 public:
  explicit PrivateBus(const std::filesystem::path& logFile);
  const std::string& address() const { return address_; }

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string address_;
};

// Records the signals of interest on a client connection.
class SignalWatch {
 public:
  void record(const std::string& what);
  // Waits until `what` has been recorded, at most `timeout`.
  bool waitFor(const std::string& what, std::chrono::milliseconds timeout);
  // Forgets what was seen, e.g. before restarting the daemon.
  void clear();

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> seen_;
};

// A fresh temporary root (descriptor directory and entitlement policy), state
// directory and private bus for one test, and the daemon started on them.
class TestContext {
 public:
  TestContext();
  ~TestContext();

  const std::filesystem::path& root() const { return root_; }
  const std::filesystem::path& stateDir() const { return stateDir_; }
  std::filesystem::path descriptorDir() const { return root_ / "System/Library/Vantor"; }
  std::filesystem::path policyDir() const { return root_ / "etc/vantor/entitlements.d"; }
  const std::string& busAddress() const { return bus_->address(); }

  void writeFile(const std::filesystem::path& path, const std::string& bytes);
  void writeDescriptor(const std::string& name, const Value& descriptor);
  // Writes a policy file granting `names` to the user `uid`.
  void grantUser(const std::string& file, uid_t uid, const std::vector<std::string>& names);

  // A new client connection to the private bus with its event loop running.
  std::unique_ptr<sdbus::IConnection> connect();

  // Starts vantord and waits until it owns its bus name. Fails the test (and
  // returns false) when it does not within the deadline.
  bool startDaemon(const std::map<std::string, std::string>& extraEnv = {});
  ChildProcess& daemon() { return *daemon_; }
  // Stops the daemon with SIGTERM and waits for it; false when it did not end.
  bool stopDaemon();
  std::string daemonLog() const;

  // Waits until the daemon's log contains `text`.
  bool waitForLog(const std::string& text, std::chrono::milliseconds timeout) const;

  // Starts the example service with `args`, capturing its event lines.
  std::unique_ptr<ChildProcess> startService(const std::vector<std::string>& args);

  // Signals seen on the context's own connection: "Posted:<name>" and
  // "NameOwnerChanged:<name>:<new owner>".
  SignalWatch& signals() { return watch_; }
  sdbus::IConnection& watcher() { return *watcher_; }

 private:
  TempDir dir_;
  std::filesystem::path root_;
  std::filesystem::path stateDir_;
  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<sdbus::IConnection> watcher_;
  SignalWatch watch_;
  std::unique_ptr<ChildProcess> daemon_;
};

// Calls `method` of the daemon's client interface and returns the D-Bus
// error name it answered with, or "" on success.
std::string callForError(sdbus::IConnection& connection, const std::string& method,
                         const std::function<void(sdbus::MethodCall&)>& addArgs = {});

// The entries of a captured-log helper for unit tests: install with
// LogCapture; every line written while it lives is recorded, formatted.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> lines() const;
  bool contains(const std::string& text) const;
  void clear();
};

// A coordinator created in process, off the bus, on a fresh temporary root
// and state directory. Tear-down restores the log gate and the wall clock.
class CoordinatorTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  TempDir dir_;
  std::shared_ptr<Vantor> vantor_;
};

}  // namespace vantor::test
