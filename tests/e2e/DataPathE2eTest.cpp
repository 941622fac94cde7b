// The software data path against the real kernel, in a network namespace this program
// makes before the tests run (skipped with the reason where it cannot): route look-ups,
// and flowexportd routing between two more namespaces, sampling one in one exactly (and
// only what arrives) and one in N within five standard deviations, its records decoded
// by tshark and ipfixDump.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "datapath/RouteLookup.h"
#include "tests/support/Collectors.h"
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
  }
  void TearDown() override {
    if (gSkip.empty()) TestSupport::runCommand("ip link del s0");
  }
  static void ip(const std::string& args) {
    auto r = TestSupport::runCommand("ip " + args);
    ASSERT_EQ(r.status, 0) << "ip " << args << ": " << r.err;
  }
  // Runs the loop until `done` or `bound` has passed.
  template <class F>
  void runUntil(F done, std::chrono::milliseconds bound = 3000ms) {
    for (int i = 0; i < bound / 10ms && !done(); ++i) sched.pollFds(10ms);
  }

  Orrin::TaskScheduler sched;
};

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

// Namespaces a and b on either side of this one, which routes between them (IPv4 and
// IPv6); flowexportd here tracks r1, the link from a, and exports to a collector on this
// namespace's loopback.
class RoutedDataPath : public DataPathE2e {
 protected:
  TestSupport::PeerNamespace a, b;
  TestSupport::UdpReceiver rx{false};
  TestSupport::DaemonRig rig{"e2e-datapath"};
  std::unique_ptr<TestSupport::Daemon> daemon;
  std::vector<TestSupport::Datagram> all;  // what the collector received
  std::string bound = "Ethernet1";         // the interface tracker t samples
  std::string localInterface = "lo";       // its exporter's; "" for none

