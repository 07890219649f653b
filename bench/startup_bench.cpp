// Start-up of vantord with many descriptor files, and its idle memory.
//
// Prints the time from exec to the launch announcement (the last step of
// start-up) over repeated runs on a private bus, and the daemon's resident
// memory once idle.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "figures.h"
#include "platform/values/plist_io.h"
#include "testkit/daemon_harness.h"

namespace {

using vantor::bench::percentile;
using vantor::bench::residentKiB;
using Clock = std::chrono::steady_clock;

void run(vantor::testkit::DaemonHarness& ctx, const char* label,
         const std::map<std::string, std::string>& env, int runs) {
  std::vector<double> ms;
  long rss = 0;
  for (int i = 0; i < runs; ++i) {
    auto start = Clock::now();
    if (!ctx.startDaemon(env))
      return;
    if (!ctx.signals().waitFor("Posted:com.tessaly.vantor.launched", std::chrono::seconds(20))) {
      std::fprintf(stderr, "no launch announcement\n");
      return;
    }
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    if (i == runs - 1) {
      // Idle: start-up is over and nothing calls in.
      rss = residentKiB(ctx.daemon().pid());
    }
    ctx.stopDaemon();
  }
  std::printf("%-40s runs %3d  p50 %7.1f ms  p90 %7.1f ms  max %7.1f ms  idle RSS %.2f MiB\n",
              label, runs, percentile(ms, 0.5), percentile(ms, 0.9),
              *std::max_element(ms.begin(), ms.end()), static_cast<double>(rss) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 20;
  vantor::testkit::DaemonHarness ctx;
  ctx.grantUser("root.plist", 0, {"CLIENT_ENTITLEMENT"});
  for (int i = 0; i < 1000; ++i) {
    vantor::Value::Array kinds{vantor::Value("PURGE")};
    if (i % 3 == 0)
      kinds.emplace_back("PERIODIC");
    vantor::Value descriptor(vantor::Value::Dictionary{
        {"VANTOR_ID", vantor::Value("com.example.service" + std::to_string(i))},
        {"VANTOR_SERVICES", vantor::Value(kinds)},
        {"VANTOR_NOTIFICATIONS",
         vantor::Value(vantor::Value::Array{vantor::Value("VANTOR_CACHE_ENABLED")})},
    });
    auto bytes = vantor::encodePlist(
        descriptor, i % 2 == 0 ? vantor::PlistFormat::kXml : vantor::PlistFormat::kBinary);
    ctx.writeFile(ctx.descriptorDir() / ("group" + std::to_string(i % 10)) /
                      ("service" + std::to_string(i) + ".plist"),
                  std::string(bytes.begin(), bytes.end()));
  }
  std::printf(
      "vantord start-up with 1000 descriptor files (target: under 300 ms; idle RSS under 8 MiB)\n");
  run(ctx, "errors only (VANTOR_LOG_LEVEL=3)", {{"VANTOR_LOG_LEVEL", "3"}}, runs);
  run(ctx, "tracing (VANTOR_LOG_LEVEL=5)", {{"VANTOR_LOG_LEVEL", "5"}}, runs);
  return 0;
}
