#pragma once
// Test-side network helpers: a UDP receiver on loopback that reports each datagram's
// source, destination and TOS / traffic class, as a collector would see them.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/nelo/Addr.h"

namespace TestSupport {

struct Datagram {
  std::string payload;
  Nelo::IpGenAddr src;
  Nelo::IpGenAddr dst;
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;
  int tos = -1;  // TOS (IPv4) or traffic class (IPv6) byte
};

// The IPFIX set id of a message's first set (2 data templates, 3 options templates,
// 256 and above data), 0 when it has none.
uint16_t firstSetId(const std::string& message);
// The datagrams whose message's first set is `setId`.
std::vector<Datagram> ofSet(const std::vector<Datagram>& datagrams, uint16_t setId);

class UdpReceiver {
 public:
  // Binds 127.0.0.1 or ::1 on a free port (or `port`); `ipv4` picks another loopback
  // address.
  explicit UdpReceiver(bool ipv6, uint16_t port = 0, const char* ipv4 = "127.0.0.1");
  ~UdpReceiver();
  UdpReceiver(const UdpReceiver&) = delete;
  UdpReceiver& operator=(const UdpReceiver&) = delete;

  uint16_t port() const { return port_; }
  bool ipv6() const { return ipv6_; }
  // The next datagram, waiting at most `timeout`.
  std::optional<Datagram> receive(std::chrono::milliseconds timeout);
  // Everything that arrives until `quiet` passes without a datagram (at most `max`).
  std::vector<Datagram> drain(std::chrono::milliseconds quiet = std::chrono::milliseconds(50),
                              size_t max = 10000);

 private:
  bool ipv6_;
  int fd_ = -1;
  uint16_t port_ = 0;
};

}  // namespace TestSupport
