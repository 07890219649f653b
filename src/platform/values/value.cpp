#include "platform/values/value.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace vantor {
namespace {

template <typename T>
T clampReal(double d) {
  if (std::isnan(d))
    return 0;
  const double t = std::trunc(d);
  if (t <= static_cast<double>(std::numeric_limits<T>::min()))
    return std::numeric_limits<T>::min();
  if (t >= static_cast<double>(std::numeric_limits<T>::max()))
    return std::numeric_limits<T>::max();
  return static_cast<T>(t);
}

// The number a string starts with, read the way a number object reads text:
// leading spaces, an optional sign, digits and an optional fraction.
double leadingNumber(const std::string& s) {
  const char* begin = s.c_str();
  char* end = nullptr;
  errno = 0;
  const double d = std::strtod(begin, &end);
  if (end == begin || std::isnan(d))
    return 0;
  return d;
}

bool stringIsIntegral(const std::string& s, long long* out) {
  const char* begin = s.c_str();
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(begin, &end, 10);
  if (end == begin || errno == ERANGE)
    return false;
  *out = v;
  return true;
}

}  // namespace

bool Value::isNumber() const {
  switch (type()) {
    case Type::kBoolean:
    case Type::kInteger:
    case Type::kUnsigned:
    case Type::kReal:
      return true;
    default:
      return false;
  }
}

std::int64_t Value::int64Value() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(v_) ? 1 : 0;
    case Type::kInteger:
      return std::get<std::int64_t>(v_);
    case Type::kUnsigned: {
      const auto u = std::get<std::uint64_t>(v_);
      return u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                 ? std::numeric_limits<std::int64_t>::max()
                 : static_cast<std::int64_t>(u);
    }
    case Type::kReal:
      return clampReal<std::int64_t>(std::get<double>(v_));
    case Type::kString: {
      long long v = 0;
      if (stringIsIntegral(std::get<std::string>(v_), &v))
        return v;
      return clampReal<std::int64_t>(leadingNumber(std::get<std::string>(v_)));
    }
    default:
      return 0;
  }
}

std::uint64_t Value::uint64Value() const {
  switch (type()) {
    case Type::kUnsigned:
      return std::get<std::uint64_t>(v_);
    case Type::kReal:
      return clampReal<std::uint64_t>(std::get<double>(v_));
    case Type::kString: {
      const auto& s = std::get<std::string>(v_);
      const double d = leadingNumber(s);
      if (d > 9.0e18)
        return clampReal<std::uint64_t>(d);
      const auto i = int64Value();
      return i < 0 ? 0 : static_cast<std::uint64_t>(i);
    }
    default: {
      const auto i = int64Value();
      return i < 0 ? 0 : static_cast<std::uint64_t>(i);
    }
  }
}

std::int32_t Value::int32Value() const {
  if (type() == Type::kReal)
    return clampReal<std::int32_t>(std::get<double>(v_));
  const auto i = int64Value();
  if (i < std::numeric_limits<std::int32_t>::min())
    return std::numeric_limits<std::int32_t>::min();
  if (i > std::numeric_limits<std::int32_t>::max())
    return std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(i);
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(v_) ? 1.0 : 0.0;
    case Type::kInteger:
      return static_cast<double>(std::get<std::int64_t>(v_));
    case Type::kUnsigned:
      return static_cast<double>(std::get<std::uint64_t>(v_));
    case Type::kReal:
      return std::get<double>(v_);
    case Type::kString:
      return leadingNumber(std::get<std::string>(v_));
    default:
      return 0.0;
  }
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(v_);
    case Type::kInteger:
      return std::get<std::int64_t>(v_) != 0;
    case Type::kUnsigned:
      return std::get<std::uint64_t>(v_) != 0;
    case Type::kReal:
      return std::get<double>(v_) != 0.0;
    case Type::kString: {
      // A string reads as true for "yes"/"true" (any case) or a non-zero number.
      const auto& s = std::get<std::string>(v_);
      std::string lower;
      for (char c : s)
        lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
      const auto first = lower.find_first_not_of(" \t\n");
      if (first != std::string::npos) {
        if (lower.compare(first, 4, "true") == 0 || lower.compare(first, 3, "yes") == 0)
          return true;
      }
      return leadingNumber(s) != 0.0;
    }
    default:
      return false;
  }
}

const Value* Value::find(std::string_view key) const {
  const auto* dict = asDictionary();
  if (dict == nullptr)
    return nullptr;
  const auto it = dict->find(key);
  return it == dict->end() ? nullptr : &it->second;
}

}  // namespace vantor
