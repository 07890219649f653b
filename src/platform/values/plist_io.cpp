#include "platform/values/plist_io.h"

#include <plist/plist.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include "platform/values/binary_plist_writer.h"
#include "platform/values/utf8.h"

namespace vantor {
namespace {

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree>;

// Deeper documents are refused before libplist sees them: its parsers recurse
// once per level and would overflow the stack on hostile input.
constexpr int kMaxDepth = 512;
// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr std::int64_t kPlistEpochOffset = 978307200;

// Nesting depth of arrays and dictionaries in XML text, skipping comments and
// character data. Returns -1 when it exceeds the limit.
int xmlDepth(std::string_view text) {
  int depth = 0;
  std::size_t i = 0;
  auto startsWith = [&](std::size_t at, std::string_view what) {
    return text.compare(at, what.size(), what) == 0;
  };
  while ((i = text.find('<', i)) != std::string_view::npos) {
    if (startsWith(i, "<!--")) {
      const auto end = text.find("-->", i + 4);
      if (end == std::string_view::npos)
        break;
      i = end + 3;
      continue;
    }
    if (startsWith(i, "<![CDATA[")) {
      const auto end = text.find("]]>", i + 9);
      if (end == std::string_view::npos)
        break;
      i = end + 3;
      continue;
    }
    const auto close = text.find('>', i);
    if (close == std::string_view::npos)
      break;
    const auto tag = text.substr(i + 1, close - i - 1);
    const bool selfClosing = !tag.empty() && tag.back() == '/';
    auto named = [&](std::string_view name) {
      return tag.compare(0, name.size(), name) == 0 &&
             (tag.size() == name.size() || tag[name.size()] == ' ' || tag[name.size()] == '/' ||
              tag[name.size()] == '\t' || tag[name.size()] == '\n');
    };
    if (!selfClosing && (named("array") || named("dict"))) {
      if (++depth > kMaxDepth)
        return -1;
    } else if (named("/array") || named("/dict")) {
      --depth;
    }
    i = close + 1;
  }
  return depth < 0 ? 0 : depth;
}

// Checks a binary property list's structure before libplist parses it:
// the trailer, every object offset and reference in range, and container
// nesting within the limit (which also catches reference cycles).
class BinaryCheck {
 public:
  explicit BinaryCheck(std::span<const std::uint8_t> bytes) : b_(bytes) {}
  bool passes(std::string* error) { return trailerIsSound(error) && objectsAreSound(error); }

 private:
  static constexpr std::size_t kHeader = 8, kTrailer = 32;

  // The big-endian number of `n` bytes at `at`; false when out of range.
  bool readBE(std::size_t at, std::size_t n, std::uint64_t* out) const {
    if (n == 0 || n > 8 || at > b_.size() || b_.size() - at < n)
      return false;
    std::uint64_t v = 0;
    for (std::size_t k = 0; k < n; ++k)
      v = (v << 8) | b_[at + k];
    *out = v;
    return true;
  }

  // The sizes, the object count, the top object and the offset table, all
  // within the file.
  bool trailerIsSound(std::string* error) {
    if (b_.size() < kHeader + kTrailer + 1) {
      *error = "binary property list too short";
      return false;
    }
    const std::size_t t = b_.size() - kTrailer;
    offsetSize_ = b_[t + 6];
    refSize_ = b_[t + 7];
    readBE(t + 8, 8, &numObjects_);
    readBE(t + 16, 8, &top_);
    readBE(t + 24, 8, &tableOffset_);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8 || numObjects_ == 0 ||
        top_ >= numObjects_ || tableOffset_ < kHeader || tableOffset_ > t ||
        numObjects_ > (t - tableOffset_) / offsetSize_) {
      *error = "binary property list has a damaged trailer";
      return false;
    }
    return true;
  }

  // Where object `ref` starts, by the offset table; false when it lies
  // outside the objects.
  bool objectAt(std::uint64_t ref, std::size_t* at) const {
    std::uint64_t off = 0;
    if (ref >= numObjects_ || !readBE(tableOffset_ + ref * offsetSize_, offsetSize_, &off) ||
        off < kHeader || off >= tableOffset_)
      return false;
    *at = off;
    return true;
  }