  void SetUp() override {
    DataPathE2e::SetUp();
    if (IsSkipped()) return;
    ASSERT_TRUE(a.ok() && b.ok());
    ip("link add r1 type veth peer name a1");
    ip("link add r2 type veth peer name b1");
    ip("link set a1 netns " + std::to_string(a.pid()));
    ip("link set b1 netns " + std::to_string(b.pid()));
    ip("addr add 198.18.1.1/24 dev r1");
    ip("addr add 198.18.2.1/24 dev r2");
    ip("addr add 2001:db8:1::1/64 dev r1 nodad");
    ip("addr add 2001:db8:2::1/64 dev r2 nodad");
    ip("link set r1 up");
    ip("link set r2 up");
    ASSERT_EQ(TestSupport::runCommand("sysctl -qw net.ipv4.ip_forward=1").status, 0);
    ASSERT_EQ(TestSupport::runCommand("sysctl -qw net.ipv6.conf.all.forwarding=1").status, 0);
    for (const auto& [ns, link, net] : {std::tuple{&a, "a1", "1"}, std::tuple{&b, "b1", "2"}}) {
      ns->run(std::string("ip addr add 198.18.") + net + ".2/24 dev " + link);
      ns->run(std::string("ip addr add 2001:db8:") + net + "::2/64 dev " + link + " nodad");
      ns->run(std::string("ip link set ") + link + " up");
      ns->run("ip link set lo up");
      ns->run(std::string("ip route add default via 198.18.") + net + ".1");
      ns->run(std::string("ip -6 route add default via 2001:db8:") + net + "::1");
    }
  }
  void TearDown() override {
    // Stopped as a service is, so that it removes its statistics table on the way out.
    if (daemon && daemon->running()) {
      daemon->signal(SIGTERM);
      daemon->wait();
    }
    daemon.reset();
    if (gSkip.empty()) {
      TestSupport::runCommand("ip link del r1");
      TestSupport::runCommand("ip link del r2");
    }
    DataPathE2e::TearDown();
  }
  // The daemon's file: tracker t on Ethernet1 (r1), or (`inactive` 0) no tracker at all;
  // `collectors` (YAML list items) instead of the test's receiver, `extra` lines of the
  // flow-tracking section.
  void writeConfig(int inactive, int active, std::string collectors = "",
                   const std::string& extra = "", const std::string& rate = "1") {
    if (collectors.empty()) collectors = "\"127.0.0.1:" + std::to_string(rx.port()) + "\"";
    std::string text = "flow-tracking:\n  enabled: true\n  sample-rate: " + rate + "\n" + extra;
    if (inactive == 0) {
      text += "  trackers: []\n";
    } else {
      text +=
          "  interfaces: {" + bound + ": t}\n  trackers:\n    - name: t\n" +
          Zub::str("      inactive-timeout: ", inactive, "\n      active-interval: ", active,
                   "\n") +
          "      exporters:\n        - name: e\n" +
          (localInterface.empty() ? "" : "          local-interface: " + localInterface + "\n") +
          "          template-interval: 3600\n          collectors: [" + collectors + "]\n";
    }
    rig.write(text + "platform:\n  source: kernel\n  names: {r1: Ethernet1, r2: Ethernet2}\n");
  }
  void startDaemon(const char* rate, int inactive = 3, int active = 60,
                   const std::string& collectors = "", const std::string& extra = "") {
    writeConfig(inactive, active, collectors, extra, rate);
    daemon = rig.start();
    ASSERT_TRUE(daemon->waitForLog("FLOWTRACKING_SAMPLING: Sampling interface " + bound, 5s))
        << daemon->log();
    collect(300ms);  // templates and tables
  }
  std::string ctl(const std::string& args) {
    auto r = rig.ctl(args);
    EXPECT_EQ(r.status, 0) << args << ": " << r.err;
    return r.out;
  }
  void collect(std::chrono::milliseconds quiet) {
    for (const auto& d : rx.drain(quiet)) all.push_back(d);
  }
  // Receives for exactly `period`.
  void collectFor(std::chrono::milliseconds period) {
    const auto end = std::chrono::steady_clock::now() + period;
    for (auto now = std::chrono::steady_clock::now(); now < end;
         now = std::chrono::steady_clock::now()) {
      if (auto d = rx.receive(std::chrono::duration_cast<std::chrono::milliseconds>(end - now))) {
        all.push_back(*d);
      }
    }
  }
  // `count` UDP datagrams of 100 bytes from a's `port` to b's 5001, with `tos` (with
  // `back`, IPv4 from b to a: in through r2, out through r1).
  void sendFrom(uint16_t port, int tos, int count, bool v6 = false, bool back = false) {
    const int s = (back ? b : a).socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM);
    ASSERT_GE(s, 0);
    sockaddr_storage from{}, to{};
    socklen_t len;
    if (v6) {
      auto* f = reinterpret_cast<sockaddr_in6*>(&from);
      auto* t = reinterpret_cast<sockaddr_in6*>(&to);
      f->sin6_family = t->sin6_family = AF_INET6;
      f->sin6_port = htons(port);
      t->sin6_port = htons(5001);
      ::inet_pton(AF_INET6, "2001:db8:2::2", &t->sin6_addr);
      ::setsockopt(s, IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof tos);
      len = sizeof(sockaddr_in6);
    } else {
      auto* f = reinterpret_cast<sockaddr_in*>(&from);
      auto* t = reinterpret_cast<sockaddr_in*>(&to);
      f->sin_family = t->sin_family = AF_INET;
      f->sin_port = htons(port);
      t->sin_port = htons(5001);
      t->sin_addr.s_addr = htonl(back ? 0xC6120102 : 0xC6120202);  // 198.18.1.2, 198.18.2.2
      ::setsockopt(s, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
      len = sizeof(sockaddr_in);
    }
    ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&from), len), 0);
    const std::string payload(100, 'p');
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(
          ::sendto(s, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), len),
          100);
    }
    ::close(s);
  }
  // The flow records received, by source port: "dstport in out packets octets protocol
  // tos reason" as tshark decodes them, and (with `addrs`) the source address first.
  std::multimap<std::string, std::string> records(bool addrs = false) {
    const auto rows = TestSupport::tsharkTable(
        all, {"cflow.srcport", "cflow.srcaddr", "cflow.srcaddrv6", "cflow.dstport",
              "cflow.inputint", "cflow.outputint", "cflow.packets", "cflow.octets",
              "cflow.protocol", "cflow.tos", "cflow.flow_end_reason"});
    std::multimap<std::string, std::string> out;
    for (const auto& cols : rows) {
      if (cols.size() < 11 || cols[10].empty()) continue;  // no flow records in it
      // IPv4 and IPv6 records may share a message: their addresses come in two columns.
      size_t v4 = 0, v6 = 0;
      for (size_t r = 0; r < cols[0].size(); ++r) {
        std::string rec;
        if (addrs) {
          const bool isV6 = v6 < cols[2].size() && (v4 >= cols[1].size());
          rec = (isV6 ? cols[2][v6++] : cols[1][v4++]) + " ";
        }
        for (size_t f = 3; f < cols.size(); ++f) {
          rec += (f > 3 ? " " : "") + (r < cols[f].size() ? cols[f][r] : std::string("?"));
        }
        out.emplace(cols[0][r], rec);
      }
    }
    return out;
  }
};

