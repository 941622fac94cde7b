// The software data path against the real kernel, in a network namespace this program
// makes before the tests run (skipped with the reason where it cannot): frames the test
// writes onto one end of a veth pair are sampled on the other end's ingress, one in one
// exactly and one in N within five standard deviations.

#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "datapath/PacketSocketSource.h"
#include "datapath/RouteLookup.h"
#include "tests/support/Bytes.h"
#include "tests/support/Decoders.h"
#include "tests/support/Namespace.h"

namespace {

using namespace std::chrono_literals;

std::string gSkip;

class DataPathE2e : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!gSkip.empty()) GTEST_SKIP() << "no network namespace: " << gSkip;
    ip("link add s0 type veth peer name s1");
    ip("link set s0 up");
    ip("link set s1 up");
    tx_ = ::socket(AF_PACKET, SOCK_RAW, 0);
    ASSERT_GE(tx_, 0);
    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_ifindex = static_cast<int>(::if_nametoindex("s0"));
    ASSERT_EQ(::bind(tx_, reinterpret_cast<sockaddr*>(&sll), sizeof sll), 0);
  }
  void TearDown() override {
    if (tx_ >= 0) ::close(tx_);
    if (gSkip.empty()) TestSupport::runCommand("ip link del s0");
  }
  static void ip(const std::string& args) {
    auto r = TestSupport::runCommand("ip " + args);
    ASSERT_EQ(r.status, 0) << "ip " << args << ": " << r.err;
  }
  // An IPv4 UDP frame from 192.0.2.1:`sport` to 198.51.100.2:53 with `payload` bytes.
  static std::string udpFrame(uint16_t sport, size_t payload) {
    auto be16 = [](size_t v) { return std::string{char(v >> 8), char(v & 0xFF)}; };
    std::string f = TestSupport::hexBytes("020000000002 020000000001 0800");
    f += TestSupport::hexBytes("45 00") + be16(28 + payload) +
         TestSupport::hexBytes("0001 0000 40 11 0000");
    f += TestSupport::hexBytes("c0000201 c6336402");
    f += be16(sport) + be16(53) + be16(8 + payload) + be16(0) + std::string(payload, 'x');
    return f;
  }
  void send(const std::string& frame) const {
    ASSERT_EQ(::send(tx_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
  }
  // Runs the loop until `done` or `bound` has passed.
  template <class F>
  void runUntil(F done, std::chrono::milliseconds bound = 3000ms) {
    for (int i = 0; i < bound / 10ms && !done(); ++i) sched.pollFds(10ms);
  }

  Orrin::TaskScheduler sched;
  int tx_ = -1;
};

TEST_F(DataPathE2e, OneInOneSamplesEveryReceivedFrameAndNothingSent) {
  std::vector<FlowTracking::PacketInfo> got;
  std::vector<uint32_t> wire;
  FlowTracking::PacketSocketSource::Options o;
  o.ifindex = ::if_nametoindex("s1");
  o.snapLen = 96;
  FlowTracking::PacketSocketSource src(sched, o, [&](const FlowTracking::Sample& s) {
    FlowTracking::PacketInfo info;
    EXPECT_EQ(s.ifindex, o.ifindex);
    EXPECT_LE(s.snapLen, 96u);
    wire.push_back(s.wireLen);
    if (FlowTracking::parsePacket(s.frame, s.snapLen, s.wireLen, s.gso, s.vlan, info) ==
        FlowTracking::ParseResult::ok) {
      got.push_back(info);
    }
  });
  std::string error;
  ASSERT_TRUE(src.start(&error)) << error;
  for (uint16_t i = 0; i < 50; ++i) send(udpFrame(1000 + i, 200));
  runUntil([&] { return got.size() >= 50; });
  ASSERT_EQ(got.size(), 50u);
  for (uint16_t i = 0; i < 50; ++i) {
    EXPECT_EQ(got[i].srcPort, 1000 + i);
    EXPECT_EQ(got[i].octets, 228u);
    EXPECT_EQ(wire[i], 242u);  // cut to the snap, the wire length stays
  }
  EXPECT_EQ(src.ringDrops(), 0u);
  // What leaves through s1 is not sampled there.
  const int out = ::socket(AF_PACKET, SOCK_RAW, 0);
  sockaddr_ll sll{};
  sll.sll_family = AF_PACKET;
  sll.sll_ifindex = static_cast<int>(o.ifindex);
  ASSERT_EQ(::bind(out, reinterpret_cast<sockaddr*>(&sll), sizeof sll), 0);
  const std::string f = udpFrame(7, 10);
  for (int i = 0; i < 10; ++i) ASSERT_GT(::send(out, f.data(), f.size(), 0), 0);
  ::close(out);
  send(udpFrame(9999, 1));  // a marker that does arrive
  runUntil([&] { return got.size() > 50; });
  ASSERT_EQ(got.size(), 51u);
  EXPECT_EQ(got.back().srcPort, 9999);
}

TEST_F(DataPathE2e, OneInAHundredIsWithinFiveStandardDeviations) {
  size_t samples = 0;
  FlowTracking::PacketSocketSource::Options o;
  o.ifindex = ::if_nametoindex("s1");
  o.sampleRate = 100;
  FlowTracking::PacketSocketSource src(sched, o, [&](const FlowTracking::Sample&) { ++samples; });
  std::string error;
  ASSERT_TRUE(src.start(&error)) << error;
  const int n = 20000;
  const std::string f = udpFrame(4242, 18);
  for (int i = 0; i < n; ++i) {
    send(f);
    if (i % 1000 == 0) sched.pollFds(0ms);
  }
  // Every block is handed over within its 20 ms timeout.
  runUntil([&] { return false; }, 300ms);
  const double mean = n / 100.0, sigma = std::sqrt(n * 0.01 * 0.99);
  EXPECT_NEAR(static_cast<double>(samples), mean, 5 * sigma) << samples << " samples";
  EXPECT_EQ(src.ringDrops(), 0u);
}

TEST_F(DataPathE2e, TheRouteOfAFlowIsAskedOnceAndKeptUntilRoutesChange) {
  ip("addr add 10.10.0.1/24 dev s0");
  ip("addr add 10.20.0.1/24 dev s1");
  ip("route add 10.30.0.0/24 via 10.20.0.2 dev s1");
  ASSERT_EQ(TestSupport::runCommand("sysctl -qw net.ipv4.ip_forward=1").status, 0);
  std::vector<std::pair<uint16_t, uint32_t>> answers;
  FlowTracking::RouteLookup routes(sched, [&](const FlowTracking::FlowKey& k, uint32_t oif) {
    answers.emplace_back(k.srcPort, oif);
  });
  std::string error;
  ASSERT_TRUE(routes.start(&error)) << error;
  FlowTracking::FlowKey k;
  k.ipVersion = 4;
  k.protocol = 17;
  k.src = {10, 10, 0, 9};
  k.dst = {10, 30, 0, 5};
  k.ingressIf = ::if_nametoindex("s0");
  k.srcPort = 1;
  EXPECT_EQ(routes.egress(k), 0u);  // not known yet: asked
  k.srcPort = 2;
  EXPECT_EQ(routes.egress(k), 0u);  // the same destination: waits for the same answer
  EXPECT_EQ(routes.pending(), 1u);
  runUntil([&] { return answers.size() == 2; });
  const uint32_t s1 = ::if_nametoindex("s1");
  EXPECT_EQ(answers, (std::vector<std::pair<uint16_t, uint32_t>>{{1, s1}, {2, s1}}));
  EXPECT_EQ(routes.egress(k), s1);  // kept
  // A local destination has no egress.
  FlowTracking::FlowKey local = k;
  local.dst = {10, 20, 0, 1};
  routes.egress(local);
  runUntil([&] { return answers.size() == 3; });
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(answers.back().second, 0u);
  // A route changes: what was kept is forgotten and asked again.
  ip("route replace 10.30.0.0/24 via 10.10.0.2 dev s0");
  runUntil([&] { return routes.cached() == 0; });
  EXPECT_EQ(routes.egress(k), 0u);
  runUntil([&] { return answers.size() == 4; });
  ASSERT_EQ(answers.size(), 4u);
  EXPECT_EQ(answers.back().second, ::if_nametoindex("s0"));
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gSkip = TestSupport::enterNetworkNamespace(false);
  return RUN_ALL_TESTS();
}
