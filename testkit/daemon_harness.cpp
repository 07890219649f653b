#include "testkit/daemon_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/values/plist_io.h"

namespace vantor::testkit {

namespace {

int pidfdOpen(pid_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vantor-test-XXXXXX").string();
  char* made = ::mkdtemp(pattern.data());
  if (made == nullptr)
    throw std::runtime_error("mkdtemp failed");
  path_ = made;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::map<std::string, std::string>& env,
                           const std::filesystem::path& logFile, bool captureStdout) {
  int out[2] = {-1, -1};
  if (captureStdout && ::pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  pid_ = ::fork();
  if (pid_ < 0)
    throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    int fd = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::dup2(fd, STDERR_FILENO);
      ::dup2(fd, STDOUT_FILENO);
    }
    if (captureStdout)
      ::dup2(out[1], STDOUT_FILENO);
    for (const auto& [name, value] : env)
      ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> args;
    for (const auto& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  pidfd_ = pidfdOpen(pid_);
  if (captureStdout) {
    ::close(out[1]);
    stdout_ = out[0];
  }
}

bool ChildProcess::sawLineStartingWith(const std::string& prefix) const {
  for (const auto& line : lines_) {
    if (line.rfind(prefix, 0) == 0)
      return true;
  }
  return false;
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& prefix,
                                                     std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    for (; scanned_ < lines_.size(); ++scanned_) {
      if (lines_[scanned_].rfind(prefix, 0) == 0)
        return lines_[scanned_++];
    }
    if (stdout_ < 0)
      return std::nullopt;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return std::nullopt;
    struct pollfd pfd {
      stdout_, POLLIN, 0
    };
    if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0)
      return std::nullopt;
    char buffer[4096];
    ssize_t n = ::read(stdout_, buffer, sizeof buffer);
    if (n <= 0) {
      ::close(stdout_);
      stdout_ = -1;
      continue;
    }
    pending_.append(buffer, static_cast<std::size_t>(n));
    for (auto nl = pending_.find('\n'); nl != std::string::npos; nl = pending_.find('\n')) {
      lines_.push_back(pending_.substr(0, nl));
      pending_.erase(0, nl + 1);
    }
  }
}

ChildProcess::~ChildProcess() {
  if (!status_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  if (pidfd_ >= 0)
    ::close(pidfd_);
}

void ChildProcess::signal(int sig) {
  if (!status_)
    ::kill(pid_, sig);
}

std::optional<int> ChildProcess::waitExit(std::chrono::milliseconds timeout) {
  if (status_)
    return status_;
  struct pollfd pfd {
    pidfd_, POLLIN, 0
  };
  if (::poll(&pfd, 1, static_cast<int>(timeout.count())) <= 0)
    return std::nullopt;
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_)
    return std::nullopt;
  status_ = status;
  return status_;
}

PrivateBus::PrivateBus(const std::filesystem::path& directory)
    : serviceDir_(directory / "bus-services") {
  // The shared configuration plus a directory of activatable services of
  // this bus's own, so tests can install .service files without touching
  // any other bus.
  std::filesystem::create_directories(serviceDir_);
  const auto config = directory / "bus.conf";
  {
    std::ofstream out(config, std::ios::trunc);
    out << "<busconfig>\n  <include>" << VANTOR_BUS_CONFIG << "</include>\n  <servicedir>"
        << serviceDir_.string() << "</servicedir>\n</busconfig>\n";
  }
  // The bus prints its address on a pipe once it listens.
  int fds[2];
  if (::pipe2(fds, 0) != 0)
    throw std::runtime_error("pipe failed");
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"/usr/bin/dbus-daemon", "--config-file=" + config.string(),
                               "--nofork", "--print-address=" + std::to_string(fds[1])},
      std::map<std::string, std::string>{}, directory / "bus.log");
  ::close(fds[1]);
  std::string text;
  char buffer[512];
  struct pollfd pfd {
    fds[0], POLLIN, 0
  };
  while (text.find('\n') == std::string::npos && ::poll(&pfd, 1, 10000) > 0) {
    ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    if (n <= 0)
      break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fds[0]);
  if (text.find('\n') == std::string::npos)
    throw std::runtime_error("dbus-daemon did not start");
  address_ = text.substr(0, text.find('\n'));
}

