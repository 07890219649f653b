#pragma once

#include <functional>
#include <memory>

#include "support/service_proxy.h"
#include "support/service_record.h"

namespace vantor {

// Reaching a service: a descriptor service at the bus name equal to its ID
// (activated by the bus if it is activatable and not running), a checked-in
// service at the endpoint of its connection.
//
// The connection handler receives a proxy and a finish handle; the caller
// sends exactly one method on the proxy and calls the finish handle once,
// after handling the reply, which releases the proxy. A service that cannot be
// reached gets only the invalidation handler, never the connection handler; a
// call that fails later (the service vanished, the bus gave up) ends in the
// invalidation handler too, instead of the reply. Handlers run on pool
// threads.
using ServiceConnectionHandler =
    std::function<void(std::shared_ptr<VantorServiceProxy> proxy, std::function<void()> finish)>;
using ServiceInvalidationHandler = std::function<void()>;

// Returns at once; the handlers run later.
void CallServiceAsync(const std::shared_ptr<VTService>& service,
                      ServiceConnectionHandler connectionHandler,
                      ServiceInvalidationHandler invalidationHandler);

// Returns once the connection handler has returned (the call is sent) or the
// invalidation handler has run; it does not wait for the reply.
void CallService(const std::shared_ptr<VTService>& service,
                 ServiceConnectionHandler connectionHandler,
                 ServiceInvalidationHandler invalidationHandler);

}  // namespace vantor
