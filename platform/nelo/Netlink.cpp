#include "platform/nelo/Netlink.h"

#include <linux/netlink.h>

#include <cstdint>
#include <cstring>

namespace Nelo {

bool netlinkFramed(const void* buf, size_t len) {
  const auto* p = static_cast<const uint8_t*>(buf);
  while (len > 0) {
    if (len < sizeof(nlmsghdr)) return false;
    nlmsghdr h;
    std::memcpy(&h, p, sizeof h);
    if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > len) return false;
    const size_t step = NLMSG_ALIGN(static_cast<size_t>(h.nlmsg_len));
    if (step >= len) return true;  // the last one (its padding may be cut)
    p += step;
    len -= step;
  }
  return true;
}

}  // namespace Nelo
