#pragma once
// Netlink buffers from sockets: whether they hold whole messages before a parser that
// trusts each header's length (libmnl does) walks them.

#include <cstddef>

namespace Nelo {

// Whether `len` bytes at `buf` are whole netlink messages, each header's length within
// what is left. A length near 2^32 would wrap libmnl's step to zero and make it walk the
// same message forever.
bool netlinkFramed(const void* buf, size_t len);

}  // namespace Nelo
