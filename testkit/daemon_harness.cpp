#include "testkit/daemon_harness.h"

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "platform/files/fd.h"
#include "platform/values/plist_io.h"

namespace vantor::testkit {

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
  const Fd inotify(::inotify_init1(IN_CLOEXEC));
  if (!inotify.valid())
    return false;
  ::inotify_add_watch(inotify.get(), file.parent_path().c_str(), IN_MODIFY | IN_CREATE);
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
      inotify.get(), POLLIN, 0
    };
    if (::poll(&pfd, 1, static_cast<int>(left.count())) > 0) {
      char events[4096];
      [[maybe_unused]] ssize_t ignored = ::read(inotify.get(), events, sizeof events);
    }
  }
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
