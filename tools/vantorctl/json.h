#pragma once

#include <string>

#include "platform/values/value.h"

namespace vantor::ctl {

// Writes `value` as compact JSON on one line. Dictionaries become objects,
// arrays arrays, null null; integers are written exactly, reals in their
// shortest exact form (null when not finite); data becomes a base64 string
// and a date an ISO 8601 string in UTC with microseconds.
std::string toJson(const Value& value);

// Prints toJson(value) and a line feed on stdout.
void printJson(const Value& value);

}  // namespace vantor::ctl
