// The sample parser on frames built here: each kind of header, VLAN tags inline and from
// the ring, IPv4 options and fragments, IPv6 extension headers, GSO super-packets, and
// every cut of the snap (the frame is copied to a buffer of exactly the snap length, so
// AddressSanitizer sees any read past it).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "datapath/PacketParser.h"
#include "tests/support/Bytes.h"

namespace {

using FlowTracking::GsoInfo;
using FlowTracking::PacketInfo;
using FlowTracking::ParseResult;
using TestSupport::hexBytes;

std::string be16(uint16_t v) { return std::string{char(v >> 8), char(v & 0xFF)}; }

std::string ether(uint16_t type, const std::string& payload, std::vector<uint16_t> vlans = {}) {
  std::string f = hexBytes("020000000002 020000000001");
  for (uint16_t v : vlans) f += be16(0x8100) + be16(v);
  return f + be16(type) + payload;
}

std::string ipv4(uint8_t proto, const std::string& l4, uint8_t tos = 0,
                 const std::string& options = "", uint16_t fragment = 0) {
  std::string h;
  h += char(0x40 | ((20 + options.size()) / 4));
  h += char(tos);
  h += be16(static_cast<uint16_t>(20 + options.size() + l4.size()));
  h += be16(1) + be16(fragment);
  h += char(64);
  h += char(proto);
  h += be16(0);
  h += hexBytes("c0000201 c6336402");  // 192.0.2.1 -> 198.51.100.2
  return h + options + l4;
}

std::string ipv6(uint8_t next, const std::string& rest, uint8_t tclass = 0) {
  std::string h;
  h += char(0x60 | tclass >> 4);
  h += char((tclass & 0x0F) << 4);
  h += be16(0);
  h += be16(static_cast<uint16_t>(rest.size()));
  h += char(next);
  h += char(64);
  h += hexBytes("20010db8000000000000000000000001 20010db8000000000000000000000002");
  return h + rest;
}

std::string tcp(uint16_t sport, uint16_t dport, uint8_t flags, size_t payload = 0) {
  return be16(sport) + be16(dport) + hexBytes("00000001 00000000") + char(0x50) + char(flags) +
         hexBytes("ffff 0000 0000") + std::string(payload, 'x');
}
std::string udp(uint16_t sport, uint16_t dport, size_t payload = 0) {
  return be16(sport) + be16(dport) + be16(static_cast<uint16_t>(8 + payload)) + be16(0) +
         std::string(payload, 'u');
}

struct Parsed {
  ParseResult result;
  PacketInfo info;
};

// Parses `frame` cut to `snap` bytes (all of it by default), from a buffer of exactly
// that size.
Parsed parse(const std::string& frame, size_t snap = std::string::npos, GsoInfo gso = {},
             uint16_t ringVlan = 0, uint32_t wireLen = 0) {
  snap = std::min(snap, frame.size());
  std::vector<uint8_t> buf(frame.begin(), frame.begin() + static_cast<long>(snap));
  Parsed p;
  p.result = FlowTracking::parsePacket(buf.data(), buf.size(),
                                       wireLen ? wireLen : static_cast<uint32_t>(frame.size()), gso,
                                       ringVlan, p.info);
  return p;
}

TEST(PacketParser, Ipv4TransportsAddressesToSAndOctets) {
  auto t = parse(ether(0x0800, ipv4(6, tcp(40000, 443, 0x12, 100), 0xb8)));
  ASSERT_EQ(t.result, ParseResult::ok);
  EXPECT_EQ(t.info.ipVersion, 4);
  EXPECT_EQ(t.info.protocol, 6);
  EXPECT_EQ(t.info.tos, 0xb8);
  EXPECT_EQ(t.info.srcPort, 40000);
  EXPECT_EQ(t.info.dstPort, 443);
  EXPECT_EQ(t.info.tcpFlags, 0x12);
  EXPECT_EQ(std::string(t.info.src.begin(), t.info.src.begin() + 4), hexBytes("c0000201"));
  EXPECT_EQ(std::string(t.info.dst.begin(), t.info.dst.begin() + 4), hexBytes("c6336402"));
  EXPECT_EQ(t.info.octets, 20u + 20 + 100);
  EXPECT_EQ(t.info.segments, 1u);

  // A short frame padded to the Ethernet minimum: the IP length counts, not the padding.
  auto u = parse(ether(0x0800, ipv4(17, udp(53, 5353, 2))) + std::string(16, '\0'));
  ASSERT_EQ(u.result, ParseResult::ok);
  EXPECT_EQ(u.info.octets, 30u);
  EXPECT_EQ(u.info.dstPort, 5353);

  auto icmp = parse(ether(0x0800, ipv4(1, hexBytes("0b01 0000 00000000"))));  // time exceeded
  ASSERT_EQ(icmp.result, ParseResult::ok);
  EXPECT_EQ(icmp.info.srcPort, 0);
  EXPECT_EQ(icmp.info.dstPort, 0x0b01);
  auto sctp = parse(ether(0x0800, ipv4(132, be16(2905) + be16(2906) + std::string(8, '\0'))));
  ASSERT_EQ(sctp.result, ParseResult::ok);
  EXPECT_EQ(sctp.info.dstPort, 2906);
  // Another protocol has no ports and needs none.
  auto gre = parse(ether(0x0800, ipv4(47, std::string(4, '\0'))));
  ASSERT_EQ(gre.result, ParseResult::ok);
  EXPECT_EQ(gre.info.protocol, 47);
}

TEST(PacketParser, VlanTagsInlineOrFromTheRing) {
  auto one = parse(ether(0x0800, ipv4(17, udp(1, 2)), {0x2064}));  // priority 1, VLAN 100
  ASSERT_EQ(one.result, ParseResult::ok);
  EXPECT_EQ(one.info.vlan, 100);
  EXPECT_EQ(one.info.dstPort, 2);
  auto qinq = parse(ether(0x86DD, ipv6(17, udp(1, 2)), {10, 20}));
  ASSERT_EQ(qinq.result, ParseResult::ok);
  EXPECT_EQ(qinq.info.vlan, 10);  // the outer one
  auto ring = parse(ether(0x0800, ipv4(17, udp(1, 2))), std::string::npos, {}, 0x3005);
  EXPECT_EQ(ring.info.vlan, 5);
  // A third tag is more than the parser walks: not IP to it.
  EXPECT_EQ(parse(ether(0x0800, ipv4(17, udp(1, 2)), {1, 2, 3})).result, ParseResult::notIp);
  EXPECT_EQ(parse(ether(0x0806, std::string(28, '\0'))).result, ParseResult::notIp);  // ARP
}

TEST(PacketParser, Ipv4OptionsAndFragments) {
  auto opts = parse(ether(0x0800, ipv4(6, tcp(1, 2, 0x01), 0, hexBytes("94040000"))));
  ASSERT_EQ(opts.result, ParseResult::ok);
  EXPECT_EQ(opts.info.srcPort, 1);
  EXPECT_EQ(opts.info.tcpFlags, 0x01);
  EXPECT_EQ(opts.info.octets, 44u);
  // The first fragment has the ports; a later one has none.
  auto first = parse(ether(0x0800, ipv4(17, udp(7, 8, 100), 0, "", 0x2000)));
  ASSERT_EQ(first.result, ParseResult::ok);
  EXPECT_FALSE(first.info.fragment);
  EXPECT_EQ(first.info.dstPort, 8);
  auto later = parse(ether(0x0800, ipv4(17, std::string(100, 'u'), 0, "", 0x000d)));
  ASSERT_EQ(later.result, ParseResult::ok);
  EXPECT_TRUE(later.info.fragment);
  EXPECT_EQ(later.info.dstPort, 0);
  // Lengths that contradict each other.
  std::string bad = ether(0x0800, ipv4(17, udp(1, 2)));
  bad[14] = 0x44;  // header length 16
  EXPECT_EQ(parse(bad).result, ParseResult::malformed);
  bad[14] = 0x55;  // version 5
  EXPECT_EQ(parse(bad).result, ParseResult::malformed);
}

TEST(PacketParser, Ipv6ExtensionHeadersAreWalkedAndBounded) {
  // Hop-by-hop (8 bytes), destination options (16 bytes), then TCP.
  const std::string hbh = char(60) + std::string("\0", 1) + std::string(6, '\0');
  const std::string dst = char(6) + std::string("\1", 1) + std::string(14, '\0');
  auto p = parse(ether(0x86DD, ipv6(0, hbh + dst + tcp(5, 6, 0x04), 0xa0)));
  ASSERT_EQ(p.result, ParseResult::ok);
  EXPECT_EQ(p.info.ipVersion, 6);
  EXPECT_EQ(p.info.protocol, 6);
  EXPECT_EQ(p.info.tos, 0xa0);
  EXPECT_EQ(p.info.dstPort, 6);
  EXPECT_EQ(p.info.tcpFlags, 0x04);
  EXPECT_EQ(p.info.octets, 40u + 24 + 20);
  // A later fragment: no ports.
  const std::string frag = char(17) + std::string("\0", 1) + be16(0x0010) + std::string(4, '\0');
  auto f = parse(ether(0x86DD, ipv6(44, frag + std::string(16, 'u'))));
  ASSERT_EQ(f.result, ParseResult::ok);
  EXPECT_TRUE(f.info.fragment);
  EXPECT_EQ(f.info.protocol, 17);
  EXPECT_EQ(f.info.dstPort, 0);
  // ICMPv6 echo request.
  auto echo = parse(ether(0x86DD, ipv6(58, hexBytes("8000 0000 00010001"))));
  EXPECT_EQ(echo.info.dstPort, 0x8000);
  // Nine destination-option headers: the walk stops after eight and reports the ninth's
  // type as the protocol.
  std::string chain;
  for (int i = 0; i < 9; ++i) chain += char(60) + std::string(7, '\0');
  auto deep = parse(ether(0x86DD, ipv6(60, chain + udp(1, 2))));
  ASSERT_EQ(deep.result, ParseResult::ok);
  EXPECT_EQ(deep.info.protocol, 60);
}

TEST(PacketParser, EveryCutOfTheSnapIsTruncatedNeverReadPast) {
  const std::string hbh = char(17) + std::string(7, '\0');
  for (const std::string& frame : {ether(0x0800, ipv4(6, tcp(1, 2, 0x10), 0, hexBytes("01010101"))),
                                   ether(0x86DD, ipv6(0, hbh + udp(3, 4)), {7})}) {
    const auto whole = parse(frame);
    ASSERT_EQ(whole.result, ParseResult::ok);
    for (size_t snap = 0; snap < frame.size(); ++snap) {
      const auto cut = parse(frame, snap);
      EXPECT_EQ(cut.result, ParseResult::truncated) << "snap " << snap;
    }
  }
  // Payload past the headers may be cut: the wire length still counts it.
  auto big = parse(ether(0x0800, ipv4(17, udp(1, 2, 1400))), 128);
  ASSERT_EQ(big.result, ParseResult::ok);
  EXPECT_EQ(big.info.octets, 1428u);
}

TEST(PacketParser, AGsoSuperPacketCountsAsItsWireSegments) {
  // Ten 1448-byte segments and a 700-byte rest, as one 15,232-byte TCP buffer with
  // timestamps (a 32-byte TCP header).
  std::string l4 = tcp(40000, 5201, 0x18);
  l4[12] = char(0x80);
  l4 += std::string(12, '\0') + std::string(10 * 1448 + 700, 'p');
  const std::string frame = ether(0x0800, ipv4(6, l4));
  auto p = parse(frame, 128, GsoInfo{1448});
  ASSERT_EQ(p.result, ParseResult::ok);
  EXPECT_EQ(p.info.segments, 11u);
  EXPECT_EQ(p.info.octets, (20u + 32 + 15180) + 10 * (20 + 32));
  // A GRO buffer past 64 KiB has a zero IPv4 length: the frame's length counts.
  std::string zero = frame;
  zero[16] = zero[17] = 0;
  auto z = parse(zero, 128, GsoInfo{1448});
  ASSERT_EQ(z.result, ParseResult::ok);
  EXPECT_EQ(z.info.segments, 11u);
  // Without segmentation it is one packet of its own length.
  EXPECT_EQ(parse(frame, 128).info.segments, 1u);
}

}  // namespace
