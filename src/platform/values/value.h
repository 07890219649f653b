#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vantor {

// A point in time with microsecond resolution, counted from 1970-01-01 UTC.
struct Date {
  std::int64_t microsecondsSinceEpoch = 0;
  auto operator<=>(const Date&) const = default;
};

// One property-list value: null, boolean, signed or unsigned integer, real,
// string, data, date, array or dictionary. Null stands for the absent object
// of the protocols ("any object, may be null"). Values are plain data: copies
// are deep and independent, and a value is safe to read from several threads.
class Value {
 public:
  struct Null {
    auto operator<=>(const Null&) const = default;
  };
  using Data = std::vector<std::uint8_t>;
  using Array = std::vector<Value>;
  using Dictionary = std::map<std::string, Value, std::less<>>;

  enum class Type {
    kNull,
    kBoolean,
    kInteger,
    kUnsigned,
    kReal,
    kString,
    kData,
    kDate,
    kArray,
    kDictionary
  };

  Value() = default;
  Value(Null) {}
  Value(bool b) : v_(b) {}
  Value(int i) : v_(std::int64_t{i}) {}
  Value(long i) : v_(std::int64_t{i}) {}
  Value(long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned int u) : v_(std::uint64_t{u}) {}
  Value(unsigned long u) : v_(static_cast<std::uint64_t>(u)) {}
  Value(unsigned long long u) : v_(static_cast<std::uint64_t>(u)) {}
  Value(double d) : v_(d) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(Data d) : v_(std::move(d)) {}
  Value(Date d) : v_(d) {}
  Value(Array a) : v_(std::move(a)) {}
  Value(Dictionary d) : v_(std::move(d)) {}

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::kNull; }
  bool isBoolean() const { return type() == Type::kBoolean; }
  bool isString() const { return type() == Type::kString; }
  bool isData() const { return type() == Type::kData; }
  bool isDate() const { return type() == Type::kDate; }
  bool isArray() const { return type() == Type::kArray; }
  bool isDictionary() const { return type() == Type::kDictionary; }
  // A number in the protocols' sense: integer, unsigned, real or boolean.
  bool isNumber() const;

  // Typed access; each returns null when the value is of another type.
  const std::string* asString() const { return std::get_if<std::string>(&v_); }
  const Data* asData() const { return std::get_if<Data>(&v_); }
  const Date* asDate() const { return std::get_if<Date>(&v_); }
  const Array* asArray() const { return std::get_if<Array>(&v_); }
  Array* asArray() { return std::get_if<Array>(&v_); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&v_); }
  Dictionary* asDictionary() { return std::get_if<Dictionary>(&v_); }

  // Checked access for code that has already tested type(): throws
  // std::bad_variant_access on a mismatch, e.g. get<Value::Array>().
  template <typename T>
  const T& get() const {
    return std::get<T>(v_);
  }
  template <typename T>
  T& get() {
    return std::get<T>(v_);
  }

  // Numeric readings in the manner of a number object: integers, unsigned
  // integers, reals and booleans all answer; a string answers the number it
  // starts with (0 when none). Reals are truncated toward zero and clamped to
  // the target range; anything else reads as 0 / false.
  std::int64_t int64Value() const;
  std::uint64_t uint64Value() const;
  std::int32_t int32Value() const;
  double doubleValue() const;
  bool boolValue() const;

  // Dictionary lookup: null when this is not a dictionary or the key is absent.
  const Value* find(std::string_view key) const;

  // A readable one-line description for log lines, e.g.
  // {"VANTOR_VOLUME" = "/"; "VANTOR_AMOUNT" = 5;}
  std::string description() const;

  friend bool operator==(const Value&, const Value&) = default;

 private:
  std::variant<Null, bool, std::int64_t, std::uint64_t, double, std::string, Data, Date, Array,
               Dictionary>
      v_;
};

}  // namespace vantor
