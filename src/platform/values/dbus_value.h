#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sdbus-c++/Types.h>

#include "platform/values/value.h"

namespace vantor {

// Conversions between values and D-Bus variants:
//   string s, boolean b, integer x, unsigned t, real d, data ay,
//   date (x) microseconds since 1970, array av, dictionary a{sv}.
// Readers accept every D-Bus integer type (y n q i u x t) and h is refused.
// A null converts to nothing: callers drop it from dictionaries and arrays.
using VariantMap = std::map<std::string, sdbus::Variant>;
using VariantArray = std::vector<sdbus::Variant>;

// Nullopt when `value` is null.
std::optional<sdbus::Variant> toVariant(const Value& value);
VariantMap toVariantMap(const Value::Dictionary& dictionary);
VariantArray toVariantArray(const Value::Array& array);

// A variant of a signature outside the table above converts to null and sets
// `*error` (when given) to a readable reason.
Value fromVariant(const sdbus::Variant& variant, std::string* error = nullptr);
Value::Dictionary fromVariantMap(const VariantMap& map, std::string* error = nullptr);
Value::Array fromVariantArray(const VariantArray& array, std::string* error = nullptr);

// The protocols' optional object travels as `av` with 0 or 1 element.
VariantArray toOptionalVariant(const Value& value);
Value fromOptionalVariant(const VariantArray& array, std::string* error = nullptr);

}  // namespace vantor
