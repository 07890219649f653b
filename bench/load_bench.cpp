// Sustained load: many clients at once while services misbehave.
//
// Starts vantord on a private bus with 100 example services, all checked in:
// most answer at once, some after 200 ms, some never, and a few are killed
// and started again (checking in anew) in turn throughout the run, one every
// half second unless the check-in takes longer. Then 64 client threads, each
// on its own connection, call for DURATION seconds: 52 ClientSetState and
// ClientGetState, 8 ClientPurgeableSpace and ClientItemizedPurgeableSpace, 4
// ClientPurge (1 MiB at urgency 1 with a 2-second time-out) and, one call in
// four, ClientCancelPurge.
//
// The state clients keep a steady pace, RATE calls a second each (default 30:
// 52 × 30 = 1,560 calls a second, a day of a busy machine's state traffic, at
// one call a second, in a minute), and their latency is counted from the
// moment each call was due, so a daemon that falls behind shows it in full
// rather than slowing the clients down. RATE 0 has them call back to back,
// which measures throughput: their latency is then the number of clients
// over the daemon's rate, whatever the daemon does. The query and purge
// clients call back to back.
//
// Prints, per method, the calls, p50/p99/max latency and the errors by D-Bus
// error name; how long the restarted services took to check in again; the
// daemon's threads, open descriptors and resident memory, sampled ten times
// a second, as first-half against second-half averages, and once more 10 s
// after the last call (growth that stays then is a leak); and p99 of
// ClientGetState per 10-second window (state calls must not queue behind slow
// services), beside the p99 of pings to the bus daemon and to vantord and of
// how late this tool's sleeping threads woke in the same window.
//
// Usage: load_bench [DURATION-SECONDS [RATE]]   (defaults 60 and 30)

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "figures.h"
#include "platform/values/dbus_value.h"
#include "testkit/daemon_harness.h"

namespace {

using vantor::bench::percentile;
using vantor::testkit::ChildProcess;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kServices = 100;
constexpr int kSlow = 15;       // answer after 200 ms
constexpr int kSilent = 5;      // never answer
constexpr int kRestarted = 10;  // killed and started again during the run
constexpr int kClients = 64;
// The daemon's thread count follows its bursts of work (a query fans out to
// every service), which last a fraction of a second: sampled once a second,
// a burst would count in full or not at all.
constexpr int kSamplesPerSecond = 10;

enum Method { kSet, kGet, kPurgeable, kItemized, kPurge, kCancel, kMethods };
constexpr std::array<const char*, kMethods> kMethodNames = {
    "ClientSetState", "ClientGetState",   "ClientPurgeableSpace", "ClientItemizedPurgeableSpace",
    "ClientPurge",    "ClientCancelPurge"};

struct Sample {
  float at;  // seconds since the clients started
  float ms;
};

// What one client thread saw.
struct ClientResults {
  std::array<std::vector<Sample>, kMethods> samples;
  std::array<std::map<std::string, long>, kMethods> errors;
};

// One sample of the daemon's resources.
struct Resources {
  double threads = 0, descriptors = 0, rssMiB = 0;
};

Resources sampleOf(pid_t pid) {
  Resources r;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Threads:", 0) == 0)
      r.threads = std::stod(line.substr(8));
    else if (line.rfind("VmRSS:", 0) == 0)
      r.rssMiB = std::stod(line.substr(6)) / 1024.0;
  }
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
    ++r.descriptors;
  return r;
}

// The example services, started with their output in files of their own
// (nobody reads it while the load runs, and a pipe would fill and stall
// them).
class Services {
 public:
  explicit Services(vantor::testkit::DaemonHarness& ctx) : ctx_(ctx) {}

