// Purge overhead with 1, 10 and 100 example services.
//
// For each count, starts vantord on a private bus and that many example
// services (checked in), each answering a purge request after a fixed service
// time, then times ClientPurge round trips of one urgency level. What the
// purge takes beyond the services' own time is the daemon's (and the bus's)
// share. The services answer that they freed nothing, so no service is asked
// again and every purge is exactly one level. Prints p50 and p99 of the
// purge time and of the overhead, the daemon's CPU time per purge and its
// resident memory. Usage: purge_bench [PURGES [SERVICE-TIME-MS]]

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
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

// User plus system CPU time of `pid` so far, in milliseconds.
double cpuMilliseconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::stringstream read;
  read << stat.rdbuf();
  const std::string text = read.str();
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14)
      utime = std::stoull(field);
    if (i == 15)
      stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) * 1000.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

void run(int serviceCount, int purges, int serviceMs) {
  vantor::testkit::DaemonHarness ctx;
  ctx.grantUser("bench.plist", ::getuid(),
                {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGE_ENTITLEMENT"});
  if (!ctx.startDaemon({{"VANTOR_LOG_LEVEL", "3"}}))
    std::exit(1);
  const auto services =
      ctx.startCheckedInServices("com.example.bench", serviceCount,
                                 {"--amount", "0", "--delay-ms", std::to_string(serviceMs)});
  if (services.empty() && serviceCount > 0) {
    std::fprintf(stderr, "a service did not check in\n");
    std::exit(1);
  }
  auto connection = ctx.connect();
  auto proxy = sdbus::createProxy(*connection, "com.tessaly.vantor", "/com/tessaly/vantor");
  // Far more than the volume could free, so the level is always worked.
  const auto info = vantor::toVariantMap({{"VANTOR_VOLUME", vantor::Value("/")},
                                          {"VANTOR_AMOUNT", vantor::Value(1ULL << 50)},
                                          {"VANTOR_URGENCY", vantor::Value(1)},
                                          {"VANTOR_PURGE_TIMEOUT", vantor::Value(30)}});
  auto purgeOnce = [&] {
    vantor::VariantMap result;
    const auto start = Clock::now();
    proxy->callMethod("ClientPurge")
        .onInterface("com.tessaly.vantor.Client")
        .withTimeout(std::chrono::seconds(130))
        .withArguments(info)
        .storeResultsTo(result);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (result.count("VANTOR_ASYNC_COMPLETE") == 0)
      std::fprintf(stderr, "a purge ended before every service had answered\n");
    return ms;
  };
  purgeOnce();  // warm-up: connections, caches
  std::vector<double> totals, overheads;
  const double cpuBefore = cpuMilliseconds(ctx.daemon().pid());
  for (int p = 0; p < purges; ++p) {
    const double ms = purgeOnce();
    totals.push_back(ms);
    overheads.push_back(ms - serviceMs);
  }
  const double cpuPerPurge = (cpuMilliseconds(ctx.daemon().pid()) - cpuBefore) / purges;
  std::printf(
      "%3d services  purge p50 %7.2f p99 %7.2f ms   beyond the services p50 %6.2f p99 %6.2f ms "
      "(%4.1f %% of p50)   daemon CPU %.2f ms/purge   daemon RSS %.2f MiB\n",
      serviceCount, percentile(totals, 0.5), percentile(totals, 0.99), percentile(overheads, 0.5),
      percentile(overheads, 0.99), 100.0 * percentile(overheads, 0.5) / percentile(totals, 0.5),
      cpuPerPurge, static_cast<double>(residentKiB(ctx.daemon().pid())) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  const int purges = argc > 1 ? std::atoi(argv[1]) : 30;
  const int serviceMs = argc > 2 ? std::atoi(argv[2]) : 200;
  std::printf(
      "one-level purges on /, services answering after %d ms (targets: beyond the services "
      "<= 5 %% of the total, <= 20 ms at 100 services)\n",
      serviceMs);
  for (int count : {1, 10, 100})
    run(count, purges, serviceMs);
  return 0;
}
