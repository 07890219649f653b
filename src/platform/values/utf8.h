#pragma once

#include <string_view>

namespace vantor {

// One unit of UTF-8 text: a code point and the bytes it is written with, or
// a malformed byte on its own.
struct Utf8Unit {
  static constexpr char32_t kMalformed = 0xFFFFFFFF;
  // The code point, or kMalformed for a byte that starts no well-formed
  // sequence (a stray continuation byte, a truncated sequence, an overlong
  // form, a surrogate, a code point past U+10FFFF).
  char32_t codePoint;
  std::string_view bytes;  // one byte when malformed

  bool malformed() const { return codePoint == kMalformed; }
};

// The unit at the start of `text`, which must not be empty.
Utf8Unit firstUtf8Unit(std::string_view text);

// Calls `visit(unit)` for each unit of `text`, in order. After a malformed
// byte decoding goes on with the byte after it.
template <typename Visit>
void forEachUtf8Unit(std::string_view text, Visit&& visit) {
  while (!text.empty()) {
    const Utf8Unit unit = firstUtf8Unit(text);
    text.remove_prefix(unit.bytes.size());
    visit(unit);
  }
}

}  // namespace vantor
