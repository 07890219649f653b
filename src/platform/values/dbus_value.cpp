#include "platform/values/dbus_value.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Message.h>

namespace vantor {

std::optional<sdbus::Variant> toVariant(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNull:
      return std::nullopt;
    case Value::Type::kBoolean:
      return sdbus::Variant(value.boolValue());
    case Value::Type::kInteger:
      return sdbus::Variant(value.int64Value());
    case Value::Type::kUnsigned:
      return sdbus::Variant(value.uint64Value());
    case Value::Type::kReal:
      return sdbus::Variant(value.doubleValue());
    case Value::Type::kString:
      return sdbus::Variant(value.get<std::string>());
    case Value::Type::kData:
      return sdbus::Variant(value.get<Value::Data>());
    case Value::Type::kDate:
      return sdbus::Variant(sdbus::Struct<std::int64_t>{value.get<Date>().microsecondsSinceEpoch});
    case Value::Type::kArray:
      return sdbus::Variant(toVariantArray(value.get<Value::Array>()));
    case Value::Type::kDictionary:
      return sdbus::Variant(toVariantMap(value.get<Value::Dictionary>()));
  }
  return std::nullopt;
}

VariantMap toVariantMap(const Value::Dictionary& dictionary) {
  VariantMap map;
  for (const auto& [key, item] : dictionary) {
    if (auto v = toVariant(item))
      map.emplace(key, std::move(*v));
  }
  return map;
}

VariantArray toVariantArray(const Value::Array& array) {
  VariantArray out;
  out.reserve(array.size());
  for (const auto& item : array) {
    if (auto v = toVariant(item))
      out.push_back(std::move(*v));
  }
  return out;
}

namespace {

void setError(std::string* error, std::string text) {
  if (error != nullptr && error->empty())
    *error = std::move(text);
}

// The length of the first complete type in `signature`.
std::size_t completeTypeLength(std::string_view signature) {
  if (signature.empty())
    return 0;
  if (signature[0] == 'a')
    return 1 + completeTypeLength(signature.substr(1));
  if (signature[0] != '(' && signature[0] != '{')
    return 1;
  const char close = signature[0] == '(' ? ')' : '}';
  std::size_t pos = 1;
  while (pos < signature.size() && signature[pos] != close) {
    const std::size_t length = completeTypeLength(signature.substr(pos));
    if (length == 0)
      return signature.size();
    pos += length;
  }
  return std::min(pos + 1, signature.size());
}

bool isStringType(char type) {
  return type == 's' || type == 'o' || type == 'g';
}

// Reads values of any signature from a message, driven by the signature
// itself: every array is an array and every dictionary with string keys a
// dictionary, however deep. A value that has no counterpart is consumed,
// becomes null and sets the error; its container keeps the rest.
class MessageReader {
 public:
  MessageReader(sdbus::Message& message, std::string* error) : msg_(message), error_(error) {}

  // Reads one value of the complete type `signature` into `out`. False when
  // the enclosing container has nothing left to read.
  bool read(std::string_view signature, Value& out) {
    switch (signature[0]) {
      case 's':
        return scalar<std::string>(out);
      case 'o':
        return scalar<sdbus::ObjectPath, std::string>(out);
      case 'g':
        return scalar<sdbus::Signature, std::string>(out);
      case 'b':
        return scalar<bool>(out);
      case 'y':
        return scalar<std::uint8_t, std::int64_t>(out);
      case 'n':
        return scalar<std::int16_t, std::int64_t>(out);
      case 'q':
        return scalar<std::uint16_t, std::int64_t>(out);
      case 'i':
        return scalar<std::int32_t, std::int64_t>(out);
      case 'u':
        return scalar<std::uint32_t, std::int64_t>(out);
      case 'x':
        return scalar<std::int64_t>(out);
      case 't':
        return scalar<std::uint64_t>(out);
      case 'd':
        return scalar<double>(out);
      case 'v': {
        sdbus::Variant inner;
        if (!(msg_ >> inner))
          return false;
        out = fromVariant(inner, error_);
        return true;
      }
      case 'a':
        if (signature[1] == 'y')
          return scalar<Value::Data>(out);
        if (signature[1] == '{')
          return dictionary(signature, out);
        return array(signature.substr(1), out);
      case '(':
        return structure(signature, out);
      default: {
        // File descriptors and anything newer: consumed, then refused.
        if (signature[0] == 'h') {
          sdbus::UnixFd fd;
          if (!(msg_ >> fd))
            return false;
        }
        unsupported(signature);
        out = Value();
        return true;
      }
    }
  }

 private:
  template <typename Wire, typename Stored = Wire>
  bool scalar(Value& out) {
    Wire item{};
    if (!(msg_ >> item))
      return false;
    out = Value(Stored(std::move(item)));
    return true;
  }

  bool array(std::string_view element, Value& out) {
    const std::string elementSignature(element);
    if (!msg_.enterContainer(elementSignature))
      return false;
    Value::Array items;
    for (Value item; read(element, item); item = Value()) {
      if (!item.isNull())
        items.push_back(std::move(item));
    }
    msg_.clearFlags();
    msg_.exitContainer();
    out = Value(std::move(items));
    return true;
  }

