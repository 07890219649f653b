#include "support/client_object.h"

#include <exception>
#include <utility>

#include "platform/dbus/bus.h"
#include "platform/dispatch/global_pool.h"
#include "support/listener.h"
#include "support/log.h"

namespace vantor {

// Shared, so copyable reply blocks can carry it.
template <typename R>
struct PendingCall {
  R result;
  std::unique_ptr<CallLimits::Admission> admission;
};

namespace {

// Sends a reply built by `send`. A reply that cannot be built or sent (the
// caller has left, the connection dropped, a string is not valid UTF-8) is
// logged, and the caller gets an error instead where that can still be sent.
template <typename R, typename Send>
void sendReply(const std::shared_ptr<PendingCall<R>>& call, Send&& send) {
  try {
    send(call->result);
  } catch (const std::exception& e) {
    VANTOR_LOG(3, "%s cannot send a reply: %s", "-[VantorListener sendReply]", e.what());
    try {
      call->result.returnError(sdbus::Error(dbus::kErrorFailed, "The reply could not be sent"));
    } catch (const std::exception&) {
      // The caller is gone for good; nothing else to tell.
    }
  }
  call->admission->release();
}

template <typename R>
void sendError(const std::shared_ptr<PendingCall<R>>& call, const std::string& name,
               const std::string& message) {
  sendReply(call, [&](R& result) { result.returnError(sdbus::Error(name, message)); });
}

template <typename R>
bool convertArgs(const std::shared_ptr<PendingCall<R>>& call, const std::string& error) {
  if (error.empty())
    return true;
  sendError(call, dbus::kErrorInvalidArgs, error);
  return false;
}

VariantMap dictionaryReply(const Value& result) {
  if (const auto* dict = result.asDictionary())
    return toVariantMap(*dict);
  return {};
}

}  // namespace

ClientObject::ClientObject(sdbus::IConnection& connection, VantorListener& listener)
    : AdaptorInterfaces(connection, dbus::kObjectPath), listener_(listener) {
  registerAdaptor();
}

ClientObject::~ClientObject() {
  unregisterAdaptor();
}

void ClientObject::senderLeft(const std::string& sender) {
  operationLimits_->senderLeft(sender);
  otherLimits_->senderLeft(sender);
}

// Runs on the bus thread: refuses a call over the limits at once, with no
// pool thread spent on it, and hands every other call to the pool. A body
// that only queues its work runs here when its caller is known already,
// sparing the pool a thread switch per call. Whatever the body throws is
// answered org.freedesktop.DBus.Error.Failed with its message, and logged.
template <typename R>
void ClientObject::dispatchCall(R&& result,
                                std::function<void(std::shared_ptr<PendingCall<R>>)> body,
                                Budget budget, Body kind) {
  std::string sender = getObject().getCurrentlyProcessedMessage()->getSender();
  std::string reason;
  auto admission = limitsFor(budget).admit(sender, &reason);
  if (!admission) {
    try {
      result.returnError(sdbus::Error(kErrorLimitsExceeded, reason));
    } catch (const std::exception& e) {
      VANTOR_LOG(3, "%s cannot send a reply: %s", "-[VantorListener sendReply]", e.what());
    }
    return;
  }
  CallerGone gone = admission->gone();
  auto shared =
      std::make_shared<PendingCall<R>>(PendingCall<R>{std::move(result), std::move(admission)});
  const auto run = [shared, body = std::move(body)] {
    try {
      body(shared);
    } catch (const NotSupportedError& e) {
      sendError(shared, dbus::kErrorNotSupported, e.what());
    } catch (const std::exception& e) {
      VANTOR_LOG(3, "%s a call ended by throwing: %s", "-[VantorListener dispatchCall]", e.what());
      sendError(shared, dbus::kErrorFailed, e.what());
    } catch (...) {
      VANTOR_LOG(3, "%s a call ended by throwing", "-[VantorListener dispatchCall]");
      sendError(shared, dbus::kErrorFailed, "The call failed");
    }
  };
  const auto deny = [shared] {
    sendError(shared, dbus::kErrorAccessDenied, "Connection is not entitled");
  };
  if (kind == Body::kQueuesOnly && listener_.admitKnown(sender, gone, run, deny))
    return;
  VantorListener* listener = &listener_;
  dispatch::globalAsync([listener, sender = std::move(sender), gone, run, deny] {
    listener->admit(sender, gone, run, deny);
  });
}

CallLimits& ClientObject::limitsFor(Budget budget) {
  return budget == Budget::kOperations ? *operationLimits_ : *otherLimits_;
}

// --- com.tessaly.vantor.Client ---------------------------------------------

void ClientObject::ClientCheckin(sdbus::Result<VariantMap>&& result, std::string serviceId,
                                 sdbus::Struct<std::string, sdbus::ObjectPath> endpoint,
                                 VariantMap info) {
  dispatchCall<sdbus::Result<VariantMap>>(
      std::move(result),
      [this, serviceId = std::move(serviceId), endpoint = std::move(endpoint),
       info = std::move(info)](auto reply) {
        std::string error;
        Value infoValue(fromVariantMap(info, &error));
        if (!convertArgs(reply, error))
          return;
        ServiceEndpoint ep{std::get<0>(endpoint), std::get<1>(endpoint)};
        listener_.exported().clientCheckin(
            serviceId, ep, infoValue, [reply](Value dict, std::optional<ClientError> failure) {
              if (failure) {
                sendError(reply, failure->name, failure->message);
              } else {
                sendReply(reply, [&](auto& r) { r.returnResults(dictionaryReply(dict)); });
              }
            });
      },
      Budget::kOperations);
}

void ClientObject::dictionaryCall(
    sdbus::Result<VariantMap>&& result, VariantMap info,
    void (VantorClientProtocol::*method)(const Value&, VantorClientProtocol::DictionaryReply)) {
  dispatchCall<sdbus::Result<VariantMap>>(
      std::move(result),
      [this, info = std::move(info), method](auto reply) {
        std::string error;
        Value infoValue(fromVariantMap(info, &error));
        if (!convertArgs(reply, error))
          return;
        (listener_.exported().*method)(infoValue, [reply](Value dict) {
          sendReply(reply, [&](auto& r) { r.returnResults(dictionaryReply(dict)); });
        });
      },
      Budget::kOperations);
}

void ClientObject::ClientPurgeableSpace(sdbus::Result<VariantMap>&& result, VariantMap info) {
  dictionaryCall(std::move(result), std::move(info), &VantorClientProtocol::clientPurgeableSpace);
}

void ClientObject::ClientItemizedPurgeableSpace(sdbus::Result<VariantMap>&& result,
                                                VariantMap info) {
  dictionaryCall(std::move(result), std::move(info),
                 &VantorClientProtocol::clientItemizedPurgeableSpace);
}

void ClientObject::ClientPurge(sdbus::Result<VariantMap>&& result, VariantMap info) {
  dictionaryCall(std::move(result), std::move(info), &VantorClientProtocol::clientPurge);
}

void ClientObject::ClientCancelPurge(sdbus::Result<>&& result) {
  dispatchCall<sdbus::Result<>>(
      std::move(result),
      [this](auto reply) {
        listener_.exported().clientCancelPurge(
            [reply] { sendReply(reply, [](auto& r) { r.returnResults(); }); });
      },
      Budget::kOthers);
}

void ClientObject::ClientSetState(sdbus::Result<>&& result, VariantArray value, std::string key) {
  dispatchCall<sdbus::Result<>>(
      std::move(result),
      [this, value = std::move(value), key = std::move(key)](auto reply) {
        if (value.size() > 1) {
          sendError(reply, dbus::kErrorInvalidArgs, "value holds more than one element");
          return;
        }
        std::string error;
        Value v = fromOptionalVariant(value, &error);
        if (!convertArgs(reply, error))
          return;
        listener_.exported().clientSetState(
            v, Value(key), [reply](std::optional<ClientError> failure) {
              if (failure) {
                sendError(reply, failure->name, failure->message);
              } else {
                sendReply(reply, [](auto& r) { r.returnResults(); });
              }
            });
      },
      Budget::kOthers, Body::kQueuesOnly);
}

void ClientObject::ClientGetState(sdbus::Result<VariantArray>&& result, std::string key) {
  dispatchCall<sdbus::Result<VariantArray>>(
      std::move(result),
      [this, key = std::move(key)](auto reply) {
        listener_.exported().clientGetState(Value(key), [reply](const Value& v) {
          sendReply(reply, [&](auto& r) { r.returnResults(toOptionalVariant(v)); });
        });
      },
      Budget::kOthers, Body::kQueuesOnly);
}

// --- com.tessaly.vantor.Admin ----------------------------------------------

namespace {

std::vector<sdbus::Struct<std::string, VariantMap>> namedEntries(
    const VantorAdminProtocol::NamedEntries& entries) {
  std::vector<sdbus::Struct<std::string, VariantMap>> out;
  out.reserve(entries.size());
  for (const auto& [name, fields] : entries)
    out.emplace_back(name, toVariantMap(fields));
  return out;
}

}  // namespace

// Runs `answer` with the coordinator's administration side; an exported
// object without one answers NotSupported.
template <typename R, typename Answer>
void ClientObject::adminCall(R&& result, Answer answer) {
  dispatchCall<R>(
      std::move(result),
      [this, answer](auto reply) {
        auto* admin = dynamic_cast<VantorAdminProtocol*>(&listener_.exported());
        if (admin == nullptr)
          throw NotSupportedError("Administration is not offered");
        sendReply(reply, [&](auto& r) { r.returnResults(answer(*admin)); });
      },
      Budget::kOthers);
}

void ClientObject::ListServices(sdbus::Result<std::vector<NamedEntry>>&& result) {
  adminCall(std::move(result),
            [](VantorAdminProtocol& admin) { return namedEntries(admin.adminListServices()); });
}

void ClientObject::GetVolumes(sdbus::Result<std::vector<NamedEntry>>&& result) {
  adminCall(std::move(result),
            [](VantorAdminProtocol& admin) { return namedEntries(admin.adminGetVolumes()); });
}

void ClientObject::GetStatistics(sdbus::Result<std::map<std::string, VariantMap>>&& result) {
  adminCall(std::move(result), [](VantorAdminProtocol& admin) {
    std::map<std::string, VariantMap> out;
    for (const auto& [name, summary] : admin.adminGetStatistics())
      out.emplace(name, dictionaryReply(summary));
    return out;
  });
}

void ClientObject::GetPurgeHistory(sdbus::Result<std::vector<VariantMap>>&& result) {
  adminCall(std::move(result), [](VantorAdminProtocol& admin) {
    std::vector<VariantMap> out;
    for (const auto& entry : admin.adminGetPurgeHistory())
      out.push_back(dictionaryReply(entry));
    return out;
  });
}

void ClientObject::GetCounters(sdbus::Result<VariantMap>&& result) {
  adminCall(std::move(result), [this](VantorAdminProtocol& admin) {
    Value::Dictionary counters = admin.adminGetCounters();
    // Calls counted against each budget now, and the callers they are from.
    for (const auto& [kind, limits] :
         {std::pair{"operation", operationLimits_.get()}, std::pair{"other", otherLimits_.get()}}) {
      const auto [calls, callers] = limits->inProgress();
      counters.insert_or_assign(std::string(kind) + "Calls",
                                Value(static_cast<std::uint64_t>(calls)));
      counters.insert_or_assign(std::string(kind) + "Callers",
                                Value(static_cast<std::uint64_t>(callers)));
    }
    return dictionaryReply(Value(std::move(counters)));
  });
}

}  // namespace vantor
