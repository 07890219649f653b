#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sdbus-c++/Types.h>

#include "platform/values/value.h"

namespace vantor {

// Conversions between values and D-Bus variants. Writers use one signature
// per type:
//   string s, boolean b, integer x, unsigned t, real d, data ay,
//   date (x) microseconds since 1970, array av, dictionary a{sv}.
// Readers are liberal, as D-Bus tools and bindings send what their own types
// make: every integer type (y n q i u x t), s o g as strings, any array
// signature (as, ax, aav, ...) as an array and any dictionary with string keys
// (a{ss}, a{sa{sv}}, ...) as a dictionary, at any depth. A dictionary whose
// keys are not strings, h, and structs other than (x) have no counterpart.
// A null converts to nothing: callers drop it from dictionaries and arrays.
using VariantMap = std::map<std::string, sdbus::Variant>;
using VariantArray = std::vector<sdbus::Variant>;

// Nullopt when `value` is null.
std::optional<sdbus::Variant> toVariant(const Value& value);
VariantMap toVariantMap(const Value::Dictionary& dictionary);
VariantArray toVariantArray(const Value::Array& array);

// A variant without a counterpart converts to null and sets `*error` (when
// given) to a reason that names its signature; inside a container only that
// entry is left out.
Value fromVariant(const sdbus::Variant& variant, std::string* error = nullptr);
Value::Dictionary fromVariantMap(const VariantMap& map, std::string* error = nullptr);
Value::Array fromVariantArray(const VariantArray& array, std::string* error = nullptr);

// The protocols' optional object travels as `av` with 0 or 1 element.
VariantArray toOptionalVariant(const Value& value);
Value fromOptionalVariant(const VariantArray& array, std::string* error = nullptr);

}  // namespace vantor
