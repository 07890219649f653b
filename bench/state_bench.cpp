// Round trips of ClientGetState and ClientSetState through the bus.
//
// Starts vantord on a private bus and has 1, then 16, clients (each with its
// own connection and thread) call it back to back; prints p50 and p99 of the
// round-trip latency and the throughput of each run.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "figures.h"
#include "testkit/daemon_harness.h"

namespace {

using vantor::bench::percentile;
using Clock = std::chrono::steady_clock;

// Each client sets its own key (so sets never overwrite one another) or
// reads it back; returns the latencies in microseconds.
std::vector<double> clientLoop(vantor::testkit::DaemonHarness& ctx, int client, bool set,
                               int calls) {
  auto connection = sdbus::createSessionBusConnectionWithAddress(ctx.busAddress());
  auto proxy = sdbus::createProxy(*connection, "com.tessaly.vantor", "/com/tessaly/vantor");
  const std::string key = "BENCH_" + std::to_string(client);
  std::vector<double> us;
  us.reserve(static_cast<std::size_t>(calls));
  for (int i = 0; i < calls; ++i) {
    const auto start = Clock::now();
    if (set) {
      std::vector<sdbus::Variant> value{sdbus::Variant(std::int64_t{i})};
      proxy->callMethod("ClientSetState")
          .onInterface("com.tessaly.vantor.Client")
          .withArguments(value, key);
    } else {
      std::vector<sdbus::Variant> value;
      proxy->callMethod("ClientGetState")
          .onInterface("com.tessaly.vantor.Client")
          .withArguments(key)
          .storeResultsTo(value);
    }
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return us;
}

void run(vantor::testkit::DaemonHarness& ctx, const char* method, bool set, int clients,
         int calls) {
  std::vector<std::vector<double>> results(static_cast<std::size_t>(clients));
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back(
        [&, c] { results[static_cast<std::size_t>(c)] = clientLoop(ctx, c, set, calls); });
  }
  for (auto& t : threads)
    t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (auto& r : results)
    all.insert(all.end(), r.begin(), r.end());
  std::printf("%-15s clients %2d  calls %6zu  p50 %7.1f us  p99 %7.1f us  %8.0f calls/s\n", method,
              clients, all.size(), percentile(all, 0.5), percentile(all, 0.99),
              static_cast<double>(all.size()) / seconds);
}

}  // namespace

int main(int argc, char** argv) {
  const int calls = argc > 1 ? std::atoi(argv[1]) : 2000;
  vantor::testkit::DaemonHarness ctx;
  ctx.grantUser("bench.plist", ::getuid(), {"CLIENT_ENTITLEMENT"});
  if (!ctx.startDaemon({{"VANTOR_LOG_LEVEL", "3"}}))
    return 1;
  std::printf(
      "client state round trips through the bus (target: get p50 at most 200 us, 1 client)\n");
  for (int clients : {1, 16}) {
    run(ctx, "ClientSetState", true, clients, clients == 1 ? calls : calls / 4);
    run(ctx, "ClientGetState", false, clients, clients == 1 ? calls : calls / 4);
  }
  ctx.stopDaemon();
  return 0;
}
