// Collectors configured by name, against the real flowexportd, inside a network and
// mount namespace this program makes before the tests run: /etc/hosts and
// /etc/resolv.conf are the test's own, and the name server they point to (127.0.0.1:53)
// takes every query and never answers, as a dead or unreachable one would.
//
// What the operator notices: the daemon starts, answers flowexportctl and stops at once
// however long the name server keeps it waiting; a name that does not resolve is logged;
// it is followed once it resolves, and again when its address moves (after SIGHUP); the
// collectors whose address stayed are left alone.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "tests/support/Daemon.h"
#include "tests/support/Decoders.h"
#include "tests/support/Namespace.h"
#include "tests/support/Network.h"

namespace {

using namespace std::chrono_literals;

// Set by main: the test's /etc/hosts, or why there is no private name service.
std::string gHosts;
std::string gSkip;

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::trunc);
  f << text;
  return static_cast<bool>(f.flush());
}

std::string enterPrivateNameService(const std::string& dir) {
  if (std::string why = TestSupport::enterNetworkNamespace(true); !why.empty()) return why;
  auto fail = [](const std::string& what) { return what + ": " + std::strerror(errno); };
  // Each lookup that reaches the name server waits 2 s for nothing.
  const std::string resolv = dir + "/resolv.conf";
  gHosts = dir + "/hosts";
  if (!writeFile(resolv, "nameserver 127.0.0.1\noptions timeout:2 attempts:1\n") ||
      !writeFile(gHosts, "127.0.0.1 localhost\n::1 localhost\n")) {
    return "cannot write the name service files";
  }
  if (::mount(resolv.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0 ||
      ::mount(gHosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
    return fail("cannot bind the name service files over /etc");
  }
  return "";
}

class NameServiceE2e : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!gSkip.empty()) GTEST_SKIP() << "no private name service: " << gSkip;
    // The silent name server.
    dns_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(53);
    ::inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    ASSERT_EQ(::bind(dns_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0) << std::strerror(errno);
  }
  void TearDown() override {
    if (dns_ >= 0) ::close(dns_);
  }
  // /etc/hosts as the daemon reads it, rewritten in place (the bind mount holds the inode).
  static void hosts(const std::string& extra) {
    ASSERT_TRUE(writeFile(gHosts, "127.0.0.1 localhost\n::1 localhost\n" + extra));
  }
  void writeConfig(const std::string& collectors) {
    rig.write(
        "flow-tracking:\n  enabled: true\n  trackers:\n    - name: t\n      exporters:\n"
        "        - name: e\n          local-interface: Loopback0\n"
        "          template-interval: 3600\n          collectors: [" +
        collectors +
        "]\n"
        "platform:\n  interfaces:\n    Loopback0: {mtu: 65535, ipv4: 127.0.0.1/8}\n");
  }
  std::unique_ptr<TestSupport::Daemon> startDaemon() { return rig.start(); }
  TestSupport::CommandResult ctl(const std::string& args) const { return rig.ctl(args); }

  TestSupport::DaemonRig rig{"e2e-names"};
  int dns_ = -1;
};

TEST_F(NameServiceE2e, CollectorNamesAreFollowedWithoutHoldingTheDaemon) {
  TestSupport::UdpReceiver stay(false), before(false);
  TestSupport::UdpReceiver after(false, before.port(), "127.0.0.2");
  hosts("127.0.0.1 stay.lab.test\n");
  auto at = [](const std::string& host, uint16_t port) {
    return "\"" + host + ":" + std::to_string(port) + "\"";
  };
  writeConfig(at("stay.lab.test", stay.port()) + ", " + at("moving.lab.test", before.port()) +
              ", " + at("dead-a.lab.test", 9) + ", " + at("dead-b.lab.test", 9));
  auto daemon = startDaemon();

  // Three names wait on the silent server (2 s each, one after the other before); the
  // collector that resolves gets its templates and flowexportctl its answer meanwhile.
  ASSERT_TRUE(stay.receive(5000ms)) << daemon->log();
  auto clear = ctl("clear counters");
  EXPECT_EQ(clear.status, 0) << clear.err;

  // Each unresolved name is reported once it has failed.
  ASSERT_TRUE(
      daemon->waitForLog("FLOWTRACKING_COLLECTOR_NOT_RESOLVED: Sampled collector "
                         "moving.lab.test for exporter e in Sampled flow tracker t "
                         "does not resolve (",
                         10s))
      << daemon->log();
  EXPECT_TRUE(daemon->waitForLog("nothing is exported to it until it does.", 1s));

  // The name appears (DNS came up): a reload follows it at once.
  hosts("127.0.0.1 stay.lab.test\n127.0.0.1 moving.lab.test\n");
  daemon->signal(SIGHUP);
  ASSERT_TRUE(before.receive(5000ms)) << daemon->log();
  EXPECT_TRUE(daemon->waitForLog(
      "FLOWTRACKING_COLLECTOR_ACTIVE: Sampled collector moving.lab.test for exporter e in "
      "Sampled flow tracker t is active.",
      2s));
  stay.drain(300ms);
  before.drain(300ms);

  // Its address moves: followed after SIGHUP. The collector whose address stayed is not
  // made again (it would get the templates again at once, its sequence back at 0).
  hosts("127.0.0.1 stay.lab.test\n127.0.0.2 moving.lab.test\n");
  daemon->signal(SIGHUP);
  auto moved = after.receive(5000ms);
  ASSERT_TRUE(moved) << daemon->log();
  EXPECT_EQ(moved->dst.stringValue(), "127.0.0.2");
  EXPECT_TRUE(stay.drain(500ms).empty());
  EXPECT_TRUE(before.drain(100ms).empty());

  // The reload looked the two dead names up again: they are waiting on the server now.
  // SIGTERM does not wait for them.
  const auto t0 = std::chrono::steady_clock::now();
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(1500ms), 0) << daemon->log();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 1500ms);
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  TestSupport::TempDir names;
  gSkip = enterPrivateNameService(names.path());
  return RUN_ALL_TESTS();
}
