#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/binary_plist_writer.h"
#include "platform/values/value.h"

namespace vantor {

// Writes a keyed archive: a binary property list with "$archiver",
// "$version", "$top" {"root": UID} and "$objects", where objects refer to one
// another by UID (their index in "$objects") and every instance names its
// class through a shared "$class" entry.
class KeyedArchiveWriter {
 public:
  using Ref = std::uint64_t;       // index of an object in "$objects"
  static constexpr Ref kNull = 0;  // the "$null" object

  // An instance being filled in: its "$class" and its fields, each a
  // reference to another object or a scalar kept inline.
  class Instance {
   public:
    Instance& ref(std::string_view key, Ref target);
    Instance& number(std::string_view key, const Value& number);  // a number value
    Instance& real(std::string_view key, double value);
    Instance& unsignedInteger(std::string_view key, std::uint64_t value);

   private:
    friend class KeyedArchiveWriter;
    explicit Instance(BinaryPlistWriter& out) : out_(&out) {
      keys_.reserve(4);
      values_.reserve(4);
    }
    BinaryPlistWriter* out_;
    std::vector<BinaryPlistWriter::Ref> keys_, values_;
  };

  KeyedArchiveWriter();

  // A slot for an object that is filled in later (the root, which is
  // conventionally object 1 but is complete only at the end).
  Ref reserve();
  void fill(Ref slot, Instance instance);

  Ref string(std::string_view text);
  // Any property-list value as an object of its own; a null value is kNull.
  Ref object(const Value& value);

  // A new instance of `className`.
  Instance instance(const std::string& className);
  Ref add(Instance instance);

  // A dictionary instance ("NSDictionary") from parallel key and value refs.
  Ref dictionary(const std::vector<Ref>& keys, const std::vector<Ref>& values);

  // The encoded archive with `root` as "$top"'s root. The writer is spent.
  std::vector<std::uint8_t> finish(Ref root);

 private:
  Ref append(BinaryPlistWriter::Ref object);
  Ref classRef(const std::string& className);

  BinaryPlistWriter out_;
  std::vector<BinaryPlistWriter::Ref> objects_;  // "$objects", by archive index
  std::map<std::string, Ref, std::less<>> classes_;
};

}  // namespace vantor
