// The UDP endpoint on loopback: what a receiver sees of source, port, payload and DSCP.

#include <gtest/gtest.h>

#include <net/if.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>

#include "platform/nelo/UdpPam.h"
#include "platform/zub/Exception.h"
#include "tests/support/Network.h"

namespace {

using namespace std::chrono_literals;
using TestSupport::UdpReceiver;

Zub::Ptr<Nelo::Pkt> packetOf(const std::string& bytes) {
  auto p = Nelo::globalPktManager().newPkt(bytes.size());
  std::memcpy(p->data(), bytes.data(), bytes.size());
  return p;
}

struct Family {
  bool v6;
  const char* src;   // a loopback source other than the default where the family has one
  const char* src2;  // a second source: the socket is bound to the first one by then
  const char* dst;
};

class UdpPamFamilyTest : public ::testing::TestWithParam<Family> {};

// Points the endpoint at the receiver, from `src`, with `dscp`.
void aim(Nelo::UdpPam& pam, const Family& f, const char* src, uint16_t port, uint8_t dscp) {
  if (f.v6) {
    pam.txSrcIp6AddrIs(Nelo::Ip6Addr(src));
    pam.txDstIp6AddrIs(Nelo::Ip6Addr(f.dst));
  } else {
    pam.txSrcIpAddrIs(Nelo::IpAddr(src));
    pam.txDstIpAddrIs(Nelo::IpAddr(f.dst));
  }
  pam.txPortIs(port);
  pam.txTosIs(dscp);
}

TEST_P(UdpPamFamilyTest, SourceDestinationPayloadAndDscpOnTheWireAlsoInBatches) {
  const Family f = GetParam();
  UdpReceiver rx(f.v6);
  Zub::Ptr<Nelo::UdpPam> pam(new Nelo::UdpPam("udpPam-test"));
  pam->ipv6EnIs(f.v6);
  pam->txPrioIs(2);
  EXPECT_EQ(pam->mode(), Nelo::UdpPam::modeOff);
  pam->modeIs(1);
  ASSERT_GE(pam->fd(), 0);

  struct Case {
    uint8_t dscp;
    std::string payload;
    bool second;
  };
  for (const Case& c :
       {Case{46, "first", false}, Case{0, "second", true}, Case{63, "third", false}}) {
    SCOPED_TRACE(int(c.dscp));
    const char* src = c.second ? f.src2 : f.src;
    aim(*pam, f, src, rx.port(), c.dscp);
    ASSERT_TRUE(pam->txPkt(packetOf(c.payload))) << pam->lastErrno();
    auto d = rx.receive(2000ms);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->payload, c.payload);
    EXPECT_EQ(d->src.stringValue(), src);
    EXPECT_EQ(d->dstPort, rx.port());
    EXPECT_EQ(d->tos, c.dscp << 2);  // DSCP in the upper six bits: 46 gives 0xb8
  }
  // A batch from the second source: 70 packets, more than one system call's worth, in
  // order.
  aim(*pam, f, f.src2, rx.port(), 10);
  std::vector<Zub::Ptr<Nelo::Pkt>> batch;
  for (int i = 0; i < 70; ++i) batch.push_back(packetOf("p" + std::to_string(i)));
  EXPECT_EQ(pam->txPktBatch(batch.data(), batch.size()), 70u);
  auto got = rx.drain(300ms);
  ASSERT_EQ(got.size(), 70u);
  for (int i = 0; i < 70; ++i) {
    EXPECT_EQ(got[i].payload, "p" + std::to_string(i));
    EXPECT_EQ(got[i].src.stringValue(), f.src2);
    EXPECT_EQ(got[i].tos, 10 << 2);
  }
  EXPECT_EQ(pam->txPkts(), 73u);
  pam->modeIs(0);
  EXPECT_EQ(pam->fd(), -1);
  EXPECT_FALSE(pam->txPkt(packetOf("late")));
  EXPECT_EQ(pam->txErrors(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Families, UdpPamFamilyTest,
                         ::testing::Values(Family{false, "127.0.0.2", "127.0.0.3", "127.0.0.1"},
                                           Family{true, "::1", "::1", "::1"}),
                         [](const auto& info) { return info.param.v6 ? "IPv6" : "IPv4"; });

TEST(UdpPam, SourceThatIsNotLocalIsRefusedNotFatal) {
  UdpReceiver rx(false);
  Zub::Ptr<Nelo::UdpPam> pam(new Nelo::UdpPam("udpPam4-nonlocal"));
  pam->modeIs(1);
  pam->txSrcIpAddrIs(Nelo::IpAddr("192.0.2.1"));  // not an address of this host
  pam->txDstIpAddrIs(Nelo::IpAddr("127.0.0.1"));
  pam->txPortIs(rx.port());
  EXPECT_FALSE(pam->txPkt(packetOf("x")));
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_FALSE(rx.receive(50ms));
}

TEST(UdpPam, ASocketBoundToADeviceSendsThroughItAndAMissingDeviceIsAnError) {
  UdpReceiver rx(false);
  Zub::Ptr<Nelo::UdpPam> pam(new Nelo::UdpPam("udpPam4-lo"));
  pam->bindDeviceIs("lo");
  pam->modeIs(1);
  char dev[IFNAMSIZ] = {};
  socklen_t len = sizeof dev;
  ASSERT_EQ(::getsockopt(pam->fd(), SOL_SOCKET, SO_BINDTODEVICE, dev, &len), 0);
  EXPECT_STREQ(dev, "lo");
  pam->txSrcIpAddrIs(Nelo::IpAddr("127.0.0.1"));
  pam->txDstIpAddrIs(Nelo::IpAddr("127.0.0.1"));
  pam->txPortIs(rx.port());
  EXPECT_TRUE(pam->txPkt(packetOf("via lo")));
  auto got = rx.receive(1s);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->payload, "via lo");

  Zub::Ptr<Nelo::UdpPam> gone(new Nelo::UdpPam("udpPam6-gone"));
  gone->ipv6EnIs(true);
  gone->bindDeviceIs("nosuchdev0");
  try {
    gone->modeIs(1);
    ADD_FAILURE() << "expected ErrnoException";
  } catch (const Zub::ErrnoException& e) {
    EXPECT_EQ(e.error(), ENODEV);
    EXPECT_NE(std::string(e.what()).find("SO_BINDTODEVICE nosuchdev0"), std::string::npos);
  }
  EXPECT_EQ(gone->mode(), Nelo::UdpPam::modeOff);
}

TEST(UdpPam, SystemCallFailureRaisesErrnoException) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "exhausting file descriptors also starves the sanitizer runtime";
#endif
  Zub::Ptr<Nelo::UdpPam> pam(new Nelo::UdpPam("udpPam4-bad"));
  // Exhausting descriptors is the portable way to make socket() fail.
  std::vector<int> fds;
  struct rlimit old;
  ::getrlimit(RLIMIT_NOFILE, &old);
  struct rlimit low = old;
  low.rlim_cur = 16;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  for (int i = 0; i < 32; ++i) {
    int fd = ::dup(0);
    if (fd < 0) break;
    fds.push_back(fd);
  }
  try {
    pam->modeIs(1);
    ADD_FAILURE() << "expected ErrnoException";
  } catch (const Zub::ErrnoException& e) {
    EXPECT_EQ(e.error(), EMFILE);
    EXPECT_NE(std::string(e.what()).find("socket for udpPam4-bad"), std::string::npos);
  }
  for (int fd : fds) ::close(fd);
  ::setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_EQ(pam->mode(), Nelo::UdpPam::modeOff);
}

}  // namespace
