#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/values/value.h"

namespace vantor {

// Where a checked-in service listens: its bus name and the object path of its
// service interface.
struct ServiceEndpoint {
  std::string busName;
  std::string objectPath;
};

// Thrown synchronously by a client method that this build does not offer; the
// listener answers the call with org.freedesktop.DBus.Error.NotSupported.
class NotSupportedError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A refusal a client method answers with: a D-Bus error name and its message.
struct ClientError {
  std::string name;
  std::string message;
};

// The D-Bus error names client methods answer with beyond the transport's own.
inline constexpr char kErrorLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
inline constexpr char kErrorIOError[] = "org.freedesktop.DBus.Error.IOError";

// What the daemon offers its clients. Every method answers through its reply
// block, exactly once, from any thread, except where a method's contract says
// it may stay silent (a refused check-in). Arguments keep the protocol's
// types: where the protocol allows any object, a Value of any type arrives.
class VantorClientProtocol {
 public:
  using DictionaryReply = std::function<void(Value result)>;  // null: the null reply
  using CheckinReply = std::function<void(Value result, std::optional<ClientError> error)>;
  // The value lent for the call only: copy what must outlive it.
  using ObjectReply = std::function<void(const Value& value)>;
  using EmptyReply = std::function<void()>;
  // Nullopt: done; else the refusal to answer with.
  using StatusReply = std::function<void(std::optional<ClientError> error)>;

  virtual ~VantorClientProtocol() = default;

  virtual void clientCheckin(const std::string& serviceId, const ServiceEndpoint& endpoint,
                             const Value& info, CheckinReply reply) = 0;
  virtual void clientPurgeableSpace(const Value& info, DictionaryReply reply) = 0;
  virtual void clientItemizedPurgeableSpace(const Value& info, DictionaryReply reply) = 0;
  virtual void clientPurge(const Value& info, DictionaryReply reply) = 0;
  virtual void clientCancelPurge(EmptyReply reply) = 0;
  // These two only queue their work and return: the listener may call them
  // on the bus thread, which must never wait.
  virtual void clientSetState(const Value& value, const Value& key, StatusReply reply) = 0;
  virtual void clientGetState(const Value& key, ObjectReply reply) = 0;
};

}  // namespace vantor
