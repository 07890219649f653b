#pragma once

#include <cstdint>
#include <functional>

#include "platform/values/value.h"

namespace vantor {

// A remote service as the daemon calls it: the methods of the service
// protocol. Each call returns at once; its reply block runs later on a pool
// thread, never on the bus thread. A call that fails (the service vanished,
// the bus gave up, the reply was malformed) never runs its reply block; the
// failure goes to the handler the proxy was made with.
class VantorServiceProxy {
 public:
  using DictionaryReply = std::function<void(Value reply)>;
  using EmptyReply = std::function<void()>;

  virtual ~VantorServiceProxy() = default;

  virtual void servicePurgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) = 0;
  virtual void servicePurge(std::int32_t urgency, const Value& info, DictionaryReply reply) = 0;
  // The reply is the service's optional result: null when it sent none.
  virtual void servicePeriodic(std::int32_t urgency, const Value& info, DictionaryReply reply) = 0;
  virtual void serviceCancelPurge(EmptyReply reply) = 0;
  virtual void servicePing(EmptyReply reply) = 0;
  virtual void serviceNotify(const Value& notification, EmptyReply reply) = 0;
  virtual void serviceCallback(const Value& info, DictionaryReply reply) = 0;
};

}  // namespace vantor
