// vantor-cachedir: keeps the cache directories an administrator names in
// check. It tells vantord how much it could free at each urgency, frees the
// oldest files first when asked, trims by age and size in the daily run, and
// never deletes anything outside the directories it was given.

#include <malloc.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <sdbus-c++/Error.h>

#include "config.h"
#include "log.h"
#include "safe_fs.h"
#include "service.h"
#include "vantor_service_kit.h"

namespace {

constexpr char kBusName[] = "com.tessaly.vantor.cachedir";
constexpr long kDefaultScanSeconds = 900;

constexpr char kUsage[] =
    "usage: vantor-cachedir\n"
    "\n"
    "Serves com.tessaly.vantor.cachedir on the system bus (DBUS_SYSTEM_BUS_ADDRESS\n"
    "overrides its address) and looks after the directories configured in\n"
    "$ZEPHON_SIMULATOR_ROOT/etc/vantor/cachedirs.d/*.plist. SIGHUP re-reads them;\n"
    "VANTOR_CACHEDIR_SCAN_SECONDS sets how often they are rescanned (default 900).\n";

std::chrono::seconds scanInterval() {
  const char* text = std::getenv("VANTOR_CACHEDIR_SCAN_SECONDS");
  const long seconds = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::seconds(seconds > 0 ? seconds : kDefaultScanSeconds);
}

}  // namespace

int main(int argc, char** argv) {
  using vantor::cachedir::log;
  using vantor::cachedir::Priority;
  if (argc > 1) {
    const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
    std::fputs(kUsage, help ? stdout : stderr);
    return help ? 0 : 2;
  }

  // The index's large lists come and go with every rescan: have them mapped
  // on their own, so that each one's memory goes back to the system when it
  // is freed rather than staying in the heap.
  ::mallopt(M_MMAP_THRESHOLD, 256 * 1024);

  // The signals are taken by a thread of ours, never by a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    auto service = std::make_shared<vantor::cachedir::CacheDirService>(
        vantor::cachedir::configDirectory(), scanInterval());
    vantor::kit::ServiceHost host(service, std::string(kBusName));
    log(Priority::kInfo, std::string("serving ") + kBusName +
                             (vantor::cachedir::haveOpenat2() ? "" : " (without openat2)"));
    std::thread([&host, &service, signals] {
      while (true) {
        int signal = 0;
        sigwait(&signals, &signal);
        if (signal != SIGHUP)
          break;
        log(Priority::kInfo, "SIGHUP: re-reading the configuration");
        service->reload();
      }
      host.stop();
    }).detach();
    host.run();
    // Every call is answered, or its job stopped, while the connection that
    // carries the answers is still there; the host takes it down on leaving.
    service->stop();
  } catch (const sdbus::Error& e) {
    log(Priority::kError, "vantor-cachedir: " + e.getName() + ": " + e.getMessage());
    return 1;
  }
  return 0;
}
