// Purgeable-space query latency with 1, 10 and 100 example services.
//
// For each count, starts vantord on a private bus and that many example
// services (checked in, answering at once), then times ClientPurgeableSpace
// round trips: uncached (the recent-info cache emptied before each query, so
// every service is asked), cached (answered from the cache alone, back to
// back) and the first cached query right after an uncached one. Prints p50
// and p99 of each, and the daemon's resident memory with the services
// registered. Usage: query_bench [QUERIES [SERVICE-COUNT...]]

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "figures.h"
#include "platform/values/dbus_value.h"
#include "testkit/daemon_harness.h"

namespace {

using vantor::bench::percentile;
using vantor::bench::residentKiB;
using Clock = std::chrono::steady_clock;

void run(int serviceCount, int queries) {
  vantor::testkit::DaemonHarness ctx;
  ctx.grantUser("bench.plist", ::getuid(),
                {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT"});
  if (!ctx.startDaemon({{"VANTOR_LOG_LEVEL", "3"}}))
    std::exit(1);
  const auto services =
      ctx.startCheckedInServices("com.example.bench", serviceCount, {"--amount", "1048576"});
  if (services.empty() && serviceCount > 0) {
    std::fprintf(stderr, "a service did not check in\n");
    std::exit(1);
  }
  auto connection = ctx.connect();
  auto proxy = sdbus::createProxy(*connection, "com.tessaly.vantor", "/com/tessaly/vantor");
  const auto info = vantor::toVariantMap({{"VANTOR_VOLUME", vantor::Value("/")}});
  auto queryOnce = [&] {
    vantor::VariantMap result;
    const auto start = Clock::now();
    proxy->callMethod("ClientPurgeableSpace")
        .onInterface("com.tessaly.vantor.Client")
        .withTimeout(std::chrono::seconds(60))
        .withArguments(info)
        .storeResultsTo(result);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    const auto total = vantor::fromVariant(result["VANTOR_TOTAL_AVAILABLE"]).int64Value();
    if (total != static_cast<std::int64_t>(serviceCount) << 20)
      std::fprintf(stderr, "unexpected total %lld\n", static_cast<long long>(total));
    return ms;
  };
  // Uncached: the cache emptied before each query. Right after it, the first
  // cached query (the daemon still settling from the fan-out), then a run of
  // cached queries back to back.
  std::vector<double> uncached, firstCached, cached;
  for (int q = 0; q < queries; ++q) {
    proxy->callMethod("ClientSetState")
        .onInterface("com.tessaly.vantor.Client")
        .withArguments(vantor::VariantArray{}, std::string("VANTOR_RECENT_SERVICE_STATS"));
    uncached.push_back(queryOnce());
    firstCached.push_back(queryOnce());
  }
  for (int q = 0; q < queries * 10; ++q)
    cached.push_back(queryOnce());
  std::printf(
      "%3d services  uncached p50 %6.2f p99 %6.2f ms   cached p50 %5.2f p99 %5.2f ms"
      "   first cached p50 %5.2f p99 %5.2f ms   daemon RSS %.2f MiB\n",
      serviceCount, percentile(uncached, 0.5), percentile(uncached, 0.99), percentile(cached, 0.5),
      percentile(cached, 0.99), percentile(firstCached, 0.5), percentile(firstCached, 0.99),
      static_cast<double>(residentKiB(ctx.daemon().pid())) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  const int queries = argc > 1 ? std::atoi(argv[1]) : 50;
  std::printf(
      "purgeable-space queries on / (targets at 100 services: cached p50 <= 1 ms, "
      "uncached p50 <= 30 ms)\n");
  std::vector<int> counts{1, 10, 100};
  if (argc > 2) {
    counts.clear();
    for (int i = 2; i < argc; ++i)
      counts.push_back(std::atoi(argv[i]));
  }
  for (int count : counts)
    run(count, queries);
  return 0;
}