// At one in one: a record per 5-tuple with the ingress and egress interfaces' kernel
// indexes, ToS, ports and exact totals; idle flows end with reason 1, a flow longer than
// the active interval with reason 2, flows still open when the daemon stops with reason
// 4; IPv6 flows as records of template 262; sequence numbers run on through options data
// and records alike (tshark follows them); ipfixDump decodes the same records.
TEST_F(RoutedDataPath, OneInOneGivesExactRecordsWithTheirEndReasons) {
  startDaemon("1", 3, 5);
  sendFrom(1001, 0x20, 10);
  sendFrom(1002, 0, 7);
  sendFrom(1003, 0, 3);
  sendFrom(1010, 0x28, 5, true);
  // 1005 sends every second: its first record ends at the active interval (5 s).
  for (int second = 0; second < 7; ++second) {
    sendFrom(1005, 0, 1);
    collectFor(1000ms);
  }
  sendFrom(1004, 0, 2);               // still open when the daemon stops
  sendFrom(3000, 0, 3, false, true);  // leaves through r1: not sampled there
  std::this_thread::sleep_for(200ms);
  // The statistics tell flow records from options data: data records and their time.
  const std::string json = ctl("show collectors --json");
  EXPECT_EQ(json.find("\"lastDataRecordSent\": 0.000"), std::string::npos) << json;
  EXPECT_NE(json.find("\"recordsByKind\": {\"flowData\": "), std::string::npos) << json;
  EXPECT_EQ(json.find("\"recordsByKind\": {\"flowData\": 0,"), std::string::npos) << json;
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 0) << daemon->log();
  collect(300ms);

  const auto got = records();
  const std::string r1 = std::to_string(::if_nametoindex("r1"));
  const std::string r2 = std::to_string(::if_nametoindex("r2"));
  const std::string path = "5001 " + r1 + " " + r2 + " ";
  auto one = [&](const char* port) {
    EXPECT_EQ(got.count(port), 1u) << port;
    auto it = got.find(port);
    return it == got.end() ? std::string() : it->second;
  };
  EXPECT_EQ(one("1001"), path + "10 1280 17 0x20 1");
  EXPECT_EQ(one("1002"), path + "7 896 17 0x00 1");
  EXPECT_EQ(one("1003"), path + "3 384 17 0x00 1");
  EXPECT_EQ(one("1010"), path + "5 740 17 0x28 1");  // IPv6: 40 + 8 + 100 bytes
  EXPECT_EQ(one("1004"), path + "2 256 17 0x00 4");
  EXPECT_EQ(got.count("3000"), 0u) << "a frame that left through the tracked link was sampled";
  auto longFlow = got.equal_range("1005");
  ASSERT_EQ(std::distance(longFlow.first, longFlow.second), 2) << daemon->log();
  const std::string firstEnd = longFlow.first->second;
  EXPECT_EQ(firstEnd.substr(firstEnd.size() - 2), " 2") << firstEnd;  // active timeout
  const std::string secondEnd = std::next(longFlow.first)->second;
  EXPECT_EQ(secondEnd.substr(secondEnd.size() - 2), " 4") << secondEnd;
  const auto withAddrs = records(true);
  EXPECT_EQ(withAddrs.find("1010")->second.substr(0, 13), "2001:db8:1::2");
  EXPECT_EQ(withAddrs.find("1001")->second.substr(0, 11), "198.18.1.2 ");

  // libfixbuf's decoder reads the same records.
  auto dump = TestSupport::ipfixDumpDecode(all);
  ASSERT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.err, "");
  const auto dumped = TestSupport::ipfixDumpRecords(dump.out, {261, 262});
  // The test's flows (the kernel's own ICMPv6 on the new links is sampled too).
  std::map<std::string, std::map<std::string, std::string>> byPort;
  size_t ours = 0;
  for (const auto& rec : dumped) {
    auto port = rec.find("destinationTransportPort");
    if (port == rec.end() || port->second != "5001") continue;
    ++ours;
    byPort[rec.at("sourceTransportPort")] = rec;
  }
  EXPECT_EQ(ours, 7u) << dump.out;
  const std::map<std::string, std::string> held = {
      {"sourceTransportPort", "1004"},    {"destinationTransportPort", "5001"},
      {"ingressInterface", r1},           {"egressInterface", r2},
      {"protocolIdentifier", "17"},       {"packetDeltaCount", "2"},
      {"octetDeltaCount", "256"},         {"flowEndReason", "4"},
      {"sourceIPv4Address", "198.18.1.2"}};
  for (const auto& [name, value] : held) EXPECT_EQ(byPort["1004"][name], value) << name;
  EXPECT_EQ(byPort["1010"]["sourceIPv6Address"], "2001:0db8:0001::0002");
  EXPECT_EQ(byPort["1010"]["ipClassOfService"], "40");

  auto seq = TestSupport::tsharkFields(all, {"cflow.sequence_analysis.expected_sn"});
  EXPECT_EQ(seq.out.find_first_not_of("\n"), std::string::npos) << seq.out;
  auto gap = all;
  gap.erase(gap.begin() + 2);  // a message lost on the way
  seq = TestSupport::tsharkFields(gap, {"cflow.sequence_analysis.expected_sn"});
  EXPECT_NE(seq.out.find_first_not_of("\n"), std::string::npos) << "tshark sees no gap";
}

