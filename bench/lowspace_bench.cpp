// The low-space monitor's cost and reaction time.
//
// 1. CPU: the monitor watching 20 volumes (directories standing for volumes;
//    statvfs costs the same): its thread's CPU time per poll at a 1 ms poll
//    for two seconds, then over SPAN seconds (default 60) at the default
//    10-second poll, scaled to an hour (target: under 10 ms).
// 2. Delay: vantord on a private bus with one purging service, polling every
//    second, the low threshold 1 GiB below the free space of the volume that
//    holds the temporary directory; a 2 GiB file takes the volume under it.
//    Time from the file's allocation to the service's first purge request
//    (target: under one poll interval plus 50 ms). RUNS restarts (default 5).
// Usage: lowspace_bench [RUNS [SPAN]]

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "figures.h"
#include "maintenance/low_space_monitor.h"
#include "support/volumes.h"
#include "testkit/daemon_harness.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint64_t kGiB = 1ULL << 30;

// The monitor's thread CPU time over `span` at `interval` and the polls made
// in it, counted from the end of its first poll, so that starting the thread
// and logging the volume list, which happen once, are left out.
std::pair<double, std::uint64_t> monitorRun(const std::vector<std::string>& volumes,
                                            std::chrono::nanoseconds interval,
                                            std::chrono::nanoseconds span) {
  vantor::LowSpaceSettings settings;
  settings.pollInterval = interval;
  vantor::LowSpaceMonitor monitor(
      settings, [](const vantor::VolumeEvent&, const vantor::LowSpaceMonitor::Handled&) {},
      [&volumes] { return volumes; });
  while (monitor.polls() == 0)
    std::this_thread::sleep_for(milliseconds(1));
  const auto startCpu = monitor.threadCpuTime();
  const auto startPolls = monitor.polls();
  std::this_thread::sleep_for(span);
  return {static_cast<double>((monitor.threadCpuTime() - startCpu).count()),
          monitor.polls() - startPolls};
}

void monitorCpu(std::chrono::seconds span) {
  vantor::testkit::TempDir dir;
  std::vector<std::string> volumes;
  for (int i = 0; i < 20; ++i) {
    auto path = dir.path() / ("volume" + std::to_string(i));
    std::filesystem::create_directory(path);
    volumes.push_back(path.string());
  }
  // Warm: many polls back to back give the cost of one.
  const auto [warmNs, warmPolls] = monitorRun(volumes, milliseconds(1), seconds(2));
  std::printf("monitor, 20 volumes, 1 ms poll: %llu polls, %.1f us CPU per poll\n",
              static_cast<unsigned long long>(warmPolls),
              warmNs / static_cast<double>(warmPolls) / 1e3);
  // As deployed: the default interval, each poll on cold caches; the hour is
  // the span scaled up.
  const vantor::LowSpaceSettings defaults;
  const auto [ns, polls] = monitorRun(volumes, defaults.pollInterval, span);
  std::printf(
      "monitor, 20 volumes, default %.0f s poll for %lld s: %llu polls, %.1f us CPU, "
      "%.2f ms CPU per hour (target < 10 ms)\n",
      std::chrono::duration<double>(defaults.pollInterval).count(),
      static_cast<long long>(span.count()), static_cast<unsigned long long>(polls), ns / 1e3,
      ns * (3600.0 / static_cast<double>(span.count())) / 1e6);
}

std::string volumeOf(const std::filesystem::path& path) {
  struct stat target {};
  if (::stat(path.c_str(), &target) != 0)
    return {};
  for (const auto& volume : vantor::getLocalVolumes()) {
    struct stat st {};
    if (::stat(volume.c_str(), &st) == 0 && st.st_dev == target.st_dev)
      return volume;
  }
  return {};
}

void crossingDelay(int runs) {
  vantor::testkit::DaemonHarness harness;
  const auto dir = harness.stateDir().parent_path();
  const std::string volume = volumeOf(dir);
  const auto space = vantor::volumeSpace(volume);
  if (volume.empty() || !space || space->available < 8 * kGiB) {
    std::printf(
        "delay: skipped, the temporary directory is not on a local volume with 8 GiB free\n");
    return;
  }
  harness.writeDescriptor(
      "cache.plist",
      vantor::Value(vantor::Value::Dictionary{{"VANTOR_ID", vantor::Value("com.example.cache")}}));
  auto service = harness.startService({"--id", "com.example.cache", "--own-name"});
  if (!service->waitForLine("ready", seconds(10)))
    std::exit(1);

  const auto ballast = dir / "ballast";
  std::vector<double> delays;
  for (int run = 0; run < runs; ++run) {
    std::filesystem::remove(ballast);
    const auto free = vantor::volumeSpace(volume)->available;
    if (!harness.startDaemon({{"VANTOR_LOG_LEVEL", "3"},
                              {"VANTOR_LOWDISK_BYTES", std::to_string(free - kGiB)},
                              {"VANTOR_VERYLOWDISK_BYTES", "0"},
                              {"VANTOR_LOWSPACE_POLL_SECONDS", "1"}})) {
      std::exit(1);
    }
    // Somewhere within the poll interval, as a real crossing would be.
    std::this_thread::sleep_for(milliseconds(137 * (run + 1) % 1000));
    const int fd = ::open(ballast.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const auto start = Clock::now();
    if (fd < 0 || ::fallocate(fd, 0, 0, 2 * kGiB) != 0) {
      std::perror("fallocate");
      std::exit(1);
    }
    ::close(fd);
    if (!service->waitForLine("purge 1 ", seconds(10))) {
      std::fprintf(stderr, "no purge request\n");
      std::exit(1);
    }
    delays.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    harness.stopDaemon();
  }
  std::filesystem::remove(ballast);
  std::printf(
      "crossing to first purge request, 1 s poll, %d runs: p50 %.1f ms, max %.1f ms "
      "(target < 1050 ms)\n",
      runs, vantor::bench::percentile(delays, 0.5), vantor::bench::percentile(delays, 1.0));
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 5;
  const int span = argc > 2 ? std::atoi(argv[2]) : 60;
  monitorCpu(seconds(span > 0 ? span : 60));
  crossingDelay(runs > 0 ? runs : 5);
}
