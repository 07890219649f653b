// vantord: process entry.

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "daemon/vantor.h"
#include "platform/clock/clock.h"
#include "platform/dispatch/global_pool.h"
#include "support/listener.h"
#include "support/log.h"
#include "support/transactions.h"

namespace {

// Ends the process at once with status 0. _exit, not exit: other threads keep
// running, and static destructors racing them could crash a clean stop.
extern "C" void sigterm_handler(int) {
  _exit(0);
}

// A block that throws is logged and its thread goes on with the next one.
void logUncaught(const char* where, const char* what) {
  VANTOR_LOG(3, "%s a block on %s ended by throwing: %s", "main", where, what);
}

// Re-reads the entitlement policy on every SIGHUP. The signal is blocked in
// every thread, so only this one receives it.
void watchForReload() {
  std::thread([] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    for (;;) {
      int signal = 0;
      if (sigwait(&set, &signal) == 0 && signal == SIGHUP && vantor::sharedVantor) {
        try {
          vantor::sharedVantor->reloadEntitlementPolicy();
        } catch (...) {
          vantor::dispatch::reportUncaughtException("SIGHUP reload");
        }
      }
    }
  }).detach();
}

// The allocator settings vantord runs with. Dozens of pool threads, most of
// them waiting on a service or a queue at any moment, each kept a cache of
// freed blocks of every size and could take an arena of its own: under a
// steady load the daemon's memory grew with every thread that had ever
// allocated, to twice what it holds. Without per-thread caches and with two
// arenas (one per core of a small machine) it stays flat.
constexpr char kAllocatorTunables[] = "glibc.malloc.tcache_count=0:glibc.malloc.arena_max=2";

// The C library reads its allocator tunables only when a program starts, so
// vantord starts itself once more with them added, before any thread exists.
// An administrator who sets allocator tunables of their own gets exactly
// those. When the process cannot be replaced it goes on with the defaults.
void restartWithAllocatorTunables(char** argv) {
  const char* given = std::getenv("GLIBC_TUNABLES");
  const std::string current = given != nullptr ? given : "";
  if (current.find("glibc.malloc.") != std::string::npos) {
    return;  // set by the administrator, or by the start before this one
  }
  const std::string tunables =
      current.empty() ? kAllocatorTunables : std::string(kAllocatorTunables) + ":" + current;
  if (::setenv("GLIBC_TUNABLES", tunables.c_str(), 1) != 0) {
    return;
  }
  // Started by its own path, not by /proc/self/exe, so the process keeps
  // its name for ps, pkill and the journal.
  char self[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) {
    return;
  }
  self[length] = '\0';
  ::execv(self, argv);
  std::fprintf(stderr, "vantord: cannot restart with allocator settings: %s\n",
               std::strerror(errno));
}

}  // namespace

int main(int /*argc*/, char** argv) {
  restartWithAllocatorTunables(argv);

  using vantor::sharedVantor;

  // Block SIGHUP before any thread exists, so every thread inherits the mask.
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  if (const int error = pthread_sigmask(SIG_BLOCK, &hangup, nullptr); error != 0) {
    VANTOR_LOG(3, "%s cannot block SIGHUP: %s", "main", std::strerror(error));
  }

  vantor::dispatch::setUncaughtExceptionHandler(&logUncaught);
  vantor::transactionBegin();

  vantor::clock::Timebase timebase;
  if (vantor::clock::timebaseInfo(&timebase)) {
    vantor::gTimebaseConversion =
        static_cast<double>(timebase.numer) / static_cast<double>(timebase.denom);
    VANTOR_LOG(5, "%s timebaseInfo:  %u / %u, gTimebaseConversion: %f", "main", timebase.numer,
               timebase.denom, vantor::gTimebaseConversion);
  } else {
    VANTOR_LOG(3, "%s Failed to get timebase info\n", "main");
  }

  std::string listenError;
  sharedVantor = vantor::Vantor::create(vantor::Vantor::Options{}, &listenError);
  if (!listenError.empty()) {
    // Without its bus name the daemon can serve nobody; say so whatever the
    // log level, and let the service manager see the failure.
    std::fprintf(stderr, "vantord: cannot serve on the system bus: %s\n", listenError.c_str());
    return 1;
  }
  watchForReload();

  sharedVantor->registerDailyActivity();
  sharedVantor->registerVolumeEventStream();

  if (signal(SIGTERM, sigterm_handler) == SIG_ERR) {
    VANTOR_LOG(3, "%s cannot handle SIGTERM: %s", "main", std::strerror(errno));
  }

  if (vantor::notifyPost("com.tessaly.vantor.launched") != 0) {
    VANTOR_LOG(3, "%s notify_post failed: %s", "main", std::strerror(errno));
  }
  // Serving on the bus is what readiness means, whether or not the launch
  // signal went out.
  vantor::notifyReady();

  VANTOR_LOG(5, "%s Vantor, open for business!", "main");

  vantor::transactionEnd();
  vantor::dispatch::runMain();
}
