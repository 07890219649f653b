#include "json.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace vantor::ctl {

namespace {

std::string base64(const Value::Data& data) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  std::size_t i = 0;
  for (; i + 3 <= data.size(); i += 3) {
    const std::uint32_t n = (std::uint32_t{data[i]} << 16) | (std::uint32_t{data[i + 1]} << 8) |
                            std::uint32_t{data[i + 2]};
    out.push_back(kAlphabet[(n >> 18) & 63]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(kAlphabet[(n >> 6) & 63]);
    out.push_back(kAlphabet[n & 63]);
  }
  if (const std::size_t rest = data.size() - i; rest > 0) {
    std::uint32_t n = std::uint32_t{data[i]} << 16;
    if (rest == 2)
      n |= std::uint32_t{data[i + 1]} << 8;
    out.push_back(kAlphabet[(n >> 18) & 63]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(n >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

// ISO 8601 in UTC with microseconds; null when the date is out of range.
nlohmann::json isoDate(Date date) {
  // Whole seconds rounded down, so a date before 1970 keeps a positive
  // fraction.
  std::int64_t seconds = date.microsecondsSinceEpoch / 1000000;
  std::int64_t micros = date.microsecondsSinceEpoch % 1000000;
  if (micros < 0) {
    --seconds;
    micros += 1000000;
  }
  const auto t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr)
    return nullptr;
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
  std::snprintf(text + length, sizeof text - length, ".%06lldZ", static_cast<long long>(micros));
  return std::string(text);
}

nlohmann::json toNode(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNull:
      return nullptr;
    case Value::Type::kBoolean:
      return value.get<bool>();
    case Value::Type::kInteger:
      return value.get<std::int64_t>();
    case Value::Type::kUnsigned:
      return value.get<std::uint64_t>();
    case Value::Type::kReal:
      // JSON has no infinities or NaN.
      return std::isfinite(value.get<double>()) ? nlohmann::json(value.get<double>()) : nullptr;
    case Value::Type::kString:
      return value.get<std::string>();
    case Value::Type::kData:
      return base64(value.get<Value::Data>());
    case Value::Type::kDate:
      return isoDate(value.get<Date>());
    case Value::Type::kArray: {
      auto array = nlohmann::json::array();
      for (const auto& item : value.get<Value::Array>())
        array.push_back(toNode(item));
      return array;
    }
    case Value::Type::kDictionary: {
      auto object = nlohmann::json::object();
      for (const auto& [key, item] : value.get<Value::Dictionary>())
        object[key] = toNode(item);
      return object;
    }
  }
  return nullptr;
}

}  // namespace

std::string toJson(const Value& value) {
  // Bytes that are not UTF-8 become U+FFFD rather than invalid JSON.
  return toNode(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void printJson(const Value& value) {
  std::printf("%s\n", toJson(value).c_str());
}

}  // namespace vantor::ctl
