// The daemon's own activities: the daily run and the low-space event stream.
// Both registrations last for the life of the process.

#include <filesystem>

#include "daemon/vantor.h"
#include "maintenance/daily_scheduler.h"
#include "maintenance/low_space_monitor.h"
#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/semaphore.h"
#include "support/transactions.h"
#include "support/volumes.h"

namespace vantor {

namespace {

// In the run state, asks every periodic service to work on every local
// volume, in list order, from a global-queue thread; returns when every
// volume's call has returned. Any other state (the check-in) does nothing.
void dailyActivityHandler(ActivityState state) {
  transactionBegin();
  if (state == ActivityState::kRun) {
    dispatch::Semaphore done;
    dispatch::globalAsync([&done] {
      if (auto vantor = sharedVantor) {
        for (const auto& volume : getLocalVolumes())
          vantor->performPeriodicsWithInfo(
              Value(Value::Dictionary{{"VANTOR_VOLUME", Value(volume)}}));
      }
      done.signal();
    });
    done.wait();
  }
  transactionEnd();
}

// Each event is handled on its own global-queue thread, as an event stream
// delivers them; several may be handled at once.
void volumeEventHandler(const VolumeEvent& event) {
  dispatch::globalAsync([event] {
    transactionBegin();
    if (auto vantor = sharedVantor)
      vantor->handleVFSStreamXPCEvent(event);
    transactionEnd();
  });
}

}  // namespace

void Vantor::registerDailyActivity() {
  // The activity "com.tessaly.Vantor.daily".
  static DailyScheduler* const scheduler =
      new DailyScheduler(std::filesystem::path(stateDirectory) / "daily-run",
                         dailyIntervalFromEnvironment(), dailyActivityHandler);
  (void)scheduler;
}

void Vantor::registerVolumeEventStream() {
  // The event stream "com.tessaly.dispatch.vfs".
  static LowSpaceMonitor* const monitor =
      new LowSpaceMonitor(LowSpaceSettings::fromEnvironment(), volumeEventHandler);
  (void)monitor;
}

}  // namespace vantor
