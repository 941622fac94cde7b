#pragma once
// Reads one sampled frame (as a packet socket hands it over: Ethernet first, cut to the
// snap length) into the fields of a flow record: addresses, protocol, ports, TCP flags,
// ToS, and how many wire packets and L3 octets the sample stands for. Every read is
// checked against the snap; nothing is trusted from the frame.
//
// A GSO/GRO super-packet (one buffer standing for many TCP segments) counts as the
// segments it carries: `segments` is its payload over the segment size, and `octets`
// adds one L3+L4 header per further segment, so the totals are those of the wire.

#include <array>
#include <cstddef>
#include <cstdint>

namespace FlowTracking {

// What the socket says about segmentation (a virtio_net_hdr): `gsoSize` 0 for a plain
// packet.
struct GsoInfo {
  uint16_t gsoSize = 0;
};

struct PacketInfo {
  uint8_t ipVersion = 0;  // 4 or 6
  uint8_t protocol = 0;
  uint8_t tos = 0;  // IPv4 TOS or IPv6 traffic class
  uint8_t tcpFlags = 0;
  std::array<uint8_t, 16> src{};  // an IPv4 address in the first four bytes
  std::array<uint8_t, 16> dst{};
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;   // ICMP and ICMPv6: type * 256 + code
  uint16_t vlan = 0;      // the outer VLAN id, 0 for none
  bool fragment = false;  // a fragment after the first: no ports
  uint32_t segments = 1;  // wire packets this sample stands for
  uint64_t octets = 0;    // their L3 bytes
};

enum class ParseResult : uint8_t {
  ok,
  notIp,      // not IPv4 or IPv6 (ARP, LLDP, ...): not a flow
  truncated,  // the headers go past the snap length
  malformed,  // lengths that contradict each other
};

// `frame` is `snapLen` bytes of a frame that was `wireLen` bytes long; `ringVlan` is the
// VLAN id the socket took off the frame (0 for none).
ParseResult parsePacket(const uint8_t* frame, size_t snapLen, uint32_t wireLen, const GsoInfo& gso,
                        uint16_t ringVlan, PacketInfo& out);

}  // namespace FlowTracking
