// The software data path against the real kernel, in a network namespace this program
// makes before the tests run (skipped with the reason where it cannot): frames the test
// writes onto one end of a veth pair are sampled on the other end's ingress, one in one
// exactly and one in N within five standard deviations.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "datapath/PacketSocketSource.h"
#include "datapath/RouteLookup.h"
#include "tests/support/Bytes.h"
#include "tests/support/Daemon.h"
#include "tests/support/Decoders.h"
#include "tests/support/Namespace.h"
#include "tests/support/Network.h"

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

// A network namespace beside the test's, held by a child process that waits in it; gone
// with the object.
class PeerNamespace {
 public:
  PeerNamespace() {
    int ready[2];
    if (::pipe(ready) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      const char ok = ::unshare(CLONE_NEWNET) == 0 ? 'y' : 'n';
      if (::write(ready[1], &ok, 1) != 1) ::_exit(1);
      ::sleep(120);  // bounded: the test kills it long before
      ::_exit(0);
    }
    char ok = 'n';
    if (pid_ < 0 || ::read(ready[0], &ok, 1) != 1 || ok != 'y') pid_ = -1;
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~PeerNamespace() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  bool ok() const { return pid_ > 0; }
  std::string path() const { return "/proc/" + std::to_string(pid_) + "/ns/net"; }
  pid_t pid() const { return pid_; }
  void run(const std::string& command) const {
    auto r = TestSupport::runCommand("nsenter --net=" + path() + " " + command);
    ASSERT_EQ(r.status, 0) << command << ": " << r.err;
  }
  // A socket that lives in this namespace.
  int socket(int domain, int type) const {
    const int self = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int ns = ::open(path().c_str(), O_RDONLY | O_CLOEXEC);
    int s = -1;
    if (self >= 0 && ns >= 0 && ::setns(ns, CLONE_NEWNET) == 0) {
      s = ::socket(domain, type, 0);
      ::setns(self, CLONE_NEWNET);
    }
    if (self >= 0) ::close(self);
    if (ns >= 0) ::close(ns);
    return s;
  }

 private:
  pid_t pid_ = -1;
};

// flowexportd tracks r1, the link from namespace a: UDP flows from a to b through this
// namespace reach the collector on its loopback as records of template 261, with the
// ingress and egress interfaces' kernel indexes, ToS, ports and exact totals at one in one;
// idle flows end with reason 1, flows still open when the daemon stops with reason 4, and
// the sequence numbers run on through options data and records alike (tshark checks).
TEST_F(DataPathE2e, TheDaemonExportsTheFlowsOfATrackedLink) {
  PeerNamespace a, b;
  ASSERT_TRUE(a.ok() && b.ok());
  ip("link add r1 type veth peer name a1");
  ip("link add r2 type veth peer name b1");
  ip("link set a1 netns " + std::to_string(a.pid()));
  ip("link set b1 netns " + std::to_string(b.pid()));
  ip("addr add 198.18.1.1/24 dev r1");
  ip("addr add 198.18.2.1/24 dev r2");
  ip("link set r1 up");
  ip("link set r2 up");
  ASSERT_EQ(TestSupport::runCommand("sysctl -qw net.ipv4.ip_forward=1").status, 0);
  a.run("ip addr add 198.18.1.2/24 dev a1");
  a.run("ip link set a1 up");
  a.run("ip route add default via 198.18.1.1");
  b.run("ip addr add 198.18.2.2/24 dev b1");
  b.run("ip link set b1 up");
  b.run("ip route add default via 198.18.2.1");

  TestSupport::UdpReceiver rx(false);
  TestSupport::TempDir dir;
  const std::string file = dir.file("flowexport.yaml");
  std::ofstream(file) << "flow-tracking:\n  enabled: true\n  sample-rate: 1024\n"
                      << "  interfaces: {Ethernet1: t}\n  trackers:\n    - name: t\n"
                      << "      inactive-timeout: 3\n      active-interval: 60\n"
                      << "      exporters:\n        - name: e\n          local-interface: lo\n"
                      << "          template-interval: 3600\n          collectors: [\"127.0.0.1:"
                      << rx.port() << "\"]\n"
                      << "platform:\n  source: kernel\n  names: {r1: Ethernet1, r2: Ethernet2}\n";
  TestSupport::Daemon daemon(
      FLOWEXPORTD,
      {"--config", file, "--stats-name", "/flowexport-e2e-datapath-" + std::to_string(::getpid()),
       "--control-socket", dir.file("control.sock"), "--log", "stderr", "--test-sample-rate", "1"},
      dir.file("daemon.log"));
  ASSERT_TRUE(daemon.waitForLog("FLOWTRACKING_SAMPLING: Sampling interface Ethernet1", 5s))
      << daemon.log();
  std::vector<TestSupport::Datagram> all;
  for (const auto& d : rx.drain(300ms)) all.push_back(d);  // templates and tables

  const int tx = a.socket(AF_INET, SOCK_DGRAM);
  ASSERT_GE(tx, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(5001);
  to.sin_addr.s_addr = htonl(0xC6120202);  // 198.18.2.2
  auto sendFrom = [&](uint16_t port, int tos, int count) {
    const int s = a.socket(AF_INET, SOCK_DGRAM);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_port = htons(port);
    ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&from), sizeof from), 0);
    ::setsockopt(s, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
    const std::string payload(100, 'p');
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(::sendto(s, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to),
                         sizeof to),
                100);
    }
    ::close(s);
  };
  ::close(tx);
  sendFrom(1001, 0x20, 10);
  sendFrom(1002, 0, 7);
  sendFrom(1003, 0, 3);
  // Idle after 3 s; the records come with the next tick.
  for (int i = 0; i < 60 && all.size() < 100; ++i) {
    if (auto d = rx.receive(100ms)) all.push_back(*d);
    if (i == 45) break;
  }
  sendFrom(1004, 0, 2);  // still open when the daemon stops
  std::this_thread::sleep_for(200ms);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait(), 0) << daemon.log();
  for (const auto& d : rx.drain(300ms)) all.push_back(d);

  auto fields = TestSupport::tsharkFields(
      all, {"cflow.srcport", "cflow.dstport", "cflow.inputint", "cflow.outputint", "cflow.packets",
            "cflow.octets", "cflow.protocol", "cflow.tos", "cflow.flow_end_reason"});
  ASSERT_EQ(fields.status, 0) << fields.err;
  // One line per datagram, each field's values joined by ';' (options data lines have
  // empty flow fields).
  std::map<std::string, std::string> byPort;
  std::istringstream lines(fields.out);
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::vector<std::string>> cols;
    std::istringstream cs(line);
    for (std::string c; std::getline(cs, c, ',');) {
      std::vector<std::string> v;
      std::istringstream vs(c);
      for (std::string x; std::getline(vs, x, ';');) v.push_back(x);
      cols.push_back(v);
    }
    if (cols.empty()) continue;
    for (size_t r = 0; r < cols[0].size(); ++r) {
      std::string rec;
      for (size_t f = 1; f < cols.size(); ++f) {
        rec += (f > 1 ? " " : "") + (r < cols[f].size() ? cols[f][r] : std::string("?"));
      }
      byPort[cols[0][r]] = rec;
    }
  }
  const std::string r1 = std::to_string(::if_nametoindex("r1"));
  const std::string r2 = std::to_string(::if_nametoindex("r2"));
  EXPECT_EQ(byPort["1001"], "5001 " + r1 + " " + r2 + " 10 1280 17 0x20 1") << fields.out;
  EXPECT_EQ(byPort["1002"], "5001 " + r1 + " " + r2 + " 7 896 17 0x00 1");
  EXPECT_EQ(byPort["1003"], "5001 " + r1 + " " + r2 + " 3 384 17 0x00 1");
  EXPECT_EQ(byPort["1004"], "5001 " + r1 + " " + r2 + " 2 256 17 0x00 4");
  // tshark follows each collector's sequence numbers and names any gap.
  auto seq = TestSupport::tsharkFields(all, {"cflow.sequence_analysis.expected_sn"});
  EXPECT_EQ(seq.out.find_first_not_of("\n"), std::string::npos) << seq.out;
  auto gap = all;
  gap.erase(gap.begin() + 2);  // a message lost on the way
  seq = TestSupport::tsharkFields(gap, {"cflow.sequence_analysis.expected_sn"});
  EXPECT_NE(seq.out.find_first_not_of("\n"), std::string::npos) << "tshark sees no gap";
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gSkip = TestSupport::enterNetworkNamespace(false);
  return RUN_ALL_TESTS();
}