  // The count of the sized object at `at` (in its marker, or in an integer
  // after it when the marker holds 0xF) and where its contents start.
  bool readCount(std::size_t at, std::uint64_t* count, std::size_t* contents) const {
    *count = b_[at] & 0x0F;
    *contents = at + 1;
    if (*count != 0x0F)
      return true;
    if (*contents >= tableOffset_ || (b_[*contents] >> 4) != 0x1)
      return false;
    const std::size_t n = std::size_t{1} << (b_[*contents] & 0x3);
    if (!readBE(*contents + 1, n, count))
      return false;
    *contents += 1 + n;
    return true;
  }

  // Dictionary keys (the first half of a dictionary's references) must be
  // strings without a NUL character: libplist aborts when it walks any other
  // key.
  bool keyIsSound(std::uint64_t ref) const {
    std::size_t at = 0;
    if (!objectAt(ref, &at))
      return false;
    const std::uint8_t kind = b_[at] >> 4;
    if (kind != 0x5 && kind != 0x6)
      return false;
    std::uint64_t length = 0;
    std::size_t chars = 0;
    if (!readCount(at, &length, &chars))
      return false;
    const std::size_t unit = kind == 0x6 ? 2 : 1;
    if (chars > tableOffset_ || length > (tableOffset_ - chars) / unit)
      return false;
    for (std::size_t c = 0; c < length; ++c) {
      if (b_[chars + c * unit] == 0 && b_[chars + c * unit + unit - 1] == 0)
        return false;
    }
    return true;
  }

  // Walks the objects from the top one: every reference in range, every
  // container within the file and the nesting limit, every dictionary key
  // sound. Objects shared by many containers are walked once per container,
  // up to a bound.
  bool objectsAreSound(std::string* error) const {
    struct Pending {
      std::uint64_t ref;
      int depth;
    };
    std::vector<Pending> stack{{top_, 0}};
    std::uint64_t visits = 0;
    const std::uint64_t maxVisits = numObjects_ * 4 + 1024;
    while (!stack.empty()) {
      const auto [ref, depth] = stack.back();
      stack.pop_back();
      std::size_t at = 0;
      if (!objectAt(ref, &at)) {
        *error = "binary property list has a reference out of range";
        return false;
      }
      if (++visits > maxVisits) {
        *error = "binary property list shares too many objects";
        return false;
      }
      const std::uint8_t kind = b_[at] >> 4;
      if (kind != 0xA && kind != 0xC && kind != 0xD)
        continue;
      if (depth + 1 > kMaxDepth) {
        *error = "property list nested too deeply";
        return false;
      }
      std::uint64_t count = 0;
      std::size_t refs = 0;
      if (!readCount(at, &count, &refs)) {
        *error = "binary property list has a damaged count";
        return false;
      }
      const std::uint64_t total = kind == 0xD ? count * 2 : count;
      if (count > numObjects_ * 2 || refs > tableOffset_ ||
          total > (tableOffset_ - refs) / refSize_) {
        *error = "binary property list has a container larger than the file";
        return false;
      }
      for (std::uint64_t k = 0; k < total; ++k) {
        std::uint64_t child = 0;
        readBE(refs + k * refSize_, refSize_, &child);
        if (kind == 0xD && k < count && !keyIsSound(child)) {
          *error = "binary property list has a dictionary key that is not a string";
          return false;
        }
        stack.push_back({child, depth + 1});
      }
    }
    return true;
  }

