#pragma once

#include <functional>

namespace vantor::dispatch {

// A unit of work run on a queue. Blocks own what they capture.
using Block = std::function<void()>;

// A block that ends by throwing does not end the process: the pool thread or
// serial queue that ran it reports the exception through this handler and goes
// on with the next block. `where` names the queue, `what` the exception.
using UncaughtExceptionHandler = void (*)(const char* where, const char* what);

// Replaces the handler (the default writes a line to stderr); returns the
// previous one. Safe from any thread.
UncaughtExceptionHandler setUncaughtExceptionHandler(UncaughtExceptionHandler handler);

// Reports the exception being handled; call only inside a catch block.
void reportUncaughtException(const char* where) noexcept;

}  // namespace vantor::dispatch