// A link tracked by its kernel name, which does not exist when the daemon starts: a
// warning, then, once the link is created and up, its packets are sampled, and the
// interface table names it as the kernel does.
TEST_F(RoutedDataPath, ALinkTrackedByItsKernelNameIsSampledOnceItAppears) {
  bound = "uplink-7";
  writeConfig(3, 60);
  daemon = rig.start();
  ASSERT_TRUE(
      daemon->waitForLog("FLOWEXPORT_INTERFACE_MISSING: Interface uplink-7 is tracked by "
                         "flow tracker t but does not exist; sampling starts when it "
                         "appears.",
                         5s))
      << daemon->log();
  ip("link add uplink-7 type veth peer name a2");
  ip("link set a2 netns " + std::to_string(a.pid()));
  ip("addr add 198.18.3.1/24 dev uplink-7");
  ip("link set uplink-7 up");
  a.run("ip addr add 198.18.3.2/24 dev a2");
  a.run("ip link set a2 up");
  a.run("ip route add 198.18.2.0/24 via 198.18.3.1");
  EXPECT_TRUE(daemon->waitForLog("FLOWEXPORT_INTERFACE_APPEARED: Interface uplink-7", 5s));
  ASSERT_TRUE(daemon->waitForLog("FLOWTRACKING_SAMPLING: Sampling interface uplink-7", 5s))
      << daemon->log();
  sendFrom(1100, 0, 5);
  collect(4500ms);  // idle after 3 s
  const auto got = records();
  ASSERT_EQ(got.count("1100"), 1u) << daemon->log();
  EXPECT_EQ(got.find("1100")->second, "5001 " + std::to_string(::if_nametoindex("uplink-7")) + " " +
                                          std::to_string(::if_nametoindex("r2")) +
                                          " 5 640 17 0x00 1");
  EXPECT_NE(TestSupport::tsharkFields(all, {"cflow.if_name"}).out.find("uplink-7"),
            std::string::npos);
  ip("link del uplink-7");
}

