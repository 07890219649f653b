#pragma once

#include <cstdint>
#include <string>

#include "platform/values/value.h"

// Signals to the daemon's clients, sent through the listener that was resumed
// last (while it exists), and the readiness message to the service manager.
// Callable from any thread.

namespace vantor {

// Emits the Posted signal through the listener that was resumed last. Returns
// 0, or -1 with errno set when no listener is connected or the signal could
// not be sent.
int notifyPost(const std::string& name);

// Tells the service manager the daemon is ready (when NOTIFY_SOCKET is set).
void notifyReady();

// Emits the LowSpace signal (a volume entered low or very low space) through
// the listener that was resumed last. Returns 0, or -1 with errno set.
int notifyLowSpace(const std::string& volume, std::uint64_t available, std::uint64_t threshold,
                   bool veryLow);

// Emits the PurgeFinished signal through the listener that was resumed last.
// Returns 0, or -1 with errno set.
int notifyPurgeFinished(const Value::Dictionary& purge);

}  // namespace vantor