  // Starts service `index` (again) and returns the log it writes to.
  std::filesystem::path start(int index) {
    const std::string id = "com.example.load" + std::to_string(index);
    std::vector<std::string> argv{vantor::testkit::DaemonHarness::exampleServicePath(),
                                  "--id",
                                  id,
                                  "--checkin",
                                  "--amount",
                                  std::to_string(1 << 20)};
    if (index < kSlow)
      argv.insert(argv.end(), {"--delay-ms", "200"});
    else if (index < kSlow + kSilent)
      argv.insert(argv.end(), {"--silent", "--silent-purge"});
    const auto log = ctx_.directory() / (id + "." + std::to_string(generation_++) + ".log");
    processes_[index] = std::make_unique<ChildProcess>(
        argv, std::map<std::string, std::string>{{"DBUS_SYSTEM_BUS_ADDRESS", ctx_.busAddress()}},
        log);
    return log;
  }

  bool checkedIn(const std::filesystem::path& log, std::chrono::milliseconds timeout) {
    return vantor::testkit::waitForText(log, "checked-in", timeout);
  }

  // Kills service `index` and starts it again; the milliseconds until it had
  // checked in again, or -1 when it had not within 30 seconds.
  double restart(int index) {
    processes_[index]->signal(SIGKILL);
    processes_[index]->waitExit(seconds(5));
    const auto begin = Clock::now();
    if (!checkedIn(start(index), seconds(30)))
      return -1;
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  }

 private:
  vantor::testkit::DaemonHarness& ctx_;
  std::array<std::unique_ptr<ChildProcess>, kServices> processes_;
  int generation_ = 0;
};

// A client's own connection, opened before the clock starts: the calls are
// measured, not the bus's handshake with 64 newcomers at once.
//
// No event loop thread: a client only makes blocking calls, which then wait
// for their reply on the calling thread. With a loop thread every reply would
// be read there and handed over, two thread switches more per call on a
// machine the daemon shares with this tool.
struct Caller {
  explicit Caller(const std::string& address)
      : connection(sdbus::createSessionBusConnectionWithAddress(address)) {}
  std::unique_ptr<sdbus::IProxy> proxyTo(const std::string& name, const std::string& path) {
    return sdbus::createProxy(*connection, name, path);
  }
  std::unique_ptr<sdbus::IConnection> connection;
};

void runClient(int index, Caller& caller, double rate, Clock::time_point start,
               Clock::time_point end, ClientResults& out) {
  auto proxy = caller.proxyTo("com.tessaly.vantor", "/com/tessaly/vantor");
  std::mt19937 random(static_cast<unsigned>(index));
  const vantor::VariantMap onRoot{{"VANTOR_VOLUME", sdbus::Variant(std::string("/"))}};
  const vantor::VariantMap purge{{"VANTOR_VOLUME", sdbus::Variant(std::string("/"))},
                                 {"VANTOR_AMOUNT", sdbus::Variant(std::uint64_t{1} << 20)},
                                 {"VANTOR_URGENCY", sdbus::Variant(std::int32_t{1})},
                                 {"VANTOR_PURGE_TIMEOUT", sdbus::Variant(std::int32_t{2})}};
  const bool keepsState = index % 16 >= 3;
  const auto period = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(rate > 0 ? 1.0 / rate : 0.0));
  // Paced clients start spread over one period, not in step.
  auto due = start + period * (index % 16) / 16;
  while (Clock::now() < end) {
    // Purges run one at a time and a query may wait for slow services, so a
    // thread that mixed everything would soon sit in a purge queue like all
    // the others. Each thread has a role instead: one in sixteen purges (and
    // one call in four cancels), two query, the rest keep state.
    const unsigned pick = random() % 100;
    Method method;
    if (index % 16 == 0)
      method = pick < 75 ? kPurge : kCancel;
    else if (index % 16 < 3)
      method = pick < 70 ? kPurgeable : kItemized;
    else
      method = pick < 50 ? kSet : kGet;
    // Eight keys of its own and four every client shares.
    const std::string key =
        random() % 4 == 0 ? "load.shared." + std::to_string(random() % 4)
                          : "load." + std::to_string(index) + "." + std::to_string(random() % 8);
    auto call = proxy->createMethodCall("com.tessaly.vantor.Client", kMethodNames[method]);
    if (method == kSet)
      call << std::vector<sdbus::Variant>{sdbus::Variant(std::string(16 + random() % 240, 'v'))}
           << key;
    else if (method == kGet)
      call << key;
    else if (method == kPurgeable || method == kItemized)
      call << onRoot;
    else if (method == kPurge)
      call << purge;
    if (keepsState && rate > 0) {
      std::this_thread::sleep_until(due);
    } else {
      due = Clock::now();
    }
    const auto before = due;
    due += period;
    try {
      proxy->callMethod(call, 125'000'000);  // a purge may take 120 s
    } catch (const sdbus::Error& e) {
      ++out.errors[method][e.getName()];
    }
    const auto after = Clock::now();
    out.samples[method].push_back(
        {std::chrono::duration<float>(before - start).count(),
         std::chrono::duration<float, std::milli>(after - before).count()});
  }
}