// An exporter without a local interface: the kernel's route to the collector picks the
// link and the source address, and a route the test changes moves both. The collector's
// address lives in b, then in a, reached through routes this namespace is given.
TEST_F(RoutedDataPath, WithoutALocalInterfaceTheRoutePicksTheSource) {
  b.run("ip addr add 203.0.113.9/32 dev lo");
  ip("route add 203.0.113.9/32 via 198.18.2.2");
  localInterface = "";
  auto listen = [](const TestSupport::PeerNamespace& ns) {
    const int fd = ns.socket(AF_INET, SOCK_DGRAM);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(4739);
    at.sin_addr.s_addr = htonl(0xCB007109);  // 203.0.113.9
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    timeval wait{0, 200000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    return fd;
  };
  // The source of the first datagram within 6 s, "" for none.
  auto sourceOf = [](int fd) {
    char buf[9216];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    for (int i = 0; i < 30; ++i) {
      if (::recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len) > 0) {
        char text[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
        return std::string(text);
      }
    }
    return std::string();
  };
  const int inB = listen(b);
  startDaemon("1", 3, 60, "\"203.0.113.9:4739\"");
  EXPECT_EQ(sourceOf(inB), "198.18.2.1") << daemon->log();
  // The collector moves to a; the route follows it, and so does the exporter.
  b.run("ip addr del 203.0.113.9/32 dev lo");
  a.run("ip addr add 203.0.113.9/32 dev lo");
  const int inA = listen(a);
  ip("route replace 203.0.113.9/32 via 198.18.1.2");
  sendFrom(1200, 0, 3);  // a flow whose record goes out when idle (3 s)
  EXPECT_EQ(sourceOf(inA), "198.18.1.1") << daemon->log();
  ::close(inA);
  ::close(inB);
}

// What flowexportctl shows of a running daemon: the test's flow with its interfaces and
// counters, the tracker with its interface's kernel name, an exporter whose collector
// name does not resolve, the sampled interface; JSON with its schema version, and each
// view's Prometheus form as promtool reads it (where the setup could fetch promtool).
TEST_F(RoutedDataPath, TheViewsShowFlowsTrackersExportersAndInterfaces) {
  startDaemon("1", 30, 60,
              "\"127.0.0.1:" + std::to_string(rx.port()) + "\", \"flowexport-test.invalid:4739\"");
  sendFrom(1400, 0, 7);
  std::this_thread::sleep_for(300ms);
  const std::string r1 = std::to_string(::if_nametoindex("r1"));
  const std::string r2 = std::to_string(::if_nametoindex("r2"));
  const std::string flows = ctl("show flows --json");
  EXPECT_EQ(flows.rfind("{\"schemaVersion\": 1, ", 0), 0u) << flows;
  EXPECT_NE(flows.find("{\"tracker\": \"t\", \"ipVersion\": 4, \"src\": \"198.18.1.2\", \"dst\": "
                       "\"198.18.2.2\", \"protocol\": 17, \"srcPort\": 1400, \"dstPort\": 5001, "
                       "\"ingress\": {\"index\": " +
                       r1 + ", \"name\": \"Ethernet1\"}, \"egress\": {\"index\": " + r2 +
                       ", \"name\": \"Ethernet2\"}, \"vrfId\": 0, \"packets\": 7, \"bytes\": 896"),
            std::string::npos)
      << flows;
  const std::string table = ctl("show flows --sort packets --top 5");
  EXPECT_NE(table.find("198.18.1.2"), std::string::npos) << table;
  EXPECT_NE(table.find("Ethernet1"), std::string::npos) << table;
  const std::string trackers = ctl("show trackers --json");
  EXPECT_NE(trackers.find("{\"name\": \"t\", \"observationDomainId\": 1, \"sampleRate\": 1, "
                          "\"activeIntervalSeconds\": 60, \"inactiveTimeoutSeconds\": 30, "),
            std::string::npos)
      << trackers;
  EXPECT_NE(trackers.find("{\"name\": \"Ethernet1\", \"kernelName\": \"r1\", \"state\": "
                          "\"sampling\"}"),
            std::string::npos)
      << trackers;
  EXPECT_NE(ctl("show trackers").find("Ethernet1 (r1) sampling"), std::string::npos);
  const std::string exporters = ctl("show exporters --json");
  EXPECT_NE(exporters.find("{\"name\": \"flowexport-test.invalid\", \"address\": null, "
                           "\"state\": \"does not resolve (yet)\"}"),
            std::string::npos)
      << exporters;
  EXPECT_NE(exporters.find("\"address\": \"127.0.0.1:" + std::to_string(rx.port()) +
                           "\", \"state\": \"active\""),
            std::string::npos)
      << exporters;
  EXPECT_NE(exporters.find("\"families\": {\"ipv4\": \"active\", \"ipv6\": \"no collectors\"}"),
            std::string::npos)
      << exporters;
  EXPECT_NE(ctl("show exporters").find("does not resolve (yet)"), std::string::npos);
  const std::string datapath = ctl("show datapath --json");
  EXPECT_NE(datapath.find("{\"name\": \"Ethernet1\", \"kernelName\": \"r1\", \"index\": " + r1 +
                          ", \"tracker\": \"t\", \"flows\": "),
            std::string::npos)
      << datapath;
  const std::string promtool = ::access(PROMTOOL, X_OK) == 0 ? PROMTOOL : "promtool";
  if (TestSupport::runCommand(promtool + " --version").status != 0) {
    std::printf("promtool is not there: the Prometheus forms are not checked\n");
    return;
  }
  for (const char* view : {"collectors", "flows", "trackers", "exporters", "datapath"}) {
    SCOPED_TRACE(view);
    const std::string metrics = ctl(std::string("show ") + view + " --format prometheus");
    EXPECT_NE(metrics.find("flowexport_"), std::string::npos) << metrics;
    rig.write(metrics, rig.dir.file("metrics.prom"));
    auto checked =
        TestSupport::runCommand(promtool + " check metrics < " + rig.dir.file("metrics.prom"));
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err << metrics;
  }
}

// Resident memory of a process, in KiB (0 when it cannot be read).
long residentKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return 0;
}

