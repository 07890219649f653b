// The daemon's own activities: the daily run and the low-space event stream.
// Both registrations last for the life of the process.

#include <algorithm>
#include <atomic>
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

// The monitor, once main has started it; for waking it from check-ins.
std::atomic<LowSpaceMonitor*> gMonitor{nullptr};

// In the run state, asks every periodic service to work on every local
// volume, in list order, from a global-queue thread; returns when every
// volume's call has returned, or has thrown (logged by the pool). Any other
// state (the check-in) does nothing.
void dailyActivityHandler(ActivityState state) {
  transactionBegin();
  if (state == ActivityState::kRun) {
    dispatch::Semaphore done;
    dispatch::globalAsync([&done] {
      dispatch::SignalOnExit finished(done);
      if (auto vantor = sharedVantor) {
        for (const auto& volume : getLocalVolumes())
          vantor->performPeriodicsWithInfo(
              Value(Value::Dictionary{{"VANTOR_VOLUME", Value(volume)}}));
      }
    });
    done.wait();
  }
  transactionEnd();
}

// Each event is handled on its own global-queue thread, as an event stream
// delivers them; events of different volumes may be handled at once. The
// monitor learns when handling has ended, however it ended, so the volume's
// next event can come. A purge whose caller stopped waiting at its time
// limit may still be working through its levels on operation_queue: the
// handling ends once they are done, so events never pile up behind it.
void volumeEventHandler(const VolumeEvent& event, LowSpaceMonitor::Handled handled) {
  dispatch::globalAsync([event, handled = std::move(handled)] {
    transactionBegin();
    struct OnExit {
      LowSpaceMonitor::Handled handled;
      ~OnExit() {
        transactionEnd();
        if (handled)
          handled();
      }
    } onExit{handled};
    if (auto vantor = sharedVantor) {
      vantor->handleVFSStreamXPCEvent(event);
      vantor->operation_queue->async(onExit.handled);
      onExit.handled = nullptr;
    }
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
  // The event stream "com.tessaly.dispatch.vfs". A purge with nobody to ask
  // would only hold operation_queue through its levels, so events wait until
  // some service purges.
  static LowSpaceMonitor* const monitor =
      new LowSpaceMonitor(LowSpaceSettings::fromEnvironment(), volumeEventHandler, {},
                          [] { return sharedVantor && sharedVantor->anyPurgingService(); });
  gMonitor.store(monitor);
}

void Vantor::purgingServicesChanged() {
  if (LowSpaceMonitor* monitor = gMonitor.load())
    monitor->pollNow();
}

bool Vantor::anyPurgingService() const {
  const auto table = publishedServices();
  return std::any_of(table->begin(), table->end(),
                     [](const auto& entry) { return entry.second->doesPurge(); });
}

}  // namespace vantor
