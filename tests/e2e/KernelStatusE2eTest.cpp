// The kernel status source against the real kernel, in a network namespace this program
// makes before the tests run (skipped with the reason where it cannot): veth links
// appear, get addresses, an MTU and their link state, lose them and go; a burst of
// events that overruns a small receive buffer ends in a fresh dump that has them all.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <thread>

#include <signal.h>
#include <sys/resource.h>

#include <optional>

#include "agent/KernelStatusSource.h"
#include "tests/support/Daemon.h"
#include "tests/support/Decoders.h"
#include "tests/support/Namespace.h"
#include "tests/support/Network.h"

namespace {

using namespace std::chrono_literals;

std::string gSkip;

class KernelStatusE2e : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!gSkip.empty()) GTEST_SKIP() << "no network namespace: " << gSkip;
  }
  Orrin::TaskScheduler sched;
  int changes = 0;
  Agent::KernelStatusSource source{sched, [this](const Agent::KernelStatus&) { ++changes; }};

  // The kernel link `name` as the agent describes it ("" when it has none).
  std::string described(const std::string& name) const { return described(source, name); }
  static std::string described(const Agent::KernelStatusSource& from, const std::string& name) {
    Agent::AgentConfig cfg;
    from.status().platform({}, cfg);
    for (const auto& i : cfg.interfaces) {
      if (i.name != name) continue;
      std::string line = "mtu " + std::to_string(i.mtu) + (i.linkUp ? " up" : " down");
      if (i.ipv4) line += " " + i.ipv4->stringValue();
      for (const auto& a : i.ipv6) line += " " + a.stringValue();
      return line;
    }
    return "";
  }
  // Runs the loop until `name` is described as `want` (bounded).
  bool waitFor(const std::string& name, const std::string& want) {
    for (int i = 0; i < 300 && described(name) != want; ++i) sched.pollFds(10ms);
    return described(name) == want;
  }
  static void ip(const std::string& args) {
    auto r = TestSupport::runCommand("ip " + args);
    ASSERT_EQ(r.status, 0) << "ip " << args << ": " << r.err;
  }
};

TEST_F(KernelStatusE2e, LinksAndAddressesAreFollowedLive) {
  std::string error;
  ASSERT_TRUE(source.start(&error)) << error;
  EXPECT_EQ(described("lo"), "mtu 65536 up 127.0.0.1/8 ::1/128");

  ip("link add v0 type veth peer name v1");
  ASSERT_TRUE(waitFor("v0", "mtu 1500 down"));
  ip("link set v0 mtu 1400");
  ip("addr add 10.1.0.1/24 dev v0");
  ip("-6 addr add 2001:db8::1/64 dev v0 nodad");
  ip("link set v1 up");
  ip("link set v0 up");
  // The link-local address the kernel adds once up comes too.
  for (int i = 0; i < 300 && described("v0").find("fe80::") == std::string::npos; ++i) {
    sched.pollFds(10ms);
  }
  const std::string up = described("v0");
  EXPECT_EQ(up.rfind("mtu 1400 up 10.1.0.1/24 2001:db8::1/64 fe80::", 0), 0u) << up;
  ip("addr del 10.1.0.1/24 dev v0");
  ip("link set v0 down");
  // Down: the kernel drops the IPv6 addresses of a link that goes down as well.
  EXPECT_TRUE(waitFor("v0", "mtu 1400 down")) << described("v0");
  ip("link del v0");
  EXPECT_TRUE(waitFor("v0", ""));
  EXPECT_TRUE(waitFor("v1", ""));
  EXPECT_GT(changes, 0);
  EXPECT_EQ(source.dumps(), 1u);
}

TEST_F(KernelStatusE2e, AnOverrunEndsInAFreshDumpThatHasEverything) {
  std::string error;
  ASSERT_TRUE(source.start(&error, 1)) << error;  // the smallest buffer the kernel allows
  std::string batch;
  for (int i = 0; i < 40; ++i) {
    batch += "link add a" + std::to_string(i) + " type veth peer name b" + std::to_string(i) + "\n";
  }
  auto r = TestSupport::runCommand("printf '" + batch + "' | ip -batch -");
  ASSERT_EQ(r.status, 0) << r.err;
  for (int i = 0; i < 300 && !(source.dumps() > 1 && described("b39") == "mtu 1500 down"); ++i) {
    sched.pollFds(10ms);
  }
  EXPECT_GT(source.dumps(), 1u) << "the buffer did not overrun";
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(described("a" + std::to_string(i)), "mtu 1500 down") << i;
  }
}

