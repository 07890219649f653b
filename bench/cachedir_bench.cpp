// vantor-cachedir against the tools an administrator would use instead.
//
// On a private bus, with the service running as its own process over trees
// in a temporary directory on the disk that holds TMPDIR:
//   - deleting 20,000 files of 4 KiB: the service's purge against `rm -rf`
//     of an identical tree;
//   - scanning 100,000 files: a rescan against `du -s` of the same tree;
//   - how soon a cancel ends a purge of 100,000 files;
//   - the service's resident memory with 1,000,000 files indexed.
// Each timing is the median of RUNS runs.
//   - ten sources of 10,000 files: ServicePurgeable's latency per source, and
//     a purge across all of them (2,000 files of 4 KiB each) against `rm -rf`;
// Usage: cachedir_bench [RUNS [delete|scan|sources|memory]...]

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "figures.h"
#include "platform/values/dbus_value.h"
#include "platform/values/plist_io.h"
#include "testkit/daemon_harness.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using vantor::Value;
using vantor::bench::percentile;

constexpr char kName[] = "com.tessaly.vantor.cachedir";
constexpr std::uint64_t kEverything = 1ULL << 50;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// `count` files of `size` bytes in directories of 1,000, last used a month ago.
void makeTree(const fs::path& dir, int count, std::size_t size) {
  const std::string bytes(size, 'b');
  struct timespec old[2];
  ::clock_gettime(CLOCK_REALTIME, &old[0]);
  old[0].tv_sec -= 30 * 86400;
  old[1] = old[0];
  for (int i = 0; i < count; ++i) {
    const fs::path sub = dir / ("d" + std::to_string(i / 1000));
    if (i % 1000 == 0)
      fs::create_directories(sub);
    const int fd =
        ::open((sub / ("file" + std::to_string(i))).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || (size > 0 && ::write(fd, bytes.data(), size) != static_cast<ssize_t>(size))) {
      std::perror("creating the tree");
      std::exit(1);
    }
    ::futimens(fd, old);
    ::close(fd);
  }
  ::sync();
}

double median(std::vector<double> samples) {
  return percentile(std::move(samples), 0.5);
}

class Bench {
 public:
  explicit Bench(int runs) : runs_(runs), work_(harness_.root().parent_path() / "trees") {
    fs::create_directories(work_);
  }

  // Points the service at `dirs` (MinimumAge 0), each a source of its own
  // named source<N>, and (re)starts it.
  void serve(const std::vector<fs::path>& dirs) {
    proxy_.reset();
    connection_.reset();
    service_.reset();
    harness_.signals().clear();
    fs::remove_all(harness_.root() / "etc/vantor/cachedirs.d");
    for (std::size_t i = 0; i < dirs.size(); ++i) {
      const Value config(
          Value::Dictionary{{"Path", Value(dirs[i].string())}, {"MinimumAge", Value(0)}});
      const auto bytes = vantor::encodePlist(config, vantor::PlistFormat::kXml);
      harness_.writeFile(
          harness_.root() / ("etc/vantor/cachedirs.d/source" + std::to_string(i) + ".plist"),
          std::string(bytes.begin(), bytes.end()));
    }
    service_ = std::make_unique<vantor::testkit::ChildProcess>(
        std::vector<std::string>{VANTOR_CACHEDIR_BINARY},
        std::map<std::string, std::string>{{"ZEPHON_SIMULATOR_ROOT", harness_.root().string()},
                                           {"DBUS_SYSTEM_BUS_ADDRESS", harness_.busAddress()}},
        harness_.root().parent_path() / "cachedir.log");
    if (!harness_.signals().waitFor(std::string("NameOwnerChanged:") + kName + ":owned",
                                    std::chrono::seconds(30))) {
      std::fprintf(stderr, "vantor-cachedir did not start\n");
      std::exit(1);
    }
    connection_ = harness_.connect();
    proxy_ = sdbus::createProxy(*connection_, kName, "/com/tessaly/vantor/Service");
  }
  void serve(const fs::path& dir) { serve(std::vector<fs::path>{dir}); }