// A reload whose flow caches would take more than the memory limit is refused at the
// line of the first cache past it; the daemon keeps its tracker, its flows and its memory.
TEST_F(RoutedDataPath, AReloadBeyondTheMemoryLimitIsRefusedAndTheRunningStateKept) {
  startDaemon("1", 30, 60);
  sendFrom(1300, 0, 4);
  std::this_thread::sleep_for(300ms);
  const long before = residentKiB(daemon->pid());
  // Four caches of 4,194,304 flows: about 2.3 GiB when full, past the default 1 GiB.
  rig.write(
      "flow-tracking:\n  enabled: true\n  sample-rate: 1\n  interfaces: {Ethernet1: t}\n"
      "  trackers:\n    - {name: t, flow-cache: 4194304}\n    - {name: u, flow-cache: 4194304}\n"
      "    - {name: v, flow-cache: 4194304}\n    - {name: w, flow-cache: 4194304}\n"
      "platform:\n  source: kernel\n  names: {r1: Ethernet1}\n");
  daemon->signal(SIGHUP);
  ASSERT_TRUE(
      daemon->waitForLog("FLOWEXPORT_CONFIG_REFUSED: Configuration refused: " + rig.config +
                             ":7: flow-tracking.trackers[1].flow-cache: the flow caches would "
                             "take up to 1184 MiB with this one",
                         5s))
      << daemon->log();
  const long after = residentKiB(daemon->pid());
  std::printf("resident: %ld KiB before the reload, %ld KiB after\n", before, after);
  EXPECT_LT(after - before, 8 * 1024);
  sendFrom(1300, 0, 2);
  std::this_thread::sleep_for(200ms);
  daemon->signal(SIGTERM);
  ASSERT_EQ(daemon->wait(), 0) << daemon->log();
  collect(300ms);
  const auto got = records();
  ASSERT_EQ(got.count("1300"), 1u) << daemon->log();
  EXPECT_EQ(got.find("1300")->second, "5001 " + std::to_string(::if_nametoindex("r1")) + " " +
                                          std::to_string(::if_nametoindex("r2")) +
                                          " 6 768 17 0x00 4");
}

// A reload that removes the tracker ends its open flows first (reason 4), and they reach
// the collector before the exporter goes.
TEST_F(RoutedDataPath, ATrackerThatAReloadRemovesSendsItsOpenFlowsFirst) {
  startDaemon("1", 30, 60);
  sendFrom(1007, 0, 4);
  std::this_thread::sleep_for(200ms);
  writeConfig(0, 0);
  daemon->signal(SIGHUP);
  collectFor(1500ms);
  const auto got = records();
  const std::string path = "5001 " + std::to_string(::if_nametoindex("r1")) + " " +
                           std::to_string(::if_nametoindex("r2")) + " ";
  ASSERT_EQ(got.count("1007"), 1u) << daemon->log();
  EXPECT_EQ(got.find("1007")->second, path + "4 512 17 0x00 4");
}

