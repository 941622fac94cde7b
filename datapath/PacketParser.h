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
#include <cstring>

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
// VLAN id the socket took off the frame (0 for none). Inline: in the data path's loop the
// parsed fields stay in registers on their way into the flow key, instead of being
// stored field by field and read back as words (which stalls each such load).
[[gnu::always_inline]] inline ParseResult parsePacket(const uint8_t* frame, size_t snapLen,
                                                      uint32_t wireLen, const GsoInfo& gso,
                                                      uint16_t ringVlan, PacketInfo& out);

namespace parser {

constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr uint16_t kEtherIpv6 = 0x86DD;
constexpr uint16_t kEtherVlan = 0x8100;
constexpr uint16_t kEtherQinQ = 0x88A8;
constexpr int kMaxVlanTags = 2;
constexpr int kMaxIpv6ExtHeaders = 8;

inline uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

// The transport header at `at`: ports, flags, ICMP type and code. Returns its length, or
// 0 when it is not within the snap.
inline size_t readL4(const uint8_t* frame, size_t snapLen, size_t at, PacketInfo& out) {
  auto have = [&](size_t n) { return at + n <= snapLen; };
  switch (out.protocol) {
    case 6:  // TCP
      if (!have(20)) return 0;
      out.srcPort = be16(frame + at);
      out.dstPort = be16(frame + at + 2);
      out.tcpFlags = frame[at + 13];
      {
        const size_t len = static_cast<size_t>(frame[at + 12] >> 4) * 4;
        return len >= 20 ? len : 20;
      }
    case 17:   // UDP
    case 132:  // SCTP (common header: ports first)
      if (!have(8)) return 0;
      out.srcPort = be16(frame + at);
      out.dstPort = be16(frame + at + 2);
      return out.protocol == 17 ? 8 : 12;
    case 1:   // ICMP
    case 58:  // ICMPv6
      if (!have(4)) return 0;
      out.dstPort = static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]);
      return 8;
    default:
      return 0;
  }
}

inline bool hasPorts(uint8_t protocol) {
  return protocol == 6 || protocol == 17 || protocol == 132 || protocol == 1 || protocol == 58;
}

}  // namespace parser

[[gnu::always_inline]] inline ParseResult parsePacket(const uint8_t* frame, size_t snapLen,
                                                      uint32_t wireLen, const GsoInfo& gso,
                                                      uint16_t ringVlan, PacketInfo& out) {
  using namespace parser;
  // Field by field: assigning a whole PacketInfo makes a temporary that is stored and
  // read back at once, and the read waits on the stores.
  out.ipVersion = out.protocol = out.tos = out.tcpFlags = 0;
  out.src = {};
  out.dst = {};
  out.srcPort = out.dstPort = out.vlan = 0;
  out.fragment = false;
  out.segments = 1;
  out.octets = 0;
  if (snapLen > wireLen) snapLen = wireLen;
  if (snapLen < 14) return ParseResult::truncated;
  size_t at = 12;
  uint16_t type = be16(frame + at);
  at += 2;
  out.vlan = ringVlan & 0x0FFF;
  for (int tags = 0; (type == kEtherVlan || type == kEtherQinQ) && tags < kMaxVlanTags; ++tags) {
    if (at + 4 > snapLen) return ParseResult::truncated;
    if (out.vlan == 0) out.vlan = be16(frame + at) & 0x0FFF;
    type = be16(frame + at + 2);
    at += 4;
  }
  const size_t l2 = at;
  size_t l3Header = 0;
  uint64_t l3Length = 0;  // as the header says
  if (type == kEtherIpv4) {
    if (at + 20 > snapLen) return ParseResult::truncated;
    const uint8_t* ip = frame + at;
    if (ip[0] >> 4 != 4) return ParseResult::malformed;
    l3Header = static_cast<size_t>(ip[0] & 0x0F) * 4;
    if (l3Header < 20) return ParseResult::malformed;
    if (at + l3Header > snapLen) return ParseResult::truncated;
    out.ipVersion = 4;
    out.tos = ip[1];
    l3Length = be16(ip + 2);
    out.protocol = ip[9];
    std::memcpy(out.src.data(), ip + 12, 4);
    std::memcpy(out.dst.data(), ip + 16, 4);
    out.fragment = (be16(ip + 6) & 0x1FFF) != 0;
  } else if (type == kEtherIpv6) {
    if (at + 40 > snapLen) return ParseResult::truncated;
    const uint8_t* ip = frame + at;
    if (ip[0] >> 4 != 6) return ParseResult::malformed;
    out.ipVersion = 6;
    out.tos = static_cast<uint8_t>((ip[0] & 0x0F) << 4 | ip[1] >> 4);
    l3Length = 40u + be16(ip + 4);
    std::memcpy(out.src.data(), ip + 8, 16);
    std::memcpy(out.dst.data(), ip + 24, 16);
    uint8_t next = ip[6];
    l3Header = 40;
    // Extension headers, a bounded number of them, up to the transport header.
    for (int i = 0; i < kMaxIpv6ExtHeaders; ++i) {
      const size_t h = at + l3Header;
      if (next == 0 || next == 43 || next == 60) {  // hop-by-hop, routing, destination
        if (h + 8 > snapLen) return ParseResult::truncated;
        next = frame[h];
        l3Header += (static_cast<size_t>(frame[h + 1]) + 1) * 8;
      } else if (next == 44) {  // fragment
        if (h + 8 > snapLen) return ParseResult::truncated;
        next = frame[h];
        out.fragment = (be16(frame + h + 2) & 0xFFF8) != 0;
        l3Header += 8;
      } else if (next == 51) {  // authentication header
        if (h + 8 > snapLen) return ParseResult::truncated;
        next = frame[h];
        l3Header += (static_cast<size_t>(frame[h + 1]) + 2) * 4;
      } else {
        break;
      }
    }
    out.protocol = next;
    if (at + l3Header > snapLen && hasPorts(next) && !out.fragment) {
      return ParseResult::truncated;
    }
  } else {
    return ParseResult::notIp;
  }
  // The L3 bytes on the wire: the frame's when it was segmented or had its length field
  // cleared (GRO past 64 KiB), else the header's (an Ethernet frame may be padded).
  const uint64_t frameL3 = wireLen > l2 ? wireLen - l2 : 0;
  if (l3Length < l3Header) {
    if (l3Length != 0 && gso.gsoSize == 0) return ParseResult::malformed;
    l3Length = frameL3;
  }
  if (gso.gsoSize > 0 || l3Length > frameL3) l3Length = frameL3;
  size_t l4Header = 0;
  if (!out.fragment && hasPorts(out.protocol)) {
    l4Header = readL4(frame, snapLen, at + l3Header, out);
    if (l4Header == 0) return ParseResult::truncated;
  }
  out.octets = l3Length;
  if (gso.gsoSize > 0) {
    const uint64_t headers = l3Header + l4Header;
    const uint64_t payload = l3Length > headers ? l3Length - headers : 0;
    const uint64_t segs = (payload + gso.gsoSize - 1) / gso.gsoSize;
    if (segs > 1) {
      out.segments = static_cast<uint32_t>(segs);
      out.octets = l3Length + (segs - 1) * headers;
    }
  }
  return ParseResult::ok;
}

}  // namespace FlowTracking