  bool dictionary(std::string_view signature, Value& out) {
    // signature is "a{KV}": the entry is "{KV}", its contents "KV".
    const std::string entry(signature.substr(1));
    const std::string contents = entry.substr(1, entry.size() - 2);
    const std::string_view keyType = std::string_view(contents).substr(0, 1);
    const std::string_view valueType = std::string_view(contents).substr(1);
    if (!msg_.enterContainer(entry))
      return false;
    Value::Dictionary items;
    while (msg_.enterDictEntry(contents)) {
      Value key, value;
      read(keyType, key);
      read(valueType, value);
      msg_.exitDictEntry();
      if (key.isString() && !value.isNull())
        items.insert_or_assign(key.get<std::string>(), std::move(value));
    }
    msg_.clearFlags();
    msg_.exitContainer();
    if (!isStringType(keyType[0])) {
      setError(error_, "dictionary keys are not strings in '" + std::string(signature) + "'");
      out = Value();
      return true;
    }
    out = Value(std::move(items));
    return true;
  }

  bool structure(std::string_view signature, Value& out) {
    const std::string contents(signature.substr(1, signature.size() - 2));
    if (!msg_.enterStruct(contents))
      return false;
    if (contents == "x") {
      std::int64_t microseconds = 0;
      msg_ >> microseconds;
      out = Value(Date{microseconds});
    } else {
      // Only the date has a struct form; other structs are read past.
      for (std::string_view rest = contents; !rest.empty();) {
        const std::size_t length = completeTypeLength(rest);
        Value ignored;
        read(rest.substr(0, length), ignored);
        rest.remove_prefix(length);
      }
      unsupported(signature);
      out = Value();
    }
    msg_.exitStruct();
    return true;
  }

  void unsupported(std::string_view signature) {
    setError(error_, "unsupported variant type '" + std::string(signature) + "'");
  }

  sdbus::Message& msg_;
  std::string* error_;
};

// A variant read in place from the message that holds it. sdbus-c++ hands
// out a variant's contents only by a type fixed at compile time, so a
// variant to be read generically travels wrapped in a struct, whose "v"
// member lands here with the message positioned on it.
struct AnyVariant {
  Value value;
  std::string error;
};

}  // namespace
}  // namespace vantor

namespace sdbus {
template <>
struct signature_of<vantor::AnyVariant> {
  [[maybe_unused]] static constexpr bool is_valid = true;
  static const std::string str() { return "v"; }
};
}  // namespace sdbus

namespace vantor {
namespace {

sdbus::Message& operator>>(sdbus::Message& message, AnyVariant& item) {
  std::string type, contents;
  message.peekType(type, contents);
  message.enterVariant(contents);
  MessageReader(message, &item.error).read(contents, item.value);
  message.exitVariant();
  return message;
}

Value readContainer(const sdbus::Variant& variant, std::string* error) {
  const sdbus::Variant wrapped(sdbus::Struct<sdbus::Variant>{variant});
  auto read = std::get<0>(wrapped.get<sdbus::Struct<AnyVariant>>());
  if (!read.error.empty())
    setError(error, std::move(read.error));
  return std::move(read.value);
}

}  // namespace

Value fromVariant(const sdbus::Variant& variant, std::string* error) {
  if (variant.isEmpty()) {
    setError(error, "empty variant");
    return Value();
  }
  const std::string sig = variant.peekValueType();
  try {
    // Scalars directly; containers and the rest through the message reader.
    if (sig == "s")
      return Value(variant.get<std::string>());
    if (sig == "b")
      return Value(variant.get<bool>());
    if (sig == "x")
      return Value(variant.get<std::int64_t>());
    if (sig == "t")
      return Value(variant.get<std::uint64_t>());
    if (sig == "d")
      return Value(variant.get<double>());
    if (sig == "ay")
      return Value(variant.get<std::vector<std::uint8_t>>());
    return readContainer(variant, error);
  } catch (const sdbus::Error& e) {
    setError(error, "unreadable variant of type '" + sig + "': " + e.getMessage());
    return Value();
  }
}

Value::Dictionary fromVariantMap(const VariantMap& map, std::string* error) {
  Value::Dictionary dict;
  for (const auto& [key, variant] : map) {
    Value v = fromVariant(variant, error);
    if (!v.isNull())
      dict.insert_or_assign(key, std::move(v));
  }
  return dict;
}

Value::Array fromVariantArray(const VariantArray& array, std::string* error) {
  Value::Array out;
  out.reserve(array.size());
  for (const auto& variant : array) {
    Value v = fromVariant(variant, error);
    if (!v.isNull())
      out.push_back(std::move(v));
  }
  return out;
}

VariantArray toOptionalVariant(const Value& value) {
  VariantArray out;
  if (auto v = toVariant(value))
    out.push_back(std::move(*v));
  return out;
}

Value fromOptionalVariant(const VariantArray& array, std::string* error) {
  if (array.empty())
    return Value();
  if (array.size() > 1) {
    setError(error, "an optional value holds " + std::to_string(array.size()) + " elements");
    return Value();
  }
  return fromVariant(array.front(), error);
}

}  // namespace vantor
