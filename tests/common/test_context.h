#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/log_capture.h"
#include "daemon/vantor.h"
#include "platform/values/value.h"
#include "testkit/daemon_harness.h"

// What every test against the daemon shares. This header brings GoogleTest,
// sdbus-c++ and the standard containers and strings with it, so the tests
// include only what they use beyond those.
namespace vantor::test {

using testkit::callForError;
using testkit::ChildProcess;
using testkit::PrivateBus;
using testkit::SignalWatch;
using testkit::TempDir;
using testkit::waitForText;

// The daemon harness for one test: its failures fail the test, and a failed
// test shows what the daemon and the services said.
class TestContext : public testkit::DaemonHarness {
 public:
  ~TestContext() override;
  // Grants the test's user `names` and starts the daemon.
  bool startDaemonGranting(const std::vector<std::string>& names,
                           const std::map<std::string, std::string>& extraEnv = {});

 protected:
  void reportFailure(const std::string& what) override;
};

// A test against a daemon with one client connection to it.
class ClientTest : public ::testing::Test {
 protected:
  // Grants the test's user `names`, and this test program (not vantorctl or
  // other programs run by the same user) `programNames` besides, then starts
  // the daemon with `env` and connects.
  void start(const std::vector<std::string>& names,
             const std::map<std::string, std::string>& env = {},
             const std::vector<std::string>& programNames = {});
  // Queries "/" with `method` until an answer comes wholly from the cache,
  // the daemon having asked none of `ids`. The first round asks the services.
  // Other tests beside this one write to the same disk, and once its free
  // space has moved past the cache's tolerance the daemon drops every cached
  // answer and asks again. Each further round waits for the replies the last
  // one set off.
  Value::Dictionary queryFromCache(const std::vector<std::string>& ids,
                                   const std::string& method = "ClientPurgeableSpace");

  TestContext ctx_;
  std::unique_ptr<sdbus::IConnection> client_;
};

// Calls a method of the client interface that takes and answers a
// dictionary; throws sdbus::Error.
Value::Dictionary callClient(sdbus::IConnection& client, const std::string& method,
                             const Value::Dictionary& info);
// The answer of `method` of the Admin interface, which takes no arguments;
// throws sdbus::Error.
template <typename Reply>
Reply callAdmin(sdbus::IConnection& client, const std::string& method) {
  Reply reply;
  sdbus::createProxy(client, "com.tessaly.vantor", "/com/tessaly/vantor")
      ->callMethod(method)
      .onInterface("com.tessaly.vantor.Admin")
      .storeResultsTo(reply);
  return reply;
}
// The daemon's live counters (GetCounters); throws sdbus::Error.
Value::Dictionary counters(sdbus::IConnection& client);
// Sets `key` of the client state (a null value removes it): the D-Bus error
// name, or "" on success.
std::string setState(sdbus::IConnection& client, const std::string& key, const Value& value);
// The client state's value for `key`, null when it has none.
Value getState(sdbus::IConnection& client, const std::string& key);

// Asks for the client state of an arbitrary key: the D-Bus error name, or ""
// when the daemon answers.
std::string probeState(sdbus::IConnection& client);

// Starts the example service as `id`, checking in, with `args` besides, and
// waits until it has checked in; a failure shows the daemon's log.
std::unique_ptr<ChildProcess> checkedInService(TestContext& ctx, const std::string& id,
                                               const std::vector<std::string>& args = {});

// Polls `done` until it holds; false when `timeout` passes first.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

// The local volume whose file system holds `path`, "" when none does.
std::string volumeHolding(const std::filesystem::path& path);

// The whole contents of a text file, "" when it cannot be read.
std::string readText(const std::filesystem::path& path);

// The urgencies and amounts the example service was asked for, in order,
// from its "purge <urgency> {... "VANTOR_AMOUNT" = <bytes>; ...}" lines: those
// printed so far (a service prints its line before it answers, so every
// request of a finished purge is there).
std::vector<std::pair<int, std::uint64_t>> purgeRequests(ChildProcess& service);

// The entries of an Admin method that answers a list of named dictionaries
// (ListServices, GetVolumes), by name; throws sdbus::Error.
std::map<std::string, Value::Dictionary> namedEntries(sdbus::IConnection& client,
                                                      const std::string& method);

// A coordinator created in process, off the bus, with `dir` as its root and
// its state directory below it.
std::shared_ptr<Vantor> startCoordinator(const TempDir& dir);

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
