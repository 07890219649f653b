#include "platform/values/utf8.h"

namespace vantor {

Utf8Unit firstUtf8Unit(std::string_view text) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80)
    return {lead, text.substr(0, 1)};
  // The lead byte gives the length; the range of the second byte rules out
  // overlong forms (E0 and F0), surrogates (ED) and code points past U+10FFFF
  // (F4). C0, C1 and F5 to FF start nothing.
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : low;
    high = lead == 0xED ? 0x9F : high;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : low;
    high = lead == 0xF4 ? 0x8F : high;
  }
  const Utf8Unit malformed{Utf8Unit::kMalformed, text.substr(0, 1)};
  if (length == 0 || text.size() < length || byte(1) < low || byte(1) > high)
    return malformed;
  char32_t codePoint = lead & (0x7F >> length);
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(k) & 0xC0) != 0x80)
      return malformed;
    codePoint = (codePoint << 6) | (byte(k) & 0x3F);
  }
  return {codePoint, text.substr(0, length)};
}

}  // namespace vantor