// The bus's own share of a round trip: on a connection of its own, pings the
// bus daemon and vantord in turn, each kPingRate times a second, counted
// from the moment each ping was due like the state calls. vantord's bus
// library answers a ping on its bus thread without running any of the
// daemon's code, so a slow ping there is a busy bus thread or a slow bus.
// How late the thread woke for each ping is kept too (kWakeUp): a machine
// that runs nobody on time slows every figure, the daemon's or not.
constexpr double kPingRate = 50;
enum Target { kBusDaemon, kVantord, kTargets, kWakeUp = kTargets, kProbes };

void runPings(Caller& caller, Clock::time_point start, Clock::time_point end,
              std::array<std::vector<Sample>, kProbes>& out) {
  const std::array<std::unique_ptr<sdbus::IProxy>, kTargets> proxies = {
      caller.proxyTo("org.freedesktop.DBus", "/org/freedesktop/DBus"),
      caller.proxyTo("com.tessaly.vantor", "/com/tessaly/vantor")};
  const auto period = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(1.0 / (kPingRate * static_cast<int>(kTargets))));
  auto due = start;
  for (int turn = 0; Clock::now() < end; ++turn) {
    std::this_thread::sleep_until(due);
    const auto before = due;
    due += period;
    out[kWakeUp].push_back(
        {std::chrono::duration<float>(before - start).count(),
         std::chrono::duration<float, std::milli>(Clock::now() - before).count()});
    auto& proxy = *proxies[turn % kTargets];
    try {
      proxy.callMethod(proxy.createMethodCall("org.freedesktop.DBus.Peer", "Ping"), 5'000'000);
    } catch (const sdbus::Error&) {
      continue;  // counted nowhere: only the time of answered pings matters here
    }
    out[turn % kTargets].push_back(
        {std::chrono::duration<float>(before - start).count(),
         std::chrono::duration<float, std::milli>(Clock::now() - before).count()});
  }
}

double average(const std::vector<Resources>& samples, std::size_t from, std::size_t to,
               double Resources::*field) {
  double sum = 0;
  for (std::size_t i = from; i < to; ++i)
    sum += samples[i].*field;
  return to > from ? sum / static_cast<double>(to - from) : 0;
}

// Grants this user every entitlement the load needs, starts vantord and the
// services, and waits until every service has checked in; false (with the
// logs dumped) when one did not.
bool setUp(vantor::testkit::DaemonHarness& ctx, Services& services) {
  ctx.grantUser("bench.plist", ::getuid(),
                {"CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT",
                 "ITEMIZED_PURGEABLE_ENTITLEMENT", "PURGE_ENTITLEMENT"});
  if (!ctx.startDaemon({{"VANTOR_LOG_LEVEL", "3"}}))
    return false;
  std::vector<std::filesystem::path> logs;
  for (int i = 0; i < kServices; ++i)
    logs.push_back(services.start(i));
  for (const auto& log : logs) {
    if (!services.checkedIn(log, seconds(60))) {
      std::fprintf(stderr, "a service did not check in: %s\n", log.c_str());
      ctx.dumpLogs();
      return false;
    }
  }
  return true;
}