void SignalWatch::record(const std::string& what) {
  std::lock_guard lock(mutex_);
  seen_.push_back(what);
  cv_.notify_all();
}

void SignalWatch::clear() {
  std::lock_guard lock(mutex_);
  seen_.clear();
}

bool SignalWatch::waitFor(const std::string& what, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return cv_.wait_for(lock, timeout, [&] {
    for (const auto& s : seen_) {
      if (s == what)
        return true;
    }
    return false;
  });
}

DaemonHarness::DaemonHarness() : root_(dir_.path() / "root"), stateDir_(dir_.path() / "state") {
  std::filesystem::create_directories(descriptorDir());
  std::filesystem::create_directories(policyDir());
  startBus();
}

void DaemonHarness::startBus() {
  bus_ = std::make_unique<PrivateBus>(dir_.path());
  watcher_ = connect();
  watcher_->addMatch(
      "type='signal',interface='com.tessaly.vantor.Notify',member='Posted'",
      [this](sdbus::Message& msg) {
        std::string name;
        msg >> name;
        watch_.record("Posted:" + name);
      },
      sdbus::floating_slot);
  watcher_->addMatch(
      "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'",
      [this](sdbus::Message& msg) {
        std::string name, oldOwner, newOwner;
        msg >> name >> oldOwner >> newOwner;
        watch_.record("NameOwnerChanged:" + name + ":" + (newOwner.empty() ? "" : "owned"));
      },
      sdbus::floating_slot);
}

void DaemonHarness::stopBus() {
  watcher_.reset();
  bus_.reset();
}

DaemonHarness::~DaemonHarness() {
  daemon_.reset();
  watcher_.reset();
}

void DaemonHarness::dumpLogs() const {
  std::ifstream services(dir_.path() / "services.log");
  std::stringstream text;
  text << services.rdbuf();
  std::fprintf(stderr, "--- vantord log\n%s--- services' stderr\n%s---\n", daemonLog().c_str(),
               text.str().c_str());
}

void DaemonHarness::reportFailure(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
}

void DaemonHarness::writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

void DaemonHarness::writeDescriptor(const std::string& name, const Value& descriptor) {
  auto bytes = encodePlist(descriptor, PlistFormat::kXml);
  writeFile(descriptorDir() / name, std::string(bytes.begin(), bytes.end()));
}

void DaemonHarness::grantUser(const std::string& file, uid_t uid,
                              const std::vector<std::string>& names) {
  Value::Array granted;
  for (const auto& n : names)
    granted.emplace_back(n);
  Value policy(Value::Dictionary{
      {"Users", Value(Value::Array{Value(std::to_string(uid))})},
      {"com.tessaly.private.Vantor", Value(granted)},
  });
  auto bytes = encodePlist(policy, PlistFormat::kXml);
  writeFile(policyDir() / file, std::string(bytes.begin(), bytes.end()));
}

std::unique_ptr<sdbus::IConnection> DaemonHarness::connect() {
  auto connection = sdbus::createSessionBusConnectionWithAddress(bus_->address());
  connection->enterEventLoopAsync();
  return connection;
}

bool DaemonHarness::startDaemon(const std::map<std::string, std::string>& extraEnv) {
  std::map<std::string, std::string> env{
      {"DBUS_SYSTEM_BUS_ADDRESS", bus_->address()},
      {"ZEPHON_SIMULATOR_ROOT", root_.string()},
      {"STATE_DIRECTORY", stateDir_.string()},
      {"VANTOR_LOG_LEVEL", "5"},
  };
  for (const auto& [k, v] : extraEnv)
    env[k] = v;
  watch_.clear();
  std::vector<std::string> argv = launcher_;
  argv.emplace_back(VANTORD_BINARY);
  daemon_ = std::make_unique<ChildProcess>(argv, env, dir_.path() / "vantord.log");
  const bool owned =
      watch_.waitFor("NameOwnerChanged:com.tessaly.vantor:owned", std::chrono::seconds(20));
  if (!owned)
    reportFailure("vantord did not take its bus name; log:\n" + daemonLog());
  // The launch notification follows the signal handlers: from here on the
  // daemon is fully up.
  const bool launched =
      owned && watch_.waitFor("Posted:com.tessaly.vantor.launched", std::chrono::seconds(20));
  if (owned && !launched)
    reportFailure("vantord did not announce its launch; log:\n" + daemonLog());
  return launched;
}

