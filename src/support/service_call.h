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
// Each call has a connection of its own. The connection handler receives a
// proxy and a finish handle; the caller sends exactly one method on the proxy
// and calls the finish handle once, after handling the reply. The finish
// handle ends the call's connection: it releases the proxy and runs the
// invalidation handler, on the caller's thread, before it returns. A service
// that cannot be reached (or a null record) gets only the invalidation
// handler, never the connection handler; a call that fails later (the service
// vanished, the bus gave up) ends in the invalidation handler too, instead of
// the reply. The invalidation handler runs at most once per call. The
// connection handler runs on a pool thread; replies and call failures are
// handled one at a time, on one serial queue shared by every service call. A checked-in service's
// registration is not touched by the end of a call.
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