// Records that reach no collector are counted with their reason: here the exporter's one
// collector is a name that does not resolve, so it has no channel that could send.
TEST_F(RoutedDataPath, RecordsThatReachNoCollectorAreCounted) {
  startDaemon("1", 3, 60, "\"flowexport-test.invalid:4739\"");
  sendFrom(1008, 0, 3);
  sendFrom(1009, 0, 3);
  std::this_thread::sleep_for(3700ms);  // idle after 3 s
  const std::string json = ctl("show datapath --json");
  const std::string dropped = "\"dropped\": {\"noExporter\": 0, \"noReadyCollector\": ";
  const auto at = json.find(dropped);
  ASSERT_NE(at, std::string::npos) << json;
  // The test's two flows, and the kernel's own ICMPv6.
  EXPECT_GE(std::atoi(json.c_str() + at + dropped.size()), 2) << json;
  EXPECT_NE(ctl("show datapath").find("no ready collector"), std::string::npos);
}

// The collectors operators run, as Debian has them: nfdump and pmacct's nfacctd scale the
// counts by the rate the compatible layout announces (one in two of 4,000 packets is
// sampled: about 4,000 packets shown scaled, 2,000 unscaled), and nfdump shows the ingress
// interface's name (and the VRF's, where the kernel has VRFs); the same run with the
// compatible layout switched off leaves them unscaled and unnamed.
TEST_F(RoutedDataPath, CollectorsScaleByTheRateAndShowTheNames) {
  if (auto why = TestSupport::collectorsMissing(); !why.empty()) GTEST_SKIP() << why;
  // Both links in the kernel VRF blue (table 10), so that the flows carry its id.
  const bool vrf = TestSupport::runCommand("ip link add blue type vrf table 10").status == 0;
  if (vrf) {
    ip("link set blue up");
    ip("link set r1 master blue");
    ip("link set r2 master blue");
  } else {
    std::printf("no VRF in this kernel: the VRF name is not checked\n");
  }
  const std::string r1 = std::to_string(::if_nametoindex("r1"));
  for (const bool compatible : {true, false}) {
    SCOPED_TRACE(compatible ? "compatible layout" : "standard layout only");
    TestSupport::Nfcapd nfcapd;
    TestSupport::Nfacctd nfacctd;
    startDaemon("2", 3, 60,
                "\"127.0.0.1:" + std::to_string(nfcapd.port()) +
                    "\", \"127.0.0.2:" + std::to_string(nfacctd.port()) + "\"",
                compatible ? "" : "  compatible-options: false\n");
    sendFrom(1001, 0, 4000);
    // Idle after 3 s, then nfacctd's printout of the next second.
    std::this_thread::sleep_for(3500ms);
    for (int i = 0; i < 30 && nfacctd.csv().find(",1001,5001,") == std::string::npos; ++i) {
      std::this_thread::sleep_for(100ms);
    }
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait(), 0) << daemon->log();
    // nfdump's fields, blanks dropped: port, ingress index and name, VRF id and name,
    // packets, bytes.
    std::string stored = nfcapd.flows("%sp|%in|%inam|%ivrf|%ivrfnam|%pkt|%byt", "src port 1001");
    std::erase(stored, ' ');
    const std::string named = compatible ? "Ethernet1" : "";
    const std::string vrfNamed = compatible && vrf ? "blue" : "";
    const std::string head =
        "1001|" + r1 + "|" + named + "|" + (vrf ? "10" : "0") + "|" + vrfNamed + "|";
    ASSERT_EQ(stored.substr(0, head.size()), head) << stored;
    const long packets = std::atol(stored.c_str() + head.size());
    const std::string counts = std::to_string(packets) + "|" + std::to_string(128 * packets);
    EXPECT_EQ(stored.substr(head.size()), counts + "\n");
    // Sampled: Binomial(4000, 1/2), a standard deviation of about 32 packets.
    const double expected = compatible ? 4000 : 2000, sigma = std::sqrt(1000.0);
    EXPECT_NEAR(static_cast<double>(packets), expected, 5 * sigma * (compatible ? 2 : 1));
    const std::string csv = nfacctd.csv();
    EXPECT_NE(csv.find(r1 + ",198.18.1.2,198.18.2.2,1001,5001,udp," + std::to_string(packets) +
                       "," + std::to_string(128 * packets)),
              std::string::npos)
        << csv << nfacctd.log();
    // pmacct reads one options template per set; in the compatible layout nothing is left
    // for it to refuse.
    if (compatible) {
      EXPECT_EQ(nfacctd.log().find("unable to"), std::string::npos) << nfacctd.log();
    }
  }
  if (vrf) ip("link del blue");
}