  std::uint64_t rescan() {
    vantor::VariantMap result;
    proxy_->callMethod("ServiceCallback")
        .onInterface("com.tessaly.vantor.Service")
        .withTimeout(std::chrono::minutes(10))
        .withArguments(vantor::toVariantMap({{"Rescan", Value(true)}}))
        .storeResultsTo(result);
    return vantor::fromVariantMap(result)["Files"].uint64Value();
  }

  std::uint64_t purge(sdbus::IProxy& proxy, std::uint64_t amount) {
    vantor::VariantMap result;
    proxy.callMethod("ServicePurge")
        .onInterface("com.tessaly.vantor.Service")
        .withTimeout(std::chrono::minutes(10))
        .withArguments(4, vantor::toVariantMap({{"VANTOR_AMOUNT", Value(amount)}}))
        .storeResultsTo(result);
    return vantor::fromVariantMap(result)["VANTOR_AMOUNT"].uint64Value();
  }

  void deletion() {
    constexpr int kFiles = 20000;
    std::vector<double> rm, service;
    for (int run = 0; run < runs_; ++run) {
      const fs::path a = work_ / "rm", b = work_ / "purge";
      makeTree(a, kFiles, 4096);
      makeTree(b, kFiles, 4096);
      auto start = Clock::now();
      if (std::system(("rm -rf " + a.string()).c_str()) != 0)
        std::exit(1);
      rm.push_back(kFiles / secondsSince(start));
      serve(b);
      rescan();
      start = Clock::now();
      purge(*proxy_, kEverything);
      service.push_back(kFiles / secondsSince(start));
      fs::remove_all(b);
    }
    print("delete 20,000 files of 4 KiB", "rm -rf", median(rm), median(service), "files/s");
  }

  void scanning() {
    constexpr int kFiles = 100000;
    const fs::path tree = work_ / "scan";
    makeTree(tree, kFiles, 0);
    serve(tree);
    rescan();  // both start from warm caches
    std::vector<double> du, service;
    for (int run = 0; run < runs_; ++run) {
      auto start = Clock::now();
      if (std::system(("du -s " + tree.string() + " > /dev/null").c_str()) != 0)
        std::exit(1);
      du.push_back(kFiles / secondsSince(start));
      start = Clock::now();
      rescan();
      service.push_back(kFiles / secondsSince(start));
    }
    print("scan 100,000 files", "du -s", median(du), median(service), "files/s");

    // Empty files free nothing: the purge would go through all of them.
    std::vector<double> cancel;
    auto canceller = harness_.connect();
    auto cancelProxy = sdbus::createProxy(*canceller, kName, "/com/tessaly/vantor/Service");
    for (int run = 0; run < runs_; ++run) {
      auto purging = std::async(std::launch::async, [this] { return purge(*proxy_, 1); });
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      const auto start = Clock::now();
      cancelProxy->callMethod("ServiceCancelPurge").onInterface("com.tessaly.vantor.Service");
      purging.get();
      cancel.push_back(secondsSince(start) * 1000);
      rescan();
    }
    std::printf("%-32s %14s %14.1f ms (median; target 100 ms)\n", "cancel a purge of 100,000", "",
                median(cancel));
    fs::remove_all(tree);
  }

