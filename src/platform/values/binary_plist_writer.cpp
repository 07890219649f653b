#include "platform/values/binary_plist_writer.h"

#include <bit>
#include <cstring>
#include <limits>

#include "platform/values/utf8.h"

namespace vantor {

namespace {

constexpr char kMagic[] = "bplist00";
constexpr std::size_t kMagicSize = 8;
// Seconds from 1970-01-01 to 2001-01-01, the epoch of property-list dates.
constexpr double kEpochOffset = 978307200.0;
// A marker's low four bits hold a count below this; larger counts follow the
// marker as an integer.
constexpr std::uint64_t kFlagsCountMarker = 0x0F;

int bytesFor(std::uint64_t value) {
  if (value <= 0xFF)
    return 1;
  if (value <= 0xFFFF)
    return 2;
  if (value <= 0xFFFFFFFF)
    return 4;
  return 8;
}

bool isAscii(std::string_view text) {
  // Eight bytes at a time: any byte with its top bit set is not ASCII.
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, sizeof word);
    if ((word & 0x8080808080808080ULL) != 0)
      return false;
  }
  for (; i < text.size(); ++i) {
    if (static_cast<unsigned char>(text[i]) >= 0x80)
      return false;
  }
  return true;
}

// UTF-8 to UTF-16 code units; malformed sequences become U+FFFD.
std::vector<char16_t> utf16(std::string_view text) {
  std::vector<char16_t> out;
  out.reserve(text.size());
  forEachUtf8Unit(text, [&out](const Utf8Unit& unit) {
    char32_t cp = unit.malformed() ? 0xFFFD : unit.codePoint;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  });
  return out;
}

void putBigEndian(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes) {
  for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}

// The marker of a sized object (string, data, array, dictionary).
void putMarker(std::vector<std::uint8_t>& out, std::uint8_t kind, std::uint64_t count) {
  if (count < kFlagsCountMarker) {
    out.push_back(static_cast<std::uint8_t>(kind | count));
    return;
  }
  out.push_back(static_cast<std::uint8_t>(kind | kFlagsCountMarker));
  const int bytes = bytesFor(count);
  out.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(unsigned(bytes))));
  putBigEndian(out, count, bytes);
}

}  // namespace

BinaryPlistWriter::Ref BinaryPlistWriter::beginScalar() {
  if (scalars_.empty())
    scalars_.assign(kMagic, kMagic + kMagicSize);
  offsets_.push_back(scalars_.size());
  return static_cast<Ref>(offsets_.size() - 1);
}

