#include "platform/zub/Text.h"

#include <cstdio>

namespace Zub {

size_t utf8SequenceAt(std::string_view s, size_t i, uint32_t* cp) {
  const auto c = static_cast<unsigned char>(s[i]);
  if (c < 0x80) {
    *cp = c;
    return 1;
  }
  // The length and smallest code point of the sequence this lead byte starts.
  size_t len = 0;
  uint32_t v = 0, min = 0;
  if ((c & 0xe0) == 0xc0) {
    len = 2, v = c & 0x1f, min = 0x80;
  } else if ((c & 0xf0) == 0xe0) {
    len = 3, v = c & 0x0f, min = 0x800;
  } else if ((c & 0xf8) == 0xf0) {
    len = 4, v = c & 0x07, min = 0x10000;
  }
  if (len == 0 || i + len > s.size()) return 0;
  for (size_t k = 1; k < len; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xc0) != 0x80) return 0;
    v = (v << 6) | (b & 0x3f);
  }
  if (v < min || v > 0x10ffff || (v >= 0xd800 && v <= 0xdfff)) return 0;
  *cp = v;
  return len;
}

std::string printable(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  auto escape = [&out](std::string_view bytes) {
    for (char b : bytes) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned char>(b));
      out += buf;
    }
  };
  for (size_t i = 0; i < s.size();) {
    uint32_t cp = 0;
    const size_t len = utf8SequenceAt(s, i, &cp);
    if (len == 0) {
      escape(s.substr(i, 1));
      ++i;
    } else if (isControl(cp)) {
      escape(s.substr(i, len));
      i += len;
    } else {
      out.append(s.substr(i, len));
      i += len;
    }
  }
  return out;
}

}  // namespace Zub
