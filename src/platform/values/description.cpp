#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "platform/values/value.h"

// Descriptions are one line, meant for log lines: dictionaries as
// {"key" = value; ...}, arrays as (a, b), strings quoted, data as <0a1b>,
// dates as "2026-11-22 10:00:00 +0000", null as (null).
namespace vantor {
namespace {

void appendQuoted(std::string& out, const std::string& s) {
  out.push_back('"');
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\%03o", static_cast<unsigned char>(c));
          out += buf;
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
}

void appendDate(std::string& out, Date date) {
  std::int64_t secs = date.microsecondsSinceEpoch / 1000000;
  if (date.microsecondsSinceEpoch % 1000000 < 0)
    --secs;
  const auto t = static_cast<std::time_t>(secs);
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr) {
    out += "(invalid date)";
    return;
  }
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
  out += buf;
}

void append(std::string& out, const Value& value) {
  switch (value.type()) {
    case Value::Type::kNull:
      out += "(null)";
      break;
    case Value::Type::kBoolean:
      out += value.boolValue() ? "true" : "false";
      break;
    case Value::Type::kInteger:
      out += std::to_string(value.int64Value());
      break;
    case Value::Type::kUnsigned:
      out += std::to_string(value.uint64Value());
      break;
    case Value::Type::kReal: {
      char buf[64];
      std::snprintf(buf, sizeof buf, "%.17g", value.doubleValue());
      // Prefer the shortest text that reads back as the same number.
      for (int precision = 1; precision <= 17; ++precision) {
        char shorter[64];
        std::snprintf(shorter, sizeof shorter, "%.*g", precision, value.doubleValue());
        if (std::strtod(shorter, nullptr) == value.doubleValue()) {
          out += shorter;
          return;
        }
      }
      out += buf;
      break;
    }
    case Value::Type::kString:
      appendQuoted(out, value.get<std::string>());
      break;
    case Value::Type::kData: {
      out.push_back('<');
      char buf[3];
      for (auto byte : value.get<Value::Data>()) {
        std::snprintf(buf, sizeof buf, "%02x", byte);
        out += buf;
      }
      out.push_back('>');
      break;
    }
    case Value::Type::kDate:
      appendDate(out, value.get<Date>());
      break;
    case Value::Type::kArray: {
      out.push_back('(');
      bool first = true;
      for (const auto& item : value.get<Value::Array>()) {
        if (!first)
          out += ", ";
        first = false;
        append(out, item);
      }
      out.push_back(')');
      break;
    }
    case Value::Type::kDictionary: {
      out.push_back('{');
      bool first = true;
      for (const auto& [key, item] : value.get<Value::Dictionary>()) {
        if (!first)
          out.push_back(' ');
        first = false;
        appendQuoted(out, key);
        out += " = ";
        append(out, item);
        out.push_back(';');
      }
      out.push_back('}');
      break;
    }
  }
}

}  // namespace

std::string Value::description() const {
  std::string out;
  append(out, *this);
  return out;
}

}  // namespace vantor
