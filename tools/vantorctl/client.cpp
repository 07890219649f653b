#include "client.h"

#include <functional>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/bus.h"
#include "platform/values/dbus_value.h"

namespace vantor::ctl {

namespace {

constexpr char kServiceUnknown[] = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr char kNameHasNoOwner[] = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr char kNoReply[] = "org.freedesktop.DBus.Error.NoReply";
constexpr char kTimeout[] = "org.freedesktop.DBus.Error.Timeout";

// What a failed call means for the user, and the exit code that says so.
Failure failureOf(const std::string& method, const sdbus::Error& error) {
  const std::string& name = error.getName();
  if (name == kServiceUnknown || name == kNameHasNoOwner) {
    return Failure(ExitCode::kNotRunning, std::string("vantord is not running (nothing owns ") +
                                              dbus::kBusName + " on the bus)");
  }
  if (name == dbus::kErrorAccessDenied) {
    return Failure(ExitCode::kNotEntitled,
                   "not entitled to call " + method + ": " + error.getMessage());
  }
  if (name == dbus::kErrorNotSupported) {
    return Failure(ExitCode::kBusFailure,
                   "this vantord does not offer " + method + ": " + error.getMessage());
  }
  if (name == kNoReply || name == kTimeout) {
    return Failure(ExitCode::kBusFailure,
                   "no answer from vantord to " + method + ": " + error.getMessage());
  }
  return Failure(ExitCode::kBusFailure, method + " failed: " + name + ": " + error.getMessage());
}

void callOrFail(const std::string& method, const std::function<void()>& call) {
  try {
    call();
  } catch (const sdbus::Error& error) {
    throw failureOf(method, error);
  }
}

}  // namespace

DaemonClient::DaemonClient(const std::optional<std::string>& address) {
  try {
    // sd-bus speaks the same protocol on any address; "session" only names
    // how the connection was found.
    connection_ =
        address ? sdbus::createSessionBusConnectionWithAddress(*address) : dbus::openSystemBus();
    proxy_ = sdbus::createProxy(*connection_, dbus::kBusName, dbus::kObjectPath);
  } catch (const sdbus::Error& error) {
    throw Failure(ExitCode::kNotRunning,
                  "cannot connect to " +
                      (address ? "the bus at " + *address : std::string("the system bus")) + ": " +
                      error.getMessage());
  }
}

DaemonClient::~DaemonClient() = default;

namespace {

void throwIfRefused(const Value::Dictionary& result) {
  if (auto it = result.find("VANTOR_ERROR"); it != result.end()) {
    throw Failure(ExitCode::kRefused, "vantord refused the request: " +
                                          (it->second.isString() ? it->second.get<std::string>()
                                                                 : it->second.description()));
  }
}

}  // namespace

Value::Dictionary DaemonClient::purge(const Value::Dictionary& info) {
  VariantMap reply;
  callOrFail("ClientPurge", [&] {
    proxy_->callMethod("ClientPurge")
        .onInterface(dbus::kClientInterface)
        .withTimeout(kPurgeTimeout)
        .withArguments(toVariantMap(info))
        .storeResultsTo(reply);
  });
  if (reply.empty()) {
    throw Failure(ExitCode::kNotEntitled,
                  "not entitled to purge: the entitlement policy does not grant this user "
                  "PURGE_ENTITLEMENT");
  }
  Value::Dictionary result = fromVariantMap(reply);
  throwIfRefused(result);
  return result;
}

void DaemonClient::cancelPurge() {
  callOrFail("ClientCancelPurge", [&] {
    proxy_->callMethod("ClientCancelPurge")
        .onInterface(dbus::kClientInterface)
        .withTimeout(kCallTimeout);
  });
}

Value::Dictionary DaemonClient::purgeable(PurgeableView view, const Value::Dictionary& info) {
  const bool itemized = view == PurgeableView::kItemized;
  const std::string method = itemized ? "ClientItemizedPurgeableSpace" : "ClientPurgeableSpace";
  VariantMap reply;
  callOrFail(method, [&] {
    proxy_->callMethod(method)
        .onInterface(dbus::kClientInterface)
        .withTimeout(kCallTimeout)
        .withArguments(toVariantMap(info))
        .storeResultsTo(reply);
  });
  // An empty dictionary is the null reply: the caller holds CLIENT_ENTITLEMENT
  // (without it the call fails with AccessDenied) but not the method's own.
  if (reply.empty()) {
    throw Failure(ExitCode::kNotEntitled,
                  std::string("not entitled to ") + (itemized ? "itemized " : "") +
                      "purgeable space: the entitlement policy does not grant this user " +
                      (itemized ? "ITEMIZED_PURGEABLE_ENTITLEMENT" : "PURGEABLE_ENTITLEMENT"));
  }
  // Entries of types outside the value table are dropped; the rest is shown.
  Value::Dictionary result = fromVariantMap(reply);
  throwIfRefused(result);
  return result;
}

Value DaemonClient::getState(const std::string& key) {
  VariantArray reply;
  callOrFail("ClientGetState", [&] {
    proxy_->callMethod("ClientGetState")
        .onInterface(dbus::kClientInterface)
        .withTimeout(kCallTimeout)
        .withArguments(key)
        .storeResultsTo(reply);
  });
  std::string error;
  Value value = fromOptionalVariant(reply, &error);
  if (!error.empty())
    throw Failure(ExitCode::kBusFailure, "unreadable answer to ClientGetState: " + error);
  return value;
}

void DaemonClient::setState(const std::string& key, const Value& value) {
  callOrFail("ClientSetState", [&] {
    proxy_->callMethod("ClientSetState")
        .onInterface(dbus::kClientInterface)
        .withTimeout(kCallTimeout)
        .withArguments(toOptionalVariant(value), key);
  });
}

namespace {

constexpr char kAdminInterface[] = "com.tessaly.vantor.Admin";

}  // namespace

namespace {

// Calls an Admin method that answers a list of named dictionaries.
DaemonClient::NamedEntries namedEntries(sdbus::IProxy& proxy, const char* method) {
  std::vector<sdbus::Struct<std::string, VariantMap>> reply;
  callOrFail(method, [&] {
    proxy.callMethod(method)
        .onInterface(kAdminInterface)
        .withTimeout(DaemonClient::kCallTimeout)
        .storeResultsTo(reply);
  });
  DaemonClient::NamedEntries entries;
  for (const auto& entry : reply)
    entries.emplace_back(std::get<0>(entry), fromVariantMap(std::get<1>(entry)));
  return entries;
}

}  // namespace

DaemonClient::NamedEntries DaemonClient::services() {
  return namedEntries(*proxy_, "ListServices");
}

DaemonClient::NamedEntries DaemonClient::volumes() {
  return namedEntries(*proxy_, "GetVolumes");
}

Value::Dictionary DaemonClient::statistics() {
  std::map<std::string, VariantMap> reply;
  callOrFail("GetStatistics", [&] {
    proxy_->callMethod("GetStatistics")
        .onInterface(kAdminInterface)
        .withTimeout(kCallTimeout)
        .storeResultsTo(reply);
  });
  Value::Dictionary statistics;
  for (const auto& [name, summary] : reply)
    statistics.emplace(name, Value(fromVariantMap(summary)));
  return statistics;
}

Value::Array DaemonClient::purgeHistory() {
  std::vector<VariantMap> reply;
  callOrFail("GetPurgeHistory", [&] {
    proxy_->callMethod("GetPurgeHistory")
        .onInterface(kAdminInterface)
        .withTimeout(kCallTimeout)
        .storeResultsTo(reply);
  });
  Value::Array purges;
  for (const auto& entry : reply)
    purges.emplace_back(fromVariantMap(entry));
  return purges;
}

}  // namespace vantor::ctl