  std::span<const std::uint8_t> b_;
  std::size_t offsetSize_ = 0;
  std::size_t refSize_ = 0;
  std::uint64_t numObjects_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t tableOffset_ = 0;
};

// One node on its own, written by libplist as XML or binary.
std::string serialised(plist_t node, bool binary) {
  PlistPtr copy(plist_copy(node));
  char* bytes = nullptr;
  std::uint32_t length = 0;
  (binary ? plist_to_bin : plist_to_xml)(copy.get(), &bytes, &length);
  std::string out = bytes != nullptr ? std::string(bytes, length) : std::string();
  (binary ? plist_to_bin_free : plist_to_xml_free)(bytes);
  return out;
}

bool integerIsNegative(plist_t node) {
  // libplist keeps one unsigned 64-bit integer; whether a value above the
  // signed range was written as a negative number shows only in its XML.
  return serialised(node, false).find("<integer>-") != std::string::npos;
}

// Text as the daemon's values hold it: up to the first NUL (where libplist
// and the bus end a string anyway) and valid UTF-8, each byte of a malformed
// sequence replaced by U+FFFD as the binary encoder does, so that a string
// reads back the same after a rewrite and can always travel on the bus.
std::string textOf(const char* s, std::size_t length) {
  const std::string_view text(s, s != nullptr ? strnlen(s, length) : 0);
  std::string out;
  out.reserve(text.size());
  forEachUtf8Unit(text, [&out](const Utf8Unit& unit) {
    if (unit.malformed()) {
      out += "\xEF\xBF\xBD";
    } else {
      out += unit.bytes;
    }
  });
  return out;
}

// The seconds from 2001 that a date node holds. libplist's accessor drops the
// sign of the fraction of a second, so a date before 2001 would read up to a
// second late (and move on every rewrite); the node's binary encoding, a
// big-endian double after the 0x33 marker of its only object, is exact.
double dateSeconds(plist_t node) {
  const std::string bin = serialised(node, true);
  std::uint64_t bits = 0;
  constexpr std::size_t kObject = 8;  // after "bplist00"
  if (bin.size() >= kObject + 9 && static_cast<std::uint8_t>(bin[kObject]) == 0x33) {
    for (std::size_t i = 1; i <= 8; ++i)
      bits = (bits << 8) | static_cast<std::uint8_t>(bin[kObject + i]);
  }
  return std::bit_cast<double>(bits);
}

Value fromNode(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value(b != 0);
    }
    case PLIST_UINT: {
      std::uint64_t u = 0;
      plist_get_uint_val(node, &u);
      if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) ||
          integerIsNegative(node))
        return Value(static_cast<std::int64_t>(u));
      return Value(u);
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      std::uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      return Value(textOf(s, length));
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* d = plist_get_data_ptr(node, &length);
      const auto* p = reinterpret_cast<const std::uint8_t*>(d);
      return Value(Value::Data(p, p + (d != nullptr ? length : 0)));
    }
    case PLIST_DATE: {
      // Property-list dates are 32-bit seconds; beyond that they are clamped.
      double seconds = dateSeconds(node);
      if (std::isnan(seconds))
        seconds = 0;
      seconds = std::clamp(seconds, double{std::numeric_limits<std::int32_t>::min()},
                           double{std::numeric_limits<std::int32_t>::max()});
      return Value(Date{std::llround((seconds + kPlistEpochOffset) * 1e6)});
    }
    case PLIST_UID: {
      std::uint64_t uid = 0;
      plist_get_uid_val(node, &uid);
      return Value(Value::Dictionary{{"CF$UID", Value(uid)}});
    }
    case PLIST_ARRAY: {
      Value::Array array;
      array.reserve(plist_array_get_size(node));
      // Walked with an iterator: fetching by index costs a walk from the
      // start on arrays that libplist's parsers built.
      plist_array_iter it = nullptr;
      plist_array_new_iter(node, &it);
      for (;;) {
        plist_t item = nullptr;
        plist_array_next_item(node, it, &item);
        if (item == nullptr)
          break;
        array.push_back(fromNode(item));
      }
      std::free(it);
      return Value(std::move(array));
    }
    case PLIST_DICT: {
      Value::Dictionary dict;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (item == nullptr) {
          std::free(key);
          break;
        }
        if (key != nullptr)
          dict.insert_or_assign(textOf(key, std::strlen(key)), fromNode(item));
        std::free(key);
      }
      std::free(it);
      return Value(std::move(dict));
    }
    default:
      return Value();
  }
}

plist_t integerNode(std::int64_t i) {
  return plist_new_uint(static_cast<std::uint64_t>(i));
}

plist_t unsignedNode(std::uint64_t u) {
  if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return plist_new_uint(u);
  }
  // Only libplist's XML reader marks a value above the signed range as
  // unsigned, so that binary output keeps it positive.
  const std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\"><integer>" +
                          std::to_string(u) + "</integer></plist>";
  plist_t node = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
  return node != nullptr ? node : plist_new_uint(u);
}