BinaryPlistWriter::Ref BinaryPlistWriter::integer(std::int64_t value) {
  if (value >= 0)
    return unsignedInteger(static_cast<std::uint64_t>(value));
  const Ref ref = beginScalar();
  // Negative numbers always take the full eight bytes.
  scalars_.push_back(0x13);
  putBigEndian(scalars_, static_cast<std::uint64_t>(value), 8);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::unsignedInteger(std::uint64_t value) {
  const Ref ref = beginScalar();
  if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    // Beyond the signed range: the 16-byte form reads back as unsigned.
    scalars_.push_back(0x14);
    putBigEndian(scalars_, 0, 8);
    putBigEndian(scalars_, value, 8);
    return ref;
  }
  const int bytes = bytesFor(value);
  scalars_.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(unsigned(bytes))));
  putBigEndian(scalars_, value, bytes);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::real(double value) {
  const Ref ref = beginScalar();
  scalars_.push_back(0x23);
  putBigEndian(scalars_, std::bit_cast<std::uint64_t>(value), 8);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::boolean(bool value) {
  const Ref ref = beginScalar();
  scalars_.push_back(value ? 0x09 : 0x08);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::date(Date value) {
  const Ref ref = beginScalar();
  scalars_.push_back(0x33);
  const double seconds = static_cast<double>(value.microsecondsSinceEpoch) / 1e6 - kEpochOffset;
  putBigEndian(scalars_, std::bit_cast<std::uint64_t>(seconds), 8);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::data(std::span<const std::uint8_t> bytes) {
  const Ref ref = beginScalar();
  putMarker(scalars_, 0x40, bytes.size());
  scalars_.insert(scalars_.end(), bytes.begin(), bytes.end());
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::string(std::string_view utf8) {
  const Ref ref = beginScalar();
  if (isAscii(utf8)) {
    putMarker(scalars_, 0x50, utf8.size());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(utf8.data());
    scalars_.insert(scalars_.end(), bytes, bytes + utf8.size());
    return ref;
  }
  const auto units = utf16(utf8);
  putMarker(scalars_, 0x60, units.size());
  for (const char16_t unit : units)
    putBigEndian(scalars_, unit, 2);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::uid(std::uint64_t value) {
  const Ref ref = beginScalar();
  const int bytes = bytesFor(value);
  scalars_.push_back(static_cast<std::uint8_t>(0x80 | (bytes - 1)));
  putBigEndian(scalars_, value, bytes);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::array(std::vector<Ref> items) {
  offsets_.push_back(0);
  const auto ref = static_cast<Ref>(offsets_.size() - 1);
  containers_.push_back({ref, 0xA0, std::move(items)});
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::dictionary(std::vector<Ref> keys,
                                                     std::vector<Ref> values) {
  offsets_.push_back(0);
  const auto ref = static_cast<Ref>(offsets_.size() - 1);
  keys.insert(keys.end(), values.begin(), values.end());
  containers_.push_back({ref, 0xD0, std::move(keys)});
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::key(std::string_view text) {
  if (auto it = keys_.find(text); it != keys_.end())
    return it->second;
  const Ref ref = string(text);
  keys_.emplace(std::string(text), ref);
  return ref;
}

BinaryPlistWriter::Ref BinaryPlistWriter::sharedUid(std::uint64_t value) {
  // UIDs index an archive's object table, so they are small and dense.
  if (value < uids_.size() && uids_[value] != kNoRef)
    return uids_[value];
  const Ref ref = uid(value);
  if (value < (std::uint64_t{1} << 20)) {
    if (value >= uids_.size())
      uids_.resize(value + 1, kNoRef);
    uids_[value] = ref;
  }
  return ref;
}

bool BinaryPlistWriter::value(const Value& v, Ref* ref) {
  switch (v.type()) {
    case Value::Type::kNull:
      return false;
    case Value::Type::kBoolean:
      *ref = boolean(v.get<bool>());
      return true;
    case Value::Type::kInteger:
      *ref = integer(v.get<std::int64_t>());
      return true;
    case Value::Type::kUnsigned:
      *ref = unsignedInteger(v.get<std::uint64_t>());
      return true;
    case Value::Type::kReal:
      *ref = real(v.get<double>());
      return true;
    case Value::Type::kString:
      *ref = string(v.get<std::string>());
      return true;
    case Value::Type::kData:
      *ref = data(v.get<Value::Data>());
      return true;
    case Value::Type::kDate:
      *ref = date(v.get<Date>());
      return true;
    case Value::Type::kArray: {
      std::vector<Ref> items;
      for (const auto& item : v.get<Value::Array>()) {
        Ref child = 0;
        if (value(item, &child))
          items.push_back(child);
      }
      *ref = array(std::move(items));
      return true;
    }
    case Value::Type::kDictionary: {
      const auto& dict = v.get<Value::Dictionary>();
      // {"CF$UID" = n} is how a UID reads back; write it as one again.
      if (dict.size() == 1 && dict.begin()->first == "CF$UID" &&
          dict.begin()->second.type() == Value::Type::kUnsigned) {
        *ref = uid(dict.begin()->second.get<std::uint64_t>());
        return true;
      }
      std::vector<Ref> keys, values;
      for (const auto& [k, item] : dict) {
        Ref child = 0;
        if (value(item, &child)) {
          keys.push_back(key(k));
          values.push_back(child);
        }
      }
      *ref = dictionary(std::move(keys), std::move(values));
      return true;
    }
  }
  return false;
}

std::vector<std::uint8_t> BinaryPlistWriter::finish(Ref top) {
  const std::uint64_t count = offsets_.size();
  const int refSize = bytesFor(count == 0 ? 0 : count - 1);
  // Containers follow the scalars; their size is known now.
  if (scalars_.empty())
    scalars_.assign(kMagic, kMagic + kMagicSize);
  std::vector<std::uint8_t> out = std::move(scalars_);
  std::size_t containerBytes = 0;
  for (const auto& c : containers_)
    containerBytes += 10 + c.refs.size() * static_cast<std::size_t>(refSize);
  out.reserve(out.size() + containerBytes + count * 8 + 32);
  for (const auto& c : containers_) {
    offsets_[c.ref] = out.size();
    putMarker(out, c.marker, c.marker == 0xD0 ? c.refs.size() / 2 : c.refs.size());
    for (const Ref r : c.refs)
      putBigEndian(out, r, refSize);
  }
  const std::uint64_t tableOffset = out.size();
  const int offsetSize = bytesFor(tableOffset);
  for (const std::uint64_t offset : offsets_)
    putBigEndian(out, offset, offsetSize);
  // Trailer: six unused bytes, the two widths, then count, top and table offset.
  putBigEndian(out, 0, 6);
  out.push_back(static_cast<std::uint8_t>(offsetSize));
  out.push_back(static_cast<std::uint8_t>(refSize));
  putBigEndian(out, count, 8);
  putBigEndian(out, top, 8);
  putBigEndian(out, tableOffset, 8);
  containers_.clear();
  offsets_.clear();
  return out;
}

}  // namespace vantor
