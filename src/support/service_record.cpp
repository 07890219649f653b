#include "support/service_record.h"

namespace vantor {

bool VTService::wantsNotification(const std::string& name) const {
  std::lock_guard lock(mutex_);
  if (const auto* names = desiredNotifications_.asArray()) {
    for (const auto& n : *names) {
      if (const auto* s = n.asString(); s != nullptr && *s == name)
        return true;
    }
  } else if (const auto* dict = desiredNotifications_.asDictionary()) {
    return dict->count(name) > 0;
  }
  return false;
}

}  // namespace vantor
