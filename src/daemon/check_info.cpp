// Validation of request info and reading of urgencies.

#include "daemon/vantor.h"
#include "support/log.h"
#include "support/volumes.h"

namespace vantor {

namespace {

constexpr char kCheckInfo[] = "-[Vantor _checkInfo:]";

Value errorResult(const char* message) {
  return Value(Value::Dictionary{{"VANTOR_ERROR", Value(message)}});
}

}  // namespace

std::optional<Value> Vantor::_checkInfo(const Value& info) const {
  if (!info.isDictionary()) {
    VANTOR_LOG(3, "%s info is not a dictionary!", kCheckInfo);
    return errorResult("Parameter error, info is not a dict");
  }
  const Value* volume = info.find("VANTOR_VOLUME");
  const std::string* volumeName = volume != nullptr ? volume->asString() : nullptr;
  if (volumeName == nullptr) {
    VANTOR_LOG(3, "%s No Volume key in info: %s", kCheckInfo, info.description().c_str());
    return errorResult("Parameter error, no Volume key in info dict");
  }
  if (!validateVolume(info)) {
    VANTOR_LOG(3, "%s Unable to validate volume: %s", kCheckInfo, volumeName->c_str());
    return errorResult("Parameter error, Unable to validate volume in info dict");
  }
  return std::nullopt;
}

std::int32_t Vantor::urgencyFromInfo(const Value& info, const std::string& key) const {
  const Value* value = info.find(key);
  if (value == nullptr)
    return 0;
  // One unsigned comparison keeps 1 to 4 and turns everything else into 0.
  const std::int32_t urgency = value->int32Value();
  return static_cast<std::uint32_t>(urgency) - 1u < 4u ? urgency : 0;
}

}  // namespace vantor