  // Ten sources: how soon one answers ServicePurgeable from the index, and
  // how fast a purge across all of them deletes.
  void sources() {
    constexpr int kSources = 10, kIndexed = 10000, kDeleted = 2000;
    std::vector<fs::path> dirs;
    for (int i = 0; i < kSources; ++i) {
      dirs.push_back(work_ / "sources" / ("s" + std::to_string(i)));
      makeTree(dirs.back(), kIndexed, 0);
    }
    serve(dirs);
    rescan();
    const std::string last = std::string(kName) + ".source" + std::to_string(kSources - 1);
    if (!harness_.signals().waitFor("NameOwnerChanged:" + last + ":owned",
                                    std::chrono::seconds(30))) {
      std::fprintf(stderr, "the sources did not take their names\n");
      std::exit(1);
    }
    std::vector<std::unique_ptr<sdbus::IProxy>> proxies;
    for (int i = 0; i < kSources; ++i) {
      proxies.push_back(sdbus::createProxy(*connection_,
                                           std::string(kName) + ".source" + std::to_string(i),
                                           "/com/tessaly/vantor/Service"));
    }
    std::vector<double> latency;
    for (int round = 0; round < 100 * runs_; ++round) {
      for (auto& proxy : proxies) {
        vantor::VariantMap result;
        const auto start = Clock::now();
        proxy->callMethod("ServicePurgeable")
            .onInterface("com.tessaly.vantor.Service")
            .withArguments(4,
                           vantor::toVariantMap({{"VANTOR_VOLUME", Value(dirs.front().string())}}))
            .storeResultsTo(result);
        latency.push_back(secondsSince(start) * 1000);
      }
    }
    std::printf("%-32s %14s %8.2f ms p50, %.2f ms p99, %.2f ms max (target 5 ms)\n",
                "purgeable, 10 sources, 100,000", "", percentile(latency, 0.5),
                percentile(latency, 0.99), percentile(latency, 1.0));
    proxies.clear();
    fs::remove_all(work_ / "sources");

    std::vector<double> rm, service;
    for (int run = 0; run < runs_; ++run) {
      dirs.clear();
      for (int i = 0; i < kSources; ++i) {
        makeTree(work_ / "rm" / ("s" + std::to_string(i)), kDeleted, 4096);
        dirs.push_back(work_ / "purge" / ("s" + std::to_string(i)));
        makeTree(dirs.back(), kDeleted, 4096);
      }
      auto start = Clock::now();
      if (std::system(("rm -rf " + (work_ / "rm").string()).c_str()) != 0)
        std::exit(1);
      rm.push_back(kSources * kDeleted / secondsSince(start));
      serve(dirs);
      rescan();
      start = Clock::now();
      purge(*proxy_, kEverything);
      service.push_back(kSources * kDeleted / secondsSince(start));
      fs::remove_all(work_ / "purge");
    }
    print("delete across 10 sources", "rm -rf", median(rm), median(service), "files/s");
  }

  void memory() {
    constexpr int kFiles = 1000000;
    const fs::path tree = work_ / "million";
    makeTree(tree, kFiles, 0);
    serve(tree);
    const std::uint64_t indexed = rescan();
    std::printf(
        "%-32s %14s %14.1f MiB resident (%.1f MiB anonymous), %.1f MiB peak, %llu files "
        "(target 64 MiB)\n",
        "memory, 1,000,000 files indexed", "", status("VmRSS:") / 1024.0,
        status("RssAnon:") / 1024.0, status("VmHWM:") / 1024.0,
        static_cast<unsigned long long>(indexed));
    fs::remove_all(tree);
  }

 private:
  void print(const char* what, const char* tool, double theirs, double ours, const char* unit) {
    std::printf("%-32s %-8s %10.0f  vantor-cachedir %10.0f %s  (%.0f %%)\n", what, tool, theirs,
                ours, unit, 100.0 * ours / theirs);
  }
  // A figure in KiB from the service's /proc status, e.g. "VmHWM:".
  long status(const std::string& key) const {
    std::ifstream status("/proc/" + std::to_string(service_->pid()) + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind(key, 0) == 0)
        return std::stol(line.substr(key.size()));
    }
    return -1;
  }

  vantor::testkit::DaemonHarness harness_;
  const int runs_;
  const fs::path work_;
  std::unique_ptr<vantor::testkit::ChildProcess> service_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  const std::vector<std::string> parts(argv + std::min(argc, 2), argv + argc);
  const auto wanted = [&parts](const char* part) {
    return parts.empty() || std::find(parts.begin(), parts.end(), part) != parts.end();
  };
  Bench bench(runs);
  if (wanted("delete"))
    bench.deletion();
  if (wanted("scan"))
    bench.scanning();
  if (wanted("sources"))
    bench.sources();
  if (wanted("memory"))
    bench.memory();
  return 0;
}
