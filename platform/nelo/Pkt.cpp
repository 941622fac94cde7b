#include "platform/nelo/Pkt.h"

#include <cstdio>

namespace Nelo {

std::string Pkt::hexdump() const {
  std::string out;
  char buf[24];
  for (size_t i = 0; i < bytes_; ++i) {
    if (i % 16 == 0) {
      if (i) out.push_back('\n');
      std::snprintf(buf, sizeof buf, "%04zx:", i);
      out.append(buf);
    }
    std::snprintf(buf, sizeof buf, " %02x", data()[i]);
    out.append(buf);
  }
  return out;
}

PktManager& globalPktManager() {
  static PktManager m;
  return m;
}

}  // namespace Nelo