// Lost events with no descriptor left for the fresh dump: the source says so once and
// keeps the status it had, for its owner to replace it.
TEST_F(KernelStatusE2e, AnOverrunThatCannotBeRedumpedIsReported) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_UNDEFINED__)
  GTEST_SKIP() << "not under the sanitizers: their runtime needs descriptors too";
#endif
  std::vector<std::string> failures;
  Agent::KernelStatusSource src{
      sched, {}, [&](const std::string& error) { failures.push_back(error); }};
  std::string error;
  ASSERT_TRUE(src.start(&error, 1)) << error;
  std::string batch;
  for (int i = 0; i < 40; ++i) {
    batch += "link add c" + std::to_string(i) + " type veth peer name d" + std::to_string(i) + "\n";
  }
  ASSERT_EQ(TestSupport::runCommand("printf '" + batch + "' | ip -batch -").status, 0);
  // The events overran the buffer; now no new descriptor can be had.
  rlimit saved{};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  rlimit none = saved;
  none.rlim_cur = 0;
  ::setrlimit(RLIMIT_NOFILE, &none);
  for (int i = 0; i < 20 && failures.empty(); ++i) sched.pollFds(10ms);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_NE(failures[0].find("Too many open files"), std::string::npos) << failures[0];
  EXPECT_TRUE(src.broken());
  EXPECT_EQ(src.dumps(), 1u);
  EXPECT_EQ(described(src, "c0"), "") << "the status from before the overrun stays";
  EXPECT_EQ(described(src, "lo"), "mtu 65536 up 127.0.0.1/8 ::1/128");
}

// flowexportd with `platform: {source: kernel}`: the exporter's source is the address the
// kernel gives its local link, and the link's state decides whether it exports.
// Links that keep changing while the kernel is dumped: a dump the kernel flags as
// interrupted is made again at once, and every start succeeds with a whole dump.
TEST_F(KernelStatusE2e, AnInterruptedDumpIsRepeatedNotAFailure) {
  std::string batch;
  for (int i = 0; i < 100; ++i)
    batch += "link add c" + std::to_string(i) + " type veth peer name d" + std::to_string(i) + "\n";
  TestSupport::TempDir dir;
  std::ofstream(dir.file("add")) << batch;
  ip("-batch " + dir.file("add"));
  std::string flap;
  for (int i = 0; i < 100; ++i) {
    const std::string n = std::to_string(i);
    flap += "link set d" + n + " up\nlink set c" + n + " up\nlink set c" + n + " down\n" +
            "link add e" + n + " type veth peer name f" + n + "\nlink del e" + n + "\n";
  }
  std::ofstream(dir.file("flap")) << flap;
  // Flapping in the background for at most 4 s.
  std::atomic<bool> churning{true};
  std::thread churn([&] {
    TestSupport::runCommand("timeout 4 sh -c 'while :; do ip -batch " + dir.file("flap") +
                            "; done'");
    churning = false;
  });
  uint64_t interrupted = 0;
  int dumps = 0;
  for (; dumps < 500 && churning; ++dumps) {
    Orrin::TaskScheduler s;
    Agent::KernelStatusSource fresh(s, [](const Agent::KernelStatus&) {});
    std::string error;
    EXPECT_TRUE(fresh.start(&error)) << error;
    EXPECT_GE(fresh.status().links().size(), 201u);  // lo and both ends of each pair
    interrupted += fresh.interruptedDumps();
  }
  churn.join();
  std::printf("%llu of %d dumps were interrupted and made again\n",
              static_cast<unsigned long long>(interrupted), dumps);
  std::string del;
  for (int i = 0; i < 100; ++i) del += "link del c" + std::to_string(i) + "\n";
  std::ofstream(dir.file("del")) << del;
  ip("-batch " + dir.file("del"));
}

