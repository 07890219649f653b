#include "json.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace vantor::ctl {

namespace {

void appendBase64(std::string& out, const Value::Data& data) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  out.push_back('"');
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
  out.push_back('"');
}

void appendDate(std::string& out, Date date) {
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
  if (gmtime_r(&t, &tm) == nullptr) {
    out += "null";
    return;
  }
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
  std::snprintf(text + length, sizeof text - length, ".%06lldZ", static_cast<long long>(micros));
  appendJsonString(out, text);
}

void appendReal(std::string& out, double d) {
  if (!std::isfinite(d)) {
    out += "null";
    return;
  }
  char text[64];
  auto [end, error] = std::to_chars(text, text + sizeof text, d);
  if (error != std::errc()) {
    out += "null";
    return;
  }
  out.append(text, end);
}

void append(std::string& out, const Value& value) {
  switch (value.type()) {
    case Value::Type::kNull:
      out += "null";
      break;
    case Value::Type::kBoolean:
      out += value.get<bool>() ? "true" : "false";
      break;
    case Value::Type::kInteger:
      out += std::to_string(value.get<std::int64_t>());
      break;
    case Value::Type::kUnsigned:
      out += std::to_string(value.get<std::uint64_t>());
      break;
    case Value::Type::kReal:
      appendReal(out, value.get<double>());
      break;
    case Value::Type::kString:
      appendJsonString(out, value.get<std::string>());
      break;
    case Value::Type::kData:
      appendBase64(out, value.get<Value::Data>());
      break;
    case Value::Type::kDate:
      appendDate(out, value.get<Date>());
      break;
    case Value::Type::kArray: {
      out.push_back('[');
      const char* separator = "";
      for (const auto& item : value.get<Value::Array>()) {
        out += separator;
        separator = ",";
        append(out, item);
      }
      out.push_back(']');
      break;
    }
    case Value::Type::kDictionary: {
      out.push_back('{');
      const char* separator = "";
      for (const auto& [key, item] : value.get<Value::Dictionary>()) {
        out += separator;
        separator = ",";
        appendJsonString(out, key);
        out.push_back(':');
        append(out, item);
      }
      out.push_back('}');
      break;
    }
  }
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out.push_back('"');
  for (const char c : text) {
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
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        // Other control characters must be escaped; everything else,
        // UTF-8 sequences included, passes through as it is.
        if (static_cast<unsigned char>(c) < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
          out += escape;
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
}

std::string toJson(const Value& value) {
  std::string out;
  append(out, value);
  return out;
}

}  // namespace vantor::ctl
