#pragma once
// Text that came from outside (a configuration file, a shared-memory table) on its way to
// a terminal, a log line or JSON: UTF-8 decoding and escaping of what does not belong.

#include <cstdint>
#include <string>
#include <string_view>

namespace Zub {

// The length of the UTF-8 sequence that starts at `s[i]` (its code point in `*cp`), or 0
// when the bytes there are not UTF-8 (a stray continuation byte, a truncated or overlong
// sequence, a surrogate, a code point past U+10FFFF).
size_t utf8SequenceAt(std::string_view s, size_t i, uint32_t* cp);

// C0 controls, DEL and C1 controls: the code points a terminal acts on.
inline bool isControl(uint32_t cp) { return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f); }

// `s` with control characters and bytes that are not UTF-8 written as "\xNN" (each byte
// of them), so that it reaches a terminal as text and is valid UTF-8.
std::string printable(std::string_view s);

}  // namespace Zub
