#include "support/notify.h"

#include <systemd/sd-daemon.h>

#include <cerrno>

#include "support/listener.h"

namespace vantor {

int notifyPost(const std::string& name) {
  VantorListener* listener = VantorListener::resumedLast();
  if (listener == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  return listener->postNotification(name);
}

void notifyReady() {
  sd_notify(0, "READY=1");
}

int notifyLowSpace(const std::string& volume, std::uint64_t available, std::uint64_t threshold,
                   bool veryLow) {
  VantorListener* listener = VantorListener::resumedLast();
  if (listener == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  return listener->postLowSpace(volume, available, threshold, veryLow);
}

int notifyPurgeFinished(const Value::Dictionary& purge) {
  VantorListener* listener = VantorListener::resumedLast();
  if (listener == nullptr) {
    errno = ENOTCONN;
    return -1;
  }
  return listener->postPurgeFinished(purge);
}

}  // namespace vantor