// What the load phase saw.
struct LoadResults {
  std::vector<ClientResults> clients;
  std::array<std::vector<Sample>, kProbes> pings;
  std::vector<Resources> resources;  // of the daemon, kSamplesPerSecond a second
  std::vector<double> checkins;      // of the restarted services, in ms
  int lostRestarts = 0;
  double elapsed = 0;  // seconds until the last call was answered
};

// The clients, the pinger, the restarts of services and the sampling of the
// daemon's resources, all for `duration` seconds.
LoadResults runLoad(vantor::testkit::DaemonHarness& ctx, Services& services, int duration,
                    double rate) {
  const pid_t daemon = ctx.daemon().pid();
  LoadResults out;
  out.clients.resize(kClients);
  std::vector<std::unique_ptr<Caller>> callers;
  for (int i = 0; i <= kClients; ++i)  // the last one pings
    callers.push_back(std::make_unique<Caller>(ctx.busAddress()));
  const auto start = Clock::now();
  const auto end = start + seconds(duration);
  std::thread restarter([&] {
    auto next = Clock::now();
    for (int turn = 0; Clock::now() < end; ++turn) {
      next += milliseconds(500);
      std::this_thread::sleep_until(next);
      const double ms = services.restart(kServices - kRestarted + turn % kRestarted);
      if (ms < 0)
        ++out.lostRestarts;
      else
        out.checkins.push_back(ms);
    }
  });
  std::thread sampler([&] {
    auto next = Clock::now();
    // Over the clients' time only: the last long calls finish after it, with
    // the state clients already gone.
    while (Clock::now() < end) {
      out.resources.push_back(sampleOf(daemon));
      next += milliseconds(1000 / kSamplesPerSecond);
      std::this_thread::sleep_until(next);
    }
  });
  std::thread pinger(runPings, std::ref(*callers[kClients]), start, end, std::ref(out.pings));
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i)
    clients.emplace_back(runClient, i, std::ref(*callers[i]), rate, start, end,
                         std::ref(out.clients[i]));
  for (auto& client : clients)
    client.join();
  pinger.join();
  out.elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  sampler.join();
  restarter.join();
  return out;
}

// Per method: the calls, their latency and errors; then the errors by name.
void reportCalls(const LoadResults& load, int duration) {
  long total = 0;
  std::printf("\n%-30s %8s %9s %9s %9s %8s\n", "method", "calls", "p50 ms", "p99 ms", "max ms",
              "errors");
  std::map<std::string, long> errorsByName;
  for (int m = 0; m < kMethods; ++m) {
    std::vector<double> ms;
    long errors = 0;
    for (const auto& r : load.clients) {
      for (const auto& s : r.samples[m])
        ms.push_back(s.ms);
      for (const auto& [name, n] : r.errors[m]) {
        errors += n;
        errorsByName[std::string(kMethodNames[m]) + "  " + name] += n;
      }
    }
    total += static_cast<long>(ms.size());
    std::printf("%-30s %8zu %9.2f %9.2f %9.2f %8ld\n", kMethodNames[m], ms.size(),
                percentile(ms, 0.5), percentile(ms, 0.99), percentile(ms, 1.0), errors);
  }
  std::printf("%ld calls, %.0f a second over the %d s of load (the last answered at %.1f s)\n",
              total, static_cast<double>(total) / duration, duration, load.elapsed);
  std::printf("\nerrors by D-Bus error name:%s\n", errorsByName.empty() ? " none" : "");
  for (const auto& [name, n] : errorsByName)
    std::printf("  %-70s %8ld\n", name.c_str(), n);
}