TEST_F(KernelStatusE2e, TheDaemonExportsFromTheKernelsAddressAndFollowsTheLink) {
  ip("link add v0 type veth peer name v1");
  ip("addr add 10.9.0.1/24 dev v0");
  ip("addr add 10.9.0.2/24 dev v1");
  ip("link set v1 up");
  ip("link set v0 up");
  TestSupport::UdpReceiver rx(false, 0, "10.9.0.2");
  TestSupport::DaemonRig rig("e2e-kernel");
  rig.write(
      "flow-tracking:\n  enabled: true\n  trackers:\n    - name: t\n"
      "      exporters:\n        - name: e\n          local-interface: v0\n"
      "          template-interval: 3600\n          collectors: [\"10.9.0.2:" +
      std::to_string(rx.port()) + "\"]\nplatform:\n  source: kernel\n");
  auto owned = rig.start();
  TestSupport::Daemon& daemon = *owned;
  auto first = rx.receive(5000ms);
  ASSERT_TRUE(first) << daemon.log();
  EXPECT_EQ(first->src.stringValue(), "10.9.0.1");
  std::vector<TestSupport::Datagram> all = {*first};
  for (const auto& d : rx.drain(500ms)) all.push_back(d);
  const std::string exporter = "Sampled exporter e in VRF default, in Sampled flow tracker t is ";

  ip("link set v0 down");
  EXPECT_TRUE(daemon.waitForLog("FLOWTRACKING_EXPORTER_INACTIVE: " + exporter + "inactive.", 5s))
      << daemon.log();
  ip("link set v0 up");
  ip("link set v1 up");
  for (int i = 0; i < 500 && daemon.log().rfind("FLOWTRACKING_EXPORTER_ACTIVE") <
                                 daemon.log().rfind("FLOWTRACKING_EXPORTER_INACTIVE");
       ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_GT(daemon.log().rfind("FLOWTRACKING_EXPORTER_ACTIVE: " + exporter + "active."),
            daemon.log().rfind("FLOWTRACKING_EXPORTER_INACTIVE"))
      << daemon.log();

  // The source address goes and another takes its place: the next message (the table
  // update below) comes from the new one.
  ip("addr add 10.9.1.5/16 dev v0");
  ip("addr del 10.9.0.1/24 dev v0");

  // A new link reaches the interface table at the collector, with its kernel index.
  for (const auto& d : rx.drain(300ms)) all.push_back(d);
  const size_t before = all.size();
  const auto t0 = std::chrono::steady_clock::now();
  ip("link add v2 type veth peer name v3");
  std::vector<std::chrono::steady_clock::duration> when;
  while (std::chrono::steady_clock::now() - t0 < 2500ms) {
    if (auto d = rx.receive(100ms)) {
      all.push_back(*d);
      when.push_back(std::chrono::steady_clock::now() - t0);
    }
  }
  // The first datagram after the change that names v2 (tshark needs the templates, so
  // `all` starts with the first message).
  const auto names = TestSupport::tsharkTable(all, {"cflow.if_name"});
  std::optional<std::chrono::steady_clock::duration> arrived;
  for (size_t i = before; i < names.size() && !arrived; ++i) {
    if (names[i].empty() ||
        std::find(names[i][0].begin(), names[i][0].end(), "v2") == names[i][0].end()) {
      continue;
    }
    arrived = when[i - before];
    EXPECT_EQ(all[i].src.stringValue(), "10.9.1.5");
  }
  ASSERT_TRUE(arrived) << "v2 never reached the interface table";
  // Table changes are sent as one message a second after the first of a burst.
  EXPECT_LT(*arrived, 1500ms);

  // Without any address left the exporter is inactive.
  ip("addr del 10.9.1.5/16 dev v0");
  for (int i = 0; i < 500 && daemon.log().rfind("FLOWTRACKING_EXPORTER_INACTIVE") <
                                 daemon.log().rfind("FLOWTRACKING_EXPORTER_ACTIVE");
       ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_GT(daemon.log().rfind("FLOWTRACKING_EXPORTER_INACTIVE"),
            daemon.log().rfind("FLOWTRACKING_EXPORTER_ACTIVE"))
      << daemon.log();
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait(), 0) << daemon.log();
  ip("link del v0");
  ip("link del v2");
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gSkip = TestSupport::enterNetworkNamespace(false);
  return RUN_ALL_TESTS();
}
