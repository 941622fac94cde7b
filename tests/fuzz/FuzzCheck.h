#pragma once
// Property checks in fuzz targets: a failed one names itself and aborts, which libFuzzer
// reports as a crash with the input that caused it.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                \
  do {                                                                                  \
    if (!(cond)) {                                                                      \
      std::fprintf(stderr, "property failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
      std::abort();                                                                     \
    }                                                                                   \
  } while (0)

namespace Fuzz {
inline uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t be32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
inline uint64_t be64(const uint8_t* p) { return uint64_t{be32(p)} << 32 | be32(p + 4); }
}  // namespace Fuzz
