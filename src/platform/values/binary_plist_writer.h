#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/values/value.h"

namespace vantor {

// Writes a binary property list ("bplist00") object by object. Every call
// adds one object and returns its reference, which containers then list;
// `finish` encodes the table with the chosen top object. Scalars are encoded
// as they come and containers at the end, once the width of a reference is
// known, so a document costs one pass and a handful of allocations.
//
// libplist parses what this writes (the tests hold it to that). It is ours
// because the cache's archive is rewritten on every service reply, and
// building and encoding libplist nodes cost several times more than the rest
// of such a write.
class BinaryPlistWriter {
 public:
  using Ref = std::uint32_t;

  Ref integer(std::int64_t value);
  Ref unsignedInteger(std::uint64_t value);
  Ref real(double value);
  Ref boolean(bool value);
  Ref date(Date value);
  Ref data(std::span<const std::uint8_t> bytes);
  Ref string(std::string_view utf8);
  Ref uid(std::uint64_t value);
  Ref array(std::vector<Ref> items);
  Ref dictionary(std::vector<Ref> keys, std::vector<Ref> values);  // same length

  // The same key string or UID added only once, however often it is used.
  Ref key(std::string_view text);
  Ref sharedUid(std::uint64_t value);

  // Any value, nested containers included; a null inside a container is left
  // out, as property lists cannot hold it. Returns false for a null `value`.
  bool value(const Value& value, Ref* ref);

  // The encoded document. The writer is spent.
  std::vector<std::uint8_t> finish(Ref top);

 private:
  static constexpr Ref kNoRef = ~Ref{0};

  struct Container {
    Ref ref;
    std::uint8_t marker;    // 0xA0 array, 0xD0 dictionary
    std::vector<Ref> refs;  // a dictionary's keys, then its values
  };

  Ref beginScalar();

  std::vector<std::uint8_t> scalars_;   // encoded scalar objects
  std::vector<std::uint64_t> offsets_;  // by ref; containers filled in at the end
  std::vector<Container> containers_;
  // Looked up by view, without building a string.
  struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  std::unordered_map<std::string, Ref, KeyHash, std::equal_to<>> keys_;
  std::vector<Ref> uids_;  // by UID value, kNoRef until written
};

}  // namespace vantor