// The restarted services' check-ins, and the daemon's resources in the first
// half of the run against the second.
void reportServicesAndResources(const LoadResults& load) {
  const auto& resources = load.resources;
  std::printf(
      "\nservices restarted: %zu checked in again, p50 %.0f ms, max %.0f ms (start to "
      "check-in); %d not within 30 s\n",
      load.checkins.size(), percentile(load.checkins, 0.5), percentile(load.checkins, 1.0),
      load.lostRestarts);
  const std::size_t half = resources.size() / 2;
  std::printf("daemon, sampled %d times a second (%zu)   first half   second half   change\n",
              kSamplesPerSecond, resources.size());
  const std::pair<const char*, double Resources::*> fields[] = {
      {"threads", &Resources::threads},
      {"open descriptors", &Resources::descriptors},
      {"RSS MiB", &Resources::rssMiB}};
  for (const auto& [label, field] : fields) {
    const double first = average(resources, 0, half, field);
    const double second = average(resources, half, resources.size(), field);
    std::printf("  %-43s %10.1f %13.1f %+8.1f %%\n", label, first, second,
                first > 0 ? 100.0 * (second - first) / first : 0.0);
  }
}

// Per 10-second window: ClientGetState's p99 beside the pings' and the
// wake-ups', and the daemon's resources at the window's end.
void reportWindows(const LoadResults& load, int duration) {
  const auto& resources = load.resources;
  std::printf(
      "\nper 10 s window   ClientGetState calls   p99 ms   ping p99 ms: bus daemon  vantord   "
      "wake-up p99 ms   "
      "daemon at its end: threads  fds  RSS MiB\n");
  for (int window = 0; window * 10 < duration; ++window) {
    const auto inWindow = [&](const Sample& s) {
      return s.at >= static_cast<float>(window * 10) && s.at < static_cast<float>(window * 10 + 10);
    };
    std::vector<double> ms;
    for (const auto& r : load.clients) {
      for (const auto& s : r.samples[kGet]) {
        if (inWindow(s))
          ms.push_back(s.ms);
      }
    }
    std::array<std::vector<double>, kProbes> pingMs;
    for (int t = 0; t < kProbes; ++t) {
      for (const auto& s : load.pings[t]) {
        if (inWindow(s))
          pingMs[t].push_back(s.ms);
      }
    }
    const Resources at =
        resources.empty()
            ? Resources{}
            : resources[std::min(resources.size(),
                                 std::size_t((window * 10 + 10) * kSamplesPerSecond)) -
                        1];
    std::printf("  %3d-%3d s %21zu %8.2f %24.2f %8.2f %16.2f %28.0f %4.0f %8.1f\n", window * 10,
                std::min(duration, window * 10 + 10), ms.size(), percentile(ms, 0.99),
                percentile(pingMs[kBusDaemon], 0.99), percentile(pingMs[kVantord], 0.99),
                percentile(pingMs[kWakeUp], 0.99), at.threads, at.descriptors, at.rssMiB);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int duration = argc > 1 ? std::atoi(argv[1]) : 60;
  const double rate = argc > 2 ? std::atof(argv[2]) : 30.0;
  if (duration < 2 || rate < 0) {
    std::fprintf(stderr, "usage: load_bench [DURATION-SECONDS >= 2 [RATE >= 0]]\n");
    return 2;
  }
  vantor::testkit::DaemonHarness ctx;
  Services services(ctx);
  if (!setUp(ctx, services))
    return 1;
  std::printf(
      "%d services (%d answer after 200 ms, %d never, %d restarted in turn every 0.5 s), %d "
      "clients, %d s; state clients at %.0f calls/s each (0: back to back)\n",
      kServices, kSlow, kSilent, kRestarted, kClients, duration, rate);
  std::fflush(stdout);

  const LoadResults load = runLoad(ctx, services, duration, rate);
  reportCalls(load, duration);
  reportServicesAndResources(load);
  reportWindows(load, duration);

  // Idle pool threads retire after two seconds: what is left 10 s after the
  // last call is kept for good.
  std::this_thread::sleep_for(seconds(10));
  const Resources idle = sampleOf(ctx.daemon().pid());
  std::printf("daemon 10 s after the last call: threads %.0f, fds %.0f, RSS %.1f MiB\n",
              idle.threads, idle.descriptors, idle.rssMiB);
  const bool alive = !ctx.daemon().waitExit(milliseconds(0)).has_value();
  std::printf("\nvantord %s\n", alive ? "still serving" : "ENDED during the run");
  if (!alive)
    ctx.dumpLogs();
  return alive ? 0 : 1;
}
