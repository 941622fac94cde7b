#include "tests/support/Bytes.h"

#include <stdexcept>

namespace TestSupport {

std::string hexBytes(std::string_view hex) {
  std::string out;
  int hi = -1;
  for (char c : hex) {
    int v;
    if (c >= '0' && c <= '9') {
      v = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      v = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      v = c - 'A' + 10;
    } else if (c == ' ' || c == '\n' || c == '|') {
      continue;
    } else {
      throw std::invalid_argument("bad hex digit");
    }
    if (hi < 0) {
      hi = v;
    } else {
      out.push_back(static_cast<char>(hi << 4 | v));
      hi = -1;
    }
  }
  if (hi >= 0) throw std::invalid_argument("odd number of hex digits");
  return out;
}

std::string toHex(std::string_view bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i && i % 4 == 0) out.push_back(' ');
    auto b = static_cast<unsigned char>(bytes[i]);
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 15]);
  }
  return out;
}

}  // namespace TestSupport
