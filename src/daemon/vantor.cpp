#include "daemon/vantor.h"

#include <cstdlib>
#include <vector>

#include "support/entitlements.h"
#include "support/log.h"

namespace vantor {

double gTimebaseConversion = 0.0;
std::shared_ptr<Vantor> sharedVantor;

namespace {

constexpr char kInit[] = "-[Vantor init]";
constexpr char kSuiteFile[] = "com.tessaly.vantor.plist";
constexpr char kDefaultStateDirectory[] = "/var/lib/vantor";

std::string envOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::string(value) : fallback;
}

// STATE_DIRECTORY may list several directories separated by ':'; the first
// one is the daemon's.
std::string stateDirectoryFrom(const std::string& value) {
  std::string first = value.substr(0, value.find(':'));
  return first.empty() ? kDefaultStateDirectory : first;
}

}  // namespace

std::shared_ptr<Vantor> Vantor::create(const Options& options, std::string* listenError) {
  std::shared_ptr<Vantor> vantor(new Vantor());
  vantor->init(options, listenError);
  return vantor;
}

Vantor::~Vantor() = default;

bool Vantor::init(const Options& options, std::string* listenError) {
  // Root of the descriptor directory and the entitlement policy.
  rootPath = options.root ? *options.root : envOr("ZEPHON_SIMULATOR_ROOT", "");
  VANTOR_LOG(5, "%s plistDir: %s", kInit, plistDir().c_str());

  default_values = Value::Dictionary{{"VANTOR_CACHE_ENABLED", Value(true)}};

  stateDirectory = stateDirectoryFrom(options.stateDirectory ? *options.stateDirectory
                                                             : envOr("STATE_DIRECTORY", ""));
  SettingsStore::Diagnostics diagnostics;
  userDefaults =
      SettingsStore::open(std::filesystem::path(stateDirectory) / kSuiteFile, &diagnostics);
  if (!diagnostics.warning.empty()) {
    VANTOR_LOG(3, "%s settings store: %s", kInit, diagnostics.warning.c_str());
  }
  if (!userDefaults)
    VANTOR_LOG(3, "%s Unable to initialize user defaults!", kInit);

  operation_queue = dispatch::SerialQueue::create("com.tessaly.vantor_operations");
  daemons_queue = dispatch::SerialQueue::create("com.tessaly.vantor_daemons");
  collection_queue = dispatch::SerialQueue::create("com.tessaly.vantor_cancel");
  defaults_queue = dispatch::SerialQueue::create("com.tessaly.vantor_defaults");
  purge_post_queue = dispatch::SerialQueue::create("com.tessaly.Vantor.PurgeQueue");

  // The collections exist (empty) from here on; start-up fills services and
  // daemons before any connection can arrive, so without their queues.
  scanPlistsAtPath(plistDir(),
                   [this](const Value& descriptor) { addDescriptorService(descriptor); });
  scanServiceDirs();
  publishServices();

  reloadEntitlementPolicy();
  if (!options.listen)
    return true;

  listener = VantorListener::daemonListenerWithExportedObject(shared_from_this());
  listener->addRequiredEntitlement("CLIENT_ENTITLEMENT");
  VANTOR_LOG(5, "%s resuming listener", kInit);
  std::string error;
  if (!listener->resume(&error)) {
    if (listenError)
      *listenError = error;
    return false;
  }
  return true;
}

std::string Vantor::plistDir() const {
  // The root names a directory; its trailing slashes do not count.
  std::string root = rootPath;
  while (!root.empty() && root.back() == '/')
    root.pop_back();
  return root + "/System/Library/Vantor/";
}

std::shared_ptr<dispatch::Semaphore> Vantor::purge_semaphore() const {
  std::lock_guard lock(semaphoreMutex_);
  return purgeSemaphore_;
}

void Vantor::setPurge_semaphore(std::shared_ptr<dispatch::Semaphore> semaphore) {
  std::lock_guard lock(semaphoreMutex_);
  purgeSemaphore_ = std::move(semaphore);
}

std::shared_ptr<const Vantor::ServiceTable> Vantor::publishedServices() const {
  std::lock_guard lock(publishedMutex_);
  return published_;
}

void Vantor::publishServices() {
  auto copy = std::make_shared<const ServiceTable>(services);
  std::lock_guard lock(publishedMutex_);
  published_ = std::move(copy);
}

void Vantor::reloadEntitlementPolicy() {
  std::vector<std::string> warnings;
  auto policy = EntitlementPolicy::load(entitlementDirectory(rootPath), &warnings);
  for (const auto& warning : warnings) {
    VANTOR_LOG(3, "%s entitlement policy: %s", "-[Vantor reloadEntitlementPolicy]",
               warning.c_str());
  }
  VANTOR_LOG(5, "%s %d entitlement rules in force", "-[Vantor reloadEntitlementPolicy]",
             static_cast<int>(policy.rules().size()));
  installEntitlementPolicy(std::move(policy));
}

}  // namespace vantor
