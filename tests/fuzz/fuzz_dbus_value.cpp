// D-Bus values as clients and services send them: the input chooses a type
// (any basic type, arrays, dictionaries with any key type, structs, nested
// variants, to a bounded depth) and its contents, which are written into a
// message and read back as the variant the conversion code receives.

#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <sdbus-c++/Error.h>
#include <sdbus-c++/Message.h>
#include <sdbus-c++/Types.h>

#include "platform/values/dbus_value.h"

// Exported by sdbus-c++ (a message of no connection) but not declared by
// every version's headers.
namespace sdbus {
PlainMessage createPlainMessage();
}

namespace {

constexpr int kMaxDepth = 5;
constexpr char kBasic[] = "ybnqiuxtdsog";

struct Type {
  char code = 'y';  // a basic code, 'a' (array), 'e' (dictionary), 'v' or '('
  std::vector<Type> parts;
  std::string signature;
};

Type basicType(char code) {
  return {code, {}, std::string(1, code)};
}

Type makeType(FuzzedDataProvider& in, int depth) {
  const int pick = in.ConsumeIntegralInRange(0, depth >= kMaxDepth ? 11 : 15);
  if (pick < 12)
    return basicType(kBasic[pick]);
  Type t{"aev(" [pick - 12], {}, {}};
  if (t.code == 'e')  // string keys are what the daemon accepts; others must be refused
    t.parts.push_back(basicType(in.ConsumeBool() ? 's' : kBasic[in.ConsumeIntegralInRange(0, 11)]));
  if (t.code != 'v') {
    const int count = t.code == '(' ? in.ConsumeIntegralInRange(1, 3) : 1;
    for (int i = 0; i < count; ++i)
      t.parts.push_back(makeType(in, depth + 1));
  }
  std::string inner;
  for (const Type& part : t.parts)
    inner += part.signature;
  t.signature = t.code == 'a'   ? "a" + inner
                : t.code == 'e' ? "a{" + inner + "}"
                : t.code == '(' ? "(" + inner + ")"
                                : "v";
  return t;
}

std::string text(FuzzedDataProvider& in, const char* alphabet) {
  std::string s = in.ConsumeRandomLengthString(24);
  for (char& c : s) {
    const auto byte = static_cast<unsigned char>(c);
    c = alphabet != nullptr ? alphabet[byte % 63] : static_cast<char>(byte % 127 + 1);
  }
  return s;
}

sdbus::Message& write(sdbus::Message& m, const Type& t, FuzzedDataProvider& in, int depth) {
  switch (t.code) {
    case 'y':
      return m << in.ConsumeIntegral<std::uint8_t>();
    case 'b':
      return m << in.ConsumeBool();
    case 'n':
      return m << in.ConsumeIntegral<std::int16_t>();
    case 'q':
      return m << in.ConsumeIntegral<std::uint16_t>();
    case 'i':
      return m << in.ConsumeIntegral<std::int32_t>();
    case 'u':
      return m << in.ConsumeIntegral<std::uint32_t>();
    case 'x':
      return m << in.ConsumeIntegral<std::int64_t>();
    case 't':
      return m << in.ConsumeIntegral<std::uint64_t>();
    case 'd':
      return m << std::bit_cast<double>(in.ConsumeIntegral<std::uint64_t>());
    case 's':
      return m << text(in, nullptr);
    case 'o': {
      const std::string segment =
          text(in, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_");
      m << sdbus::ObjectPath(segment.empty() ? "/" : "/vantor/" + segment);
      break;
    }
    case 'g':
      return m << sdbus::Signature(makeType(in, kMaxDepth - 1).signature);
    case 'v': {
      const Type inner = makeType(in, depth + 1);
      m.openVariant(inner.signature);
      write(m, inner, in, depth + 1);
      m.closeVariant();
      break;
    }
    case '(':
      m.openStruct(t.signature.substr(1, t.signature.size() - 2));
      for (const Type& part : t.parts)
        write(m, part, in, depth + 1);
      m.closeStruct();
      break;
    default: {  // 'a' and 'e'
      const std::string element = t.signature.substr(1);
      const int count = in.ConsumeIntegralInRange(0, 4);
      m.openContainer(element);
      for (int i = 0; i < count; ++i) {
        if (t.code == 'e')
          m.openDictEntry(element.substr(1, element.size() - 2));
        for (const Type& part : t.parts)
          write(m, part, in, depth + 1);
        if (t.code == 'e')
          m.closeDictEntry();
      }
      m.closeContainer();
    }
  }
  return m;
}

bool same(const vantor::Value& a, const vantor::Value& b) {
  return a.description() == b.description();  // NaN is not equal to itself
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  // The shapes the protocols use at the top, a{sv} and av, and anything else.
  const int shape = in.ConsumeIntegralInRange(0, 2);
  const Type top = shape == 0   ? Type{'e', {basicType('s'), basicType('v')}, "a{sv}"}
                   : shape == 1 ? Type{'a', {basicType('v')}, "av"}
                                : makeType(in, 0);
  auto message = sdbus::createPlainMessage();
  sdbus::Variant variant;
  try {
    message.openVariant(top.signature);
    write(message, top, in, 0);
    message.closeVariant();
    message.seal();
    message.rewind(true);
    message >> variant;
  } catch (const sdbus::Error&) {
    return 0;  // sd-bus will not build it (nesting past its limits), so no peer can send it
  }

  std::string error;
  const vantor::Value value = vantor::fromVariant(variant, &error);
  if (const auto back = vantor::toVariant(value); back && !same(vantor::fromVariant(*back), value))
    std::abort();
  if (top.signature == "a{sv}")
    (void)vantor::fromVariantMap(variant.get<vantor::VariantMap>(), &error);
  if (top.signature == "av")
    (void)vantor::fromOptionalVariant(variant.get<vantor::VariantArray>(), &error);
  return 0;
}