// Null for a null value, which property lists cannot hold.
plist_t toPlistNode(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNull:
      return nullptr;
    case Value::Type::kBoolean:
      return plist_new_bool(value.boolValue() ? 1 : 0);
    case Value::Type::kInteger:
      return integerNode(value.int64Value());
    case Value::Type::kUnsigned:
      return unsignedNode(value.uint64Value());
    case Value::Type::kReal:
      return plist_new_real(value.doubleValue());
    case Value::Type::kString:
      return plist_new_string(value.asString()->c_str());
    case Value::Type::kData: {
      const auto& d = value.get<Value::Data>();
      return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    case Value::Type::kDate: {
      // Property-list dates hold 32-bit seconds from 2001: clamp to that range.
      const auto us = value.get<Date>().microsecondsSinceEpoch;
      std::int64_t secs = us / 1000000;
      std::int64_t usec = us % 1000000;
      if (usec < 0) {
        usec += 1000000;
        --secs;
      }
      secs -= kPlistEpochOffset;
      if (secs < std::numeric_limits<std::int32_t>::min())
        secs = std::numeric_limits<std::int32_t>::min();
      if (secs > std::numeric_limits<std::int32_t>::max())
        secs = std::numeric_limits<std::int32_t>::max();
      return plist_new_date(static_cast<std::int32_t>(secs), static_cast<std::int32_t>(usec));
    }
    case Value::Type::kArray: {
      plist_t array = plist_new_array();
      for (const auto& item : value.get<Value::Array>()) {
        if (plist_t child = toPlistNode(item))
          plist_array_append_item(array, child);
      }
      return array;
    }
    case Value::Type::kDictionary: {
      const auto& dict = value.get<Value::Dictionary>();
      // {"CF$UID" = n} is how a UID reads back; write it as one again.
      if (dict.size() == 1 && dict.begin()->first == "CF$UID" &&
          dict.begin()->second.type() == Value::Type::kUnsigned) {
        return plist_new_uid(dict.begin()->second.uint64Value());
      }
      plist_t node = plist_new_dict();
      for (const auto& [key, item] : dict) {
        if (plist_t child = toPlistNode(item))
          plist_dict_set_item(node, key.c_str(), child);
      }
      return node;
    }
  }
  return nullptr;
}

std::vector<std::uint8_t> writeXml(plist_t root) {
  char* out = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(root, &out, &length);
  std::vector<std::uint8_t> bytes(
      reinterpret_cast<std::uint8_t*>(out),
      reinterpret_cast<std::uint8_t*>(out) + (out != nullptr ? length : 0));
  plist_to_xml_free(out);
  return bytes;
}

}  // namespace

PlistParseResult parsePlist(std::span<const std::uint8_t> bytes) {
  PlistParseResult result;
  if (bytes.empty()) {
    result.error = "empty property list";
    return result;
  }
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max() / 2) {
    result.error = "property list too large";
    return result;
  }
  const auto* data = reinterpret_cast<const char*>(bytes.data());
  const auto length = static_cast<std::uint32_t>(bytes.size());
  plist_t root = nullptr;
  if (plist_is_binary(data, length)) {
    if (!BinaryCheck(bytes).passes(&result.error))
      return result;
    plist_from_bin(data, length, &root);
  } else {
    if (xmlDepth(std::string_view(data, length)) < 0) {
      result.error = "property list nested too deeply";
      return result;
    }
    plist_from_xml(data, length, &root);
  }
  if (root == nullptr) {
    result.error = "not a valid property list";
    return result;
  }
  PlistPtr owner(root);
  result.value = fromNode(root);
  return result;
}

std::vector<std::uint8_t> encodePlist(const Value& value, PlistFormat format) {
  if (format == PlistFormat::kBinary) {
    BinaryPlistWriter writer;
    BinaryPlistWriter::Ref top = 0;
    if (!writer.value(value, &top))
      top = writer.dictionary({}, {});
    return writer.finish(top);
  }
  PlistPtr root(value.isNull() ? plist_new_dict() : toPlistNode(value));
  return writeXml(root.get());
}

}  // namespace vantor
