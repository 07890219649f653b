#include "platform/values/dbus_value.h"

#include <sdbus-c++/Error.h>

namespace vantor {

std::optional<sdbus::Variant> toVariant(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNull:
      return std::nullopt;
    case Value::Type::kBoolean:
      return sdbus::Variant(value.boolValue());
    case Value::Type::kInteger:
      return sdbus::Variant(value.int64Value());
    case Value::Type::kUnsigned:
      return sdbus::Variant(value.uint64Value());
    case Value::Type::kReal:
      return sdbus::Variant(value.doubleValue());
    case Value::Type::kString:
      return sdbus::Variant(value.get<std::string>());
    case Value::Type::kData:
      return sdbus::Variant(value.get<Value::Data>());
    case Value::Type::kDate:
      return sdbus::Variant(sdbus::Struct<std::int64_t>{value.get<Date>().microsecondsSinceEpoch});
    case Value::Type::kArray:
      return sdbus::Variant(toVariantArray(value.get<Value::Array>()));
    case Value::Type::kDictionary:
      return sdbus::Variant(toVariantMap(value.get<Value::Dictionary>()));
  }
  return std::nullopt;
}

VariantMap toVariantMap(const Value::Dictionary& dictionary) {
  VariantMap map;
  for (const auto& [key, item] : dictionary) {
    if (auto v = toVariant(item))
      map.emplace(key, std::move(*v));
  }
  return map;
}

VariantArray toVariantArray(const Value::Array& array) {
  VariantArray out;
  out.reserve(array.size());
  for (const auto& item : array) {
    if (auto v = toVariant(item))
      out.push_back(std::move(*v));
  }
  return out;
}

namespace {

void setError(std::string* error, std::string text) {
  if (error != nullptr && error->empty())
    *error = std::move(text);
}

}  // namespace

Value fromVariant(const sdbus::Variant& variant, std::string* error) {
  if (variant.isEmpty()) {
    setError(error, "empty variant");
    return Value();
  }
  const std::string sig = variant.peekValueType();
  try {
    if (sig == "s" || sig == "o" || sig == "g")
      return Value(variant.get<std::string>());
    if (sig == "b")
      return Value(variant.get<bool>());
    if (sig == "y")
      return Value(std::int64_t{variant.get<std::uint8_t>()});
    if (sig == "n")
      return Value(std::int64_t{variant.get<std::int16_t>()});
    if (sig == "q")
      return Value(std::int64_t{variant.get<std::uint16_t>()});
    if (sig == "i")
      return Value(std::int64_t{variant.get<std::int32_t>()});
    if (sig == "u")
      return Value(std::int64_t{variant.get<std::uint32_t>()});
    if (sig == "x")
      return Value(variant.get<std::int64_t>());
    if (sig == "t")
      return Value(variant.get<std::uint64_t>());
    if (sig == "d")
      return Value(variant.get<double>());
    if (sig == "ay")
      return Value(variant.get<std::vector<std::uint8_t>>());
    if (sig == "(x)") {
      return Value(Date{std::get<0>(variant.get<sdbus::Struct<std::int64_t>>())});
    }
    if (sig == "av")
      return Value(fromVariantArray(variant.get<VariantArray>(), error));
    if (sig == "a{sv}")
      return Value(fromVariantMap(variant.get<VariantMap>(), error));
  } catch (const sdbus::Error& e) {
    setError(error, "unreadable variant of type '" + sig + "': " + e.getMessage());
    return Value();
  }
  setError(error, "unsupported variant type '" + sig + "'");
  return Value();
}

Value::Dictionary fromVariantMap(const VariantMap& map, std::string* error) {
  Value::Dictionary dict;
  for (const auto& [key, variant] : map) {
    Value v = fromVariant(variant, error);
    if (!v.isNull())
      dict.insert_or_assign(key, std::move(v));
  }
  return dict;
}

Value::Array fromVariantArray(const VariantArray& array, std::string* error) {
  Value::Array out;
  out.reserve(array.size());
  for (const auto& variant : array) {
    Value v = fromVariant(variant, error);
    if (!v.isNull())
      out.push_back(std::move(v));
  }
  return out;
}

VariantArray toOptionalVariant(const Value& value) {
  VariantArray out;
  if (auto v = toVariant(value))
    out.push_back(std::move(*v));
  return out;
}

Value fromOptionalVariant(const VariantArray& array, std::string* error) {
  if (array.empty())
    return Value();
  if (array.size() > 1) {
    setError(error, "an optional value holds " + std::to_string(array.size()) + " elements");
    return Value();
  }
  return fromVariant(array.front(), error);
}

}  // namespace vantor