bool DaemonHarness::stopDaemon() {
  if (!daemon_)
    return true;
  daemon_->signal(SIGTERM);
  bool ended = daemon_->waitExit(std::chrono::seconds(10)).has_value();
  daemon_.reset();
  watch_.clear();
  return ended;
}

bool DaemonHarness::waitForLog(const std::string& text, std::chrono::milliseconds timeout) const {
  return waitForText(dir_.path() / "vantord.log", text, timeout);
}

bool waitForText(const std::filesystem::path& file, const std::string& text,
                 std::chrono::milliseconds timeout) {
  // Woken by every write to a file of its directory, the file's creation
  // included; the deadline bounds the wait.
  int inotify = ::inotify_init1(IN_CLOEXEC);
  if (inotify < 0)
    return false;
  ::inotify_add_watch(inotify, file.parent_path().c_str(), IN_MODIFY | IN_CREATE);
  const auto read = [&] {
    std::ifstream in(file);
    std::stringstream contents;
    contents << in.rdbuf();
    return contents.str();
  };
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool found = false;
  for (;;) {
    if (read().find(text) != std::string::npos) {
      found = true;
      break;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      break;
    struct pollfd pfd {
      inotify, POLLIN, 0
    };
    if (::poll(&pfd, 1, static_cast<int>(left.count())) > 0) {
      char events[4096];
      [[maybe_unused]] ssize_t ignored = ::read(inotify, events, sizeof events);
    }
  }
  ::close(inotify);
  return found;
}

std::string DaemonHarness::exampleServicePath() {
  return VANTOR_SERVICE_BINARY;  // the example service with test-only misbehaviour
}

std::unique_ptr<ChildProcess> DaemonHarness::startService(const std::vector<std::string>& args) {
  std::vector<std::string> argv{exampleServicePath()};
  argv.insert(argv.end(), args.begin(), args.end());
  return std::make_unique<ChildProcess>(
      argv, std::map<std::string, std::string>{{"DBUS_SYSTEM_BUS_ADDRESS", bus_->address()}},
      dir_.path() / "services.log", true);
}

std::size_t DaemonHarness::logCount(const std::string& text) const {
  const std::string log = daemonLog();
  std::size_t n = 0;
  for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
    ++n;
  return n;
}

std::vector<std::unique_ptr<ChildProcess>> DaemonHarness::startCheckedInServices(
    const std::string& idPrefix, int count, const std::vector<std::string>& args) {
  std::vector<std::unique_ptr<ChildProcess>> services;
  for (int i = 0; i < count; ++i) {
    std::vector<std::string> all{"--id", idPrefix + std::to_string(i), "--checkin"};
    all.insert(all.end(), args.begin(), args.end());
    services.push_back(startService(all));
  }
  for (auto& service : services) {
    if (!service->waitForLine("checked-in", std::chrono::seconds(60)))
      return {};
  }
  return services;
}

std::string DaemonHarness::daemonLog() const {
  std::ifstream in(dir_.path() / "vantord.log");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string callForError(sdbus::IConnection& connection, const std::string& method,
                         const std::function<void(sdbus::MethodCall&)>& addArgs) {
  auto proxy = sdbus::createProxy(connection, "com.tessaly.vantor", "/com/tessaly/vantor");
  auto call = proxy->createMethodCall("com.tessaly.vantor.Client", method);
  if (addArgs)
    addArgs(call);
  try {
    proxy->callMethod(call, 10'000'000);
  } catch (const sdbus::Error& e) {
    return e.getName();
  }
  return "";
}

}  // namespace vantor::testkit
