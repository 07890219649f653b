#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/client_adaptor.h"
#include "platform/values/dbus_value.h"
#include "support/admin_protocol.h"
#include "support/call_limits.h"
#include "support/client_protocol.h"

namespace vantor {

class VantorListener;

// A client call in progress: its reply handle and its place in the limits.
template <typename R>
struct PendingCall;

// The object exported on /com/tessaly/vantor: the client, notification and
// administration interfaces. Its methods run on the bus thread and do nothing
// but capture the call and hand it on: a call over its budget's limits is
// refused at once with org.freedesktop.DBus.Error.LimitsExceeded, any other
// goes to the listener's admission (on the pool, or on the bus thread when the
// body only queues work for a caller already known). Whatever a body throws is
// answered org.freedesktop.DBus.Error.Failed (NotSupported for a
// NotSupportedError) and logged; a reply that cannot be sent is logged. The
// listener owns it and must outlive it.
class ClientObject final : public sdbus::AdaptorInterfaces<com::tessaly::vantor::Client_adaptor,
                                                           com::tessaly::vantor::Notify_adaptor,
                                                           com::tessaly::vantor::Admin_adaptor> {
 public:
  ClientObject(sdbus::IConnection& connection, VantorListener& listener);
  ~ClientObject();

  using Admin_adaptor::emitPurgeFinished;
  using Notify_adaptor::emitLowSpace;
  using Notify_adaptor::emitPosted;

  // `sender` has left the bus: its calls stop counting at once.
  void senderLeft(const std::string& sender);

 private:
  // Whether a call's body may wait (for services, for the bus) or only
  // queues its work and returns.
  enum class Body { kMayWait, kQueuesOnly };
  // Which budget a call counts against: calls whose work waits on
  // operation_queue (queries, purges, check-ins), which a silent service can
  // hold for minutes, or the others (state, cancel, administration), which
  // must stay open whatever that queue does.
  enum class Budget { kOperations, kOthers };
  using NamedEntry = sdbus::Struct<std::string, VariantMap>;

  template <typename R>
  void dispatchCall(R&& result, std::function<void(std::shared_ptr<PendingCall<R>>)> body,
                    Budget budget, Body kind = Body::kMayWait);
  CallLimits& limitsFor(Budget budget);
  void dictionaryCall(sdbus::Result<VariantMap>&& result, VariantMap info,
                      void (VantorClientProtocol::*method)(const Value&,
                                                           VantorClientProtocol::DictionaryReply));
  template <typename R, typename Answer>
  void adminCall(R&& result, Answer answer);

  // com.tessaly.vantor.Client
  void ClientCheckin(sdbus::Result<VariantMap>&& result, std::string serviceId,
                     sdbus::Struct<std::string, sdbus::ObjectPath> endpoint,
                     VariantMap info) override;
  void ClientPurgeableSpace(sdbus::Result<VariantMap>&& result, VariantMap info) override;
  void ClientItemizedPurgeableSpace(sdbus::Result<VariantMap>&& result, VariantMap info) override;
  void ClientPurge(sdbus::Result<VariantMap>&& result, VariantMap info) override;
  void ClientCancelPurge(sdbus::Result<>&& result) override;
  void ClientSetState(sdbus::Result<>&& result, VariantArray value, std::string key) override;
  void ClientGetState(sdbus::Result<VariantArray>&& result, std::string key) override;

  // com.tessaly.vantor.Admin: read-only, answered on the pool thread.
  void ListServices(sdbus::Result<std::vector<NamedEntry>>&& result) override;
  void GetVolumes(sdbus::Result<std::vector<NamedEntry>>&& result) override;
  void GetStatistics(sdbus::Result<std::map<std::string, VariantMap>>&& result) override;
  void GetPurgeHistory(sdbus::Result<std::vector<VariantMap>>&& result) override;
  void GetCounters(sdbus::Result<VariantMap>&& result) override;

  VantorListener& listener_;
  std::shared_ptr<CallLimits> operationLimits_ = std::make_shared<CallLimits>("operation");
  std::shared_ptr<CallLimits> otherLimits_ =
      std::make_shared<CallLimits>("state and administration");
};

}  // namespace vantor