// One in a hundred of 100,000 packets: the packets in the records are within five
// standard deviations of 1,000.
TEST_F(RoutedDataPath, OneInAHundredOfAHundredThousandIsWithinFiveStandardDeviations) {
  startDaemon("100");
  for (int i = 0; i < 100; ++i) sendFrom(static_cast<uint16_t>(2000 + i), 0, 1000);
  collect(4500ms);  // idle after 3 s
  uint64_t packets = 0;
  for (const auto& [port, rec] : records()) {
    std::istringstream f(rec);
    std::string dport, in, out;
    uint64_t n = 0;
    f >> dport >> in >> out >> n;
    if (port.rfind("20", 0) == 0 && port.size() == 4) packets += n;
  }
  const double sigma = std::sqrt(100000 * 0.01 * 0.99);
  EXPECT_NEAR(static_cast<double>(packets), 1000.0, 5 * sigma) << packets << " sampled";
  std::printf("sampled %llu of 100000 packets at one in 100\n",
              static_cast<unsigned long long>(packets));
}

// A TCP bulk transfer from a to b: the kernel hands over super-packets of many segments,
// and the records count the segments (about bytes / MSS), not the super-packets.
TEST_F(RoutedDataPath, ATcpBulkTransferCountsSegmentsNotSuperPackets) {
  startDaemon("1");
  const int server = b.socket(AF_INET, SOCK_STREAM);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(5201);
  ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(server, 1), 0);
  const int client = a.socket(AF_INET, SOCK_STREAM);
  addr.sin_addr.s_addr = htonl(0xC6120202);
  ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  const int conn = ::accept(server, nullptr, nullptr);
  ASSERT_GE(conn, 0);
  const size_t total = 8 << 20;
  std::thread reader([conn] {
    char buf[65536];
    while (::read(conn, buf, sizeof buf) > 0) {
    }
  });
  const std::string chunk(65536, 'd');
  for (size_t sent = 0; sent < total;) {
    const ssize_t n = ::write(client, chunk.data(), std::min(chunk.size(), total - sent));
    ASSERT_GT(n, 0);
    sent += static_cast<size_t>(n);
  }
  int mss = 0;
  socklen_t len = sizeof mss;
  ::getsockopt(client, IPPROTO_TCP, TCP_MAXSEG, &mss, &len);
  ::close(client);
  reader.join();
  ::close(conn);
  ::close(server);
  collect(4500ms);
  uint64_t packets = 0, octets = 0;
  for (const auto& [port, rec] : records()) {
    if (rec.rfind("5201 ", 0) == 0) {
      std::istringstream f(rec);
      std::string dport, in, out;
      f >> dport >> in >> out >> packets >> octets;
    }
  }
  ASSERT_GT(mss, 0);
  // Octets are the segments' IP lengths on the wire, not what the 192-byte snap kept.
  EXPECT_GT(octets, total);
  EXPECT_LT(octets, total + packets * 80) << packets << " packets";
  const double segments = static_cast<double>(total) / mss;
  EXPECT_GT(static_cast<double>(packets), 0.95 * segments) << "mss " << mss;
  EXPECT_LT(static_cast<double>(packets), 1.10 * segments) << "mss " << mss;
  std::printf("%llu packets for %zu bytes at MSS %d (%.0f segments)\n",
              static_cast<unsigned long long>(packets), total, mss, segments);
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gSkip = TestSupport::enterNetworkNamespace(false);
  return RUN_ALL_TESTS();
}
