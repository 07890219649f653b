// vantor-cachedir: keeps the cache directories an administrator names in
// check. It tells vantord how much it could free at each urgency, frees the
// oldest files first when asked, trims by age and size in the daily run, and
// never deletes anything outside the directories it was given.

#include <malloc.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/Error.h>

#include "config.h"
#include "log.h"
#include "safe_fs.h"
#include "service.h"
#include "vantor_service_kit.h"

namespace {

using vantor::cachedir::log;
using vantor::cachedir::Priority;

constexpr char kBusName[] = "com.tessaly.vantor.cachedir";
constexpr long kDefaultScanSeconds = 900;

constexpr char kUsage[] =
    "usage: vantor-cachedir [--user]\n"
    "\n"
    "Serves com.tessaly.vantor.cachedir on the system bus (DBUS_SYSTEM_BUS_ADDRESS\n"
    "overrides its address) and looks after the directories configured in\n"
    "$ZEPHON_SIMULATOR_ROOT/etc/vantor/cachedirs.d/*.plist, each file a source\n"
    "that checks in with vantord as com.tessaly.vantor.cachedir.<source>.\n"
    "\n"
    "  --user  look after the caller's own caches instead: ~/.cache/thumbnails,\n"
    "          the tagged directories below ~/.cache, the Trash, and what\n"
    "          $XDG_CONFIG_HOME/vantor/cachedirs.d/*.plist names; the sources\n"
    "          check in as com.tessaly.vantor.cachedir.user<uid>.<source>\n"
    "\n"
    "SIGHUP re-reads the configuration; VANTOR_CACHEDIR_SCAN_SECONDS sets how\n"
    "often it is rescanned (default 900).\n";

// The sources the package ships: vantord knows them from descriptor files,
// so their names are taken at start, configured or not, and D-Bus activation
// for any of them starts this service and finds the name.
constexpr const char* kShippedSources[] = {"apt-archives", "coredumps", "journal"};

// What this instance serves: the system's caches, or one user's.
struct Mode {
  bool user = false;
  std::string idPrefix = vantor::cachedir::kSourceIdPrefix;
  std::filesystem::path home;  // the user's
};

// The object path of `source`: below the protocol's own path, with every
// character an object path cannot hold written as _XX.
std::string objectPathOf(const std::string& source) {
  std::string path = "/com/tessaly/vantor/Service/";
  for (const char c : source) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      path += c;
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "_%02x", static_cast<unsigned char>(c));
      path += escaped;
    }
  }
  return path;
}

// Serves `source` under its ID on its own object path and, for the system
// instance, on the bus name of its ID too, so that a descriptor file naming
// the ID reaches it.
void addSource(const Mode& mode, vantor::kit::ServiceHost& host,
               vantor::cachedir::CacheDirService& service, const std::string& source) {
  const std::string id = mode.idPrefix + source;
  try {
    host.addService(service.sourceService(source), objectPathOf(source),
                    mode.user ? std::nullopt : std::optional<std::string>(id));
  } catch (const std::exception& e) {
    // Without the name, it is still reached at the path it checks in with.
    log(Priority::kWarning, id + ": cannot own the bus name: " + e.what());
  }
}

// Offers each source the configuration names to vantord under its own ID,
// as it appears (at start and after each reload), until the service stops.
void registerSources(const Mode& mode, vantor::kit::ServiceHost& host,
                     vantor::cachedir::CacheDirService& service) {
  std::vector<std::string> known;
  if (!mode.user)
    known.assign(std::begin(kShippedSources), std::end(kShippedSources));
  std::vector<std::string> checkedIn;
  for (;;) {
    const std::vector<std::string> sources = service.awaitSources(checkedIn);
    if (sources.empty())
      return;
    for (const std::string& source : sources) {
      if (std::find(checkedIn.begin(), checkedIn.end(), source) != checkedIn.end())
        continue;
      checkedIn.push_back(source);
      if (std::find(known.begin(), known.end(), source) == known.end())
        addSource(mode, host, service, source);
      const std::string id = mode.idPrefix + source;
      try {
        host.checkIn({id, objectPathOf(source), true, true, {}});
        log(Priority::kInfo, "checked in " + id);
      } catch (const std::exception& e) {
        log(Priority::kWarning, id + ": check-in refused: " + e.what());
      }
    }
  }
}

std::chrono::seconds scanInterval() {
  const char* text = std::getenv("VANTOR_CACHEDIR_SCAN_SECONDS");
  const long seconds = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::seconds(seconds > 0 ? seconds : kDefaultScanSeconds);
}

std::filesystem::path homeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/')
    return home;
  if (const struct passwd* pw = ::getpwuid(::getuid()); pw != nullptr && pw->pw_dir != nullptr)
    return pw->pw_dir;
  return {};
}

std::shared_ptr<vantor::cachedir::CacheDirService> makeService(const Mode& mode) {
  namespace cd = vantor::cachedir;
  if (!mode.user) {
    const std::filesystem::path dir = cd::configDirectory();
    return std::make_shared<cd::CacheDirService>(
        [dir] {
          cd::Config config = cd::loadConfig(dir);
          config.commands = cd::loadCommandSources(cd::configurationRoot());
          for (const cd::CommandDefinition& command : config.commands) {
            if (std::find(config.sources.begin(), config.sources.end(), command.name) ==
                config.sources.end())
              config.sources.push_back(command.name);
          }
          return config;
        },
        dir.string() + " and commands.d", scanInterval());
  }
  const std::filesystem::path dir = cd::userConfigDirectory(mode.home);
  const std::filesystem::path home = mode.home;
  return std::make_shared<cd::CacheDirService>(
      [dir, home] {
        cd::Config config = cd::userDefaults(home);
        cd::Config own = cd::loadConfig(dir);
        config.directories.insert(config.directories.end(), own.directories.begin(),
                                  own.directories.end());
        config.taggedBelow.insert(config.taggedBelow.end(), own.taggedBelow.begin(),
                                  own.taggedBelow.end());
        for (const std::string& source : own.sources) {
          if (std::find(config.sources.begin(), config.sources.end(), source) ==
              config.sources.end())
            config.sources.push_back(source);
        }
        return config;
      },
      dir.string(), scanInterval());
}

}  // namespace

int main(int argc, char** argv) {
  Mode mode;
  if (argc > 1) {
    const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
    if (argc == 2 && std::strcmp(argv[1], "--user") == 0) {
      mode.user = true;
      mode.idPrefix += "user" + std::to_string(::getuid()) + ".";
      mode.home = homeDirectory();
      if (mode.home.empty()) {
        std::fputs("vantor-cachedir: --user: no home directory\n", stderr);
        return 1;
      }
    } else {
      std::fputs(kUsage, help ? stdout : stderr);
      return help ? 0 : 2;
    }
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
    auto service = makeService(mode);
    vantor::kit::ServiceHost host(service,
                                  mode.user ? std::nullopt : std::optional<std::string>(kBusName));
    log(Priority::kInfo,
        "serving " + (mode.user ? mode.idPrefix + "* for " + mode.home.string() : kBusName) +
            " as " + host.uniqueName() +
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
    if (!mode.user) {
      for (const char* source : kShippedSources)
        addSource(mode, host, *service, source);
    }
    std::thread registrar([&] { registerSources(mode, host, *service); });
    host.run();
    // Every call is answered, or its job stopped, while the connection that
    // carries the answers is still there; the host takes it down on leaving.
    service->stop();
    registrar.join();
  } catch (const sdbus::Error& e) {
    log(Priority::kError, "vantor-cachedir: " + e.getName() + ": " + e.getMessage());
    return 1;
  }
  return 0;
}
