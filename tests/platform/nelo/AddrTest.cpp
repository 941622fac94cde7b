// Address parsing and printing, interface kinds.

#include <gtest/gtest.h>

#include "platform/nelo/Addr.h"
#include "platform/nelo/IntfId.h"

namespace {

using namespace Nelo;

TEST(Addr, ParsePrintAndClassify) {
  EXPECT_EQ(IpAddr("10.1.2.3").value(), 0x0a010203u);
  EXPECT_EQ(IpAddr::fromHost(0x7f000001).stringValue(), "127.0.0.1");
  EXPECT_FALSE(IpAddr::parse("10.1.2"));
  EXPECT_FALSE(IpAddr::parse("10.1.2.3 "));
  EXPECT_THROW(IpAddr("::1"), Zub::RangeException);
  EXPECT_TRUE(IpAddr("224.0.0.1").isMulticast());
  EXPECT_TRUE(IpAddr("239.255.255.255").isMulticast());
  EXPECT_FALSE(IpAddr("240.0.0.1").isMulticast());
  EXPECT_TRUE(IpAddr("255.255.255.255").isBroadcast());
  EXPECT_LT(IpAddr("9.255.255.255"), IpAddr("10.0.0.0"));

  EXPECT_EQ(Ip6Addr("2001:db8:0:0:0:0:0:1").stringValue(), "2001:db8::1");
  EXPECT_TRUE(Ip6Addr("fe80::1").isLinkLocal());
  EXPECT_TRUE(Ip6Addr("febf::1").isLinkLocal());
  EXPECT_FALSE(Ip6Addr("fec0::1").isLinkLocal());
  EXPECT_TRUE(Ip6Addr("ff02::1").isAllNodes());
  EXPECT_TRUE(Ip6Addr("ff05::2").isMulticast());
  EXPECT_TRUE(Ip6Addr("::").isZero());
  EXPECT_TRUE(Ip6Addr("::1").isLoopback());
  EXPECT_FALSE(Ip6Addr::parse("1.2.3.4"));

  EXPECT_EQ((IpAndPort{IpAddr("10.0.0.1"), 4739}).stringValue(), "10.0.0.1:4739");
  EXPECT_EQ((Ip6AndPort{Ip6Addr("2001:db8::1"), 4739}).stringValue(), "[2001:db8::1]:4739");
  EXPECT_EQ(IpGenAddr(Ip6Addr("::1")).stringValue(), "::1");
  EXPECT_EQ(IpGenAddr(IpAddr("1.2.3.4")).ipAddr(), IpAddr("1.2.3.4"));
  EXPECT_NE(IpGenAddr(IpAddr("0.0.0.0")), IpGenAddr());
  EXPECT_EQ(IpAddrWithMask::parse("10.1.2.3/24")->stringValue(), "10.1.2.3/24");
  EXPECT_FALSE(IpAddrWithMask::parse("10.1.2.3/33"));
  EXPECT_EQ(Ip6AddrWithMask::parse("2001:db8::1/64")->len, 64);
  EXPECT_FALSE(Ip6AddrWithMask::parse("2001:db8::1/129"));
}

TEST(Addr, HostAndPortText) {
  struct Case {
    const char* text;
    const char* host;
    int port;  // -1: refused
  };
  const Case cases[] = {
      {"collector.example:4739", "collector.example", 4739},
      {"10.0.0.1:2055", "10.0.0.1", 2055},
      {"[2001:db8::5]:4739", "2001:db8::5", 4739},
      {"2001:db8::5:4739", "", -1},  // IPv6 literals need brackets
      {"[nothost]:4739", "", -1},
      {"host:", "", -1},
      {"host:65536", "", -1},
      {":4739", "", -1},
      {"host", "", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    auto hp = HostAndPort::parse(c.text);
    if (c.port < 0) {
      EXPECT_FALSE(hp);
      continue;
    }
    ASSERT_TRUE(hp);
    EXPECT_EQ(hp->host, c.host);
    EXPECT_EQ(hp->port, c.port);
    EXPECT_EQ(hp->stringValue(), c.text);
  }
}

TEST(IntfId, Kinds) {
  for (const char* eth : {"Ethernet1", "Ethernet3/1", "Ethernet3/1/4", "Ethernet10"}) {
    EXPECT_TRUE(EthIntfId::isEthIntfId(IntfId(eth))) << eth;
    EXPECT_FALSE(PortChannelIntfId::isPortChannelIntfId(IntfId(eth))) << eth;
  }
  for (const char* other : {"Ethernet", "Ethernet1/", "Ethernet1/2/3/4", "Ethernet1a", "ethernet1",
                            "Vlan100", "Loopback0", "Management1"}) {
    EXPECT_FALSE(EthIntfId::isEthIntfId(IntfId(other))) << other;
  }
  EXPECT_TRUE(PortChannelIntfId::isPortChannelIntfId(IntfId("Port-Channel10")));
  EXPECT_FALSE(PortChannelIntfId::isPortChannelIntfId(IntfId("Port-Channel10/1")));
  EXPECT_FALSE(PortChannelIntfId::isPortChannelIntfId(IntfId("Port-Channel")));
}

}  // namespace
