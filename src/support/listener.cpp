#include "support/listener.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/bus.h"
#include "platform/values/dbus_value.h"
#include "support/client_object.h"
#include "support/log.h"
#include "support/service_connection.h"

namespace vantor {

namespace {

std::atomic<VantorListener*> gResumedListener{nullptr};

}  // namespace

VantorListener* VantorListener::resumedLast() {
  return gResumedListener.load();
}

VantorListener::VantorListener(std::shared_ptr<VantorClientProtocol> exported)
    : exported_(std::move(exported)) {}

VantorListener::~VantorListener() {
  VantorListener* self = this;
  if (gResumedListener.compare_exchange_strong(self, nullptr))
    setServiceBus(nullptr, nullptr);
  departures_.reset();
  object_.reset();
  leaveEventLoops();
}

void VantorListener::leaveEventLoops() {
  leaving_ = true;
  for (auto [connection, loop] : {std::pair{connection_.get(), &eventLoop_},
                                  std::pair{serviceConnection_.get(), &serviceEventLoop_}}) {
    if (loop->joinable()) {
      connection->leaveEventLoop();
      loop->join();
    }
  }
}

std::unique_ptr<VantorListener> VantorListener::daemonListenerWithExportedObject(
    std::shared_ptr<VantorClientProtocol> exported) {
  return std::unique_ptr<VantorListener>(new VantorListener(std::move(exported)));
}

void VantorListener::addRequiredEntitlement(const std::string& name) {
  required_.insert(name);
}

bool VantorListener::resume(std::string* error) {
  try {
    connection_ = dbus::openSystemBus();
    object_ = std::make_unique<ClientObject>(*connection_, *this);
    // Watched before the name is taken, so no caller can leave unseen. The
    // bus tells of every connection that goes; only unique names are callers.
    departures_ = connection_->addMatch(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg2=''",
        [this](sdbus::Message& message) {
          std::string name, oldOwner, newOwner;
          try {
            message >> name >> oldOwner >> newOwner;
          } catch (const sdbus::Error& e) {
            VANTOR_LOG(3, "%s unreadable NameOwnerChanged: %s", "-[VantorListener resume]",
                       e.what());
            return;
          }
          if (newOwner.empty() && !name.empty() && name.front() == ':')
            callerLeft(name);
        });
    connection_->requestName(dbus::kBusName);
    eventLoop_ = startEventLoop(*connection_);
    busDaemon_ = std::make_unique<dbus::BusDaemon>(*connection_);
    serviceConnection_ = dbus::openSystemBus();
    serviceEventLoop_ = startEventLoop(*serviceConnection_);
    serviceBusDaemon_ = std::make_unique<dbus::BusDaemon>(*serviceConnection_);
    setServiceBus(serviceConnection_.get(), serviceBusDaemon_.get());
  } catch (const sdbus::Error& e) {
    if (error)
      *error = e.getName() + ": " + e.getMessage();
    departures_.reset();
    object_.reset();
    leaveEventLoops();
    serviceBusDaemon_.reset();
    busDaemon_.reset();
    serviceConnection_.reset();
    connection_.reset();
    leaving_ = false;
    return false;
  }
  gResumedListener.store(this);
  return true;
}

// A bus thread. Without its connections the daemon serves nobody and cannot
// get them back by itself (its name, its service connections and its
// callers' identities belong to the old ones), so when a loop ends other than
// by `leaveEventLoop` the process exits with status 1 and the service manager
// starts it afresh.
std::thread VantorListener::startEventLoop(sdbus::IConnection& connection) {
  return std::thread([this, &connection] {
    std::string why = "the connection was closed";
    try {
      connection.enterEventLoop();
    } catch (const std::exception& e) {
      why = e.what();
    }
    if (leaving_)
      return;
    VANTOR_LOG(3, "%s lost the bus connection: %s", "-[VantorListener resume]", why.c_str());
    std::fprintf(stderr, "vantord: lost the system bus connection (%s); exiting\n", why.c_str());
    std::fflush(stderr);
    ::_exit(1);
  });
}

int VantorListener::emitSignal(const std::function<void(ClientObject&)>& emit) {
  if (!object_) {
    errno = ENOTCONN;
    return -1;
  }
  try {
    emit(*object_);
  } catch (const sdbus::Error&) {
    errno = EIO;
    return -1;
  }
  return 0;
}

int VantorListener::postNotification(const std::string& name) {
  return emitSignal([&](ClientObject& object) { object.emitPosted(name); });
}

int VantorListener::postLowSpace(const std::string& volume, std::uint64_t available,
                                 std::uint64_t threshold, bool veryLow) {
  return emitSignal(
      [&](ClientObject& object) { object.emitLowSpace(volume, available, threshold, veryLow); });
}

int VantorListener::postPurgeFinished(const Value::Dictionary& purge) {
  return emitSignal([&](ClientObject& object) { object.emitPurgeFinished(toVariantMap(purge)); });
}

void VantorListener::admit(const std::string& sender, const CallerGone& gone,
                           const std::function<void()>& body, const std::function<void()>& deny) {
  admitConnection(credentials_.lookUp(sender, busDaemon_.get()), gone, body, deny);
}

bool VantorListener::admitKnown(const std::string& sender, const CallerGone& gone,
                                const std::function<void()>& body,
                                const std::function<void()>& deny) {
  auto connection = credentials_.known(sender);
  if (!connection)
    return false;
  admitConnection(connection, gone, body, deny);
  return true;
}

void VantorListener::callerLeft(const std::string& sender) {
  if (object_)
    object_->senderLeft(sender);
  credentials_.forget(sender);
}

void VantorListener::admitConnection(const std::shared_ptr<const ClientConnection>& connection,
                                     const CallerGone& gone, const std::function<void()>& body,
                                     const std::function<void()>& deny) {
  if (!connectionIsEntitled(connection.get(),
                            std::vector<std::string>(required_.begin(), required_.end()))) {
    VANTOR_LOG(3, "%s refused a call from %s: not entitled", "-[VantorListener admit]",
               connection->sender().c_str());
    deny();
    return;
  }
  ScopedCurrentConnection scope(connection.get(), gone);
  body();
}

}  // namespace vantor
