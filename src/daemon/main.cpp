// vantord: process entry.

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
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

}  // namespace

int main() {
  using vantor::sharedVantor;

  // Block SIGHUP before any thread exists, so every thread inherits the mask.
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &hangup, nullptr);

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

  signal(SIGTERM, sigterm_handler);

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
