#pragma once
// Byte strings written as hex in tests: hexBytes("000a 003c") is "\x00\x0a\x00\x3c".

#include <string>
#include <string_view>

namespace TestSupport {

// Hex digits to bytes; blanks, newlines and '|' are ignored.
std::string hexBytes(std::string_view hex);
// Bytes to lower-case hex, a blank every 4 bytes.
std::string toHex(std::string_view bytes);

}  // namespace TestSupport
