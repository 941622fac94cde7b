// The README's quick start, "Export this host's flows to a collector", run as written in a
// network and mount namespace of the test's own (a private /tmp/flows): a collector (nfcapd), the
// agent on its embedded default, traffic on a link with a name of the test's choosing, and
// nfdump showing the flows with the link's name. `sudo` is the test's own, which runs the
// command as it is; `flowexportd` is the build's. Skipped where there is no namespace or no
// nfdump.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/Collectors.h"
#include "tests/support/Daemon.h"
#include "tests/support/Namespace.h"

namespace {

using namespace std::chrono_literals;

std::string gSkip;

// The `n`th (from 0) sh block after `heading` in the README.
std::string readmeBlock(const std::string& heading, int n) {
  std::ifstream in(README_PATH);
  std::stringstream all;
  all << in.rdbuf();
  const std::string text = all.str();
  size_t at = text.find("\n" + heading + "\n");
  for (int i = 0; at != std::string::npos && i <= n; ++i) {
    at = text.find("```sh\n", at + 1);
  }
  if (at == std::string::npos) return "";
  at += 6;
  return text.substr(at, text.find("```", at) - at);
}

TEST(QuickStart, TheReadmesCommandsShowTheHostsFlowsInNfdumpWithTheLinksName) {
  if (!gSkip.empty()) GTEST_SKIP() << "no network namespace: " << gSkip;
  if (auto why = TestSupport::collectorsMissing(); !why.empty()) GTEST_SKIP() << why;
  const std::string commands = readmeBlock("## Export this host's flows to a collector", 1);
  ASSERT_NE(commands.find("nfdump -R /tmp/flows"), std::string::npos) << commands;

  // A link unlike eth0, from a namespace that sends to this one.
  TestSupport::PeerNamespace peer;
  ASSERT_TRUE(peer.ok());
  for (const char* c : {"ip link add lan-q7 type veth peer name p0",
                        "ip addr add 198.19.0.1/24 dev lan-q7", "ip link set lan-q7 up"}) {
    ASSERT_EQ(TestSupport::runCommand(c).status, 0) << c;
  }
  ASSERT_EQ(TestSupport::runCommand("ip link set p0 netns " + std::to_string(peer.pid())).status,
            0);
  peer.run("ip addr add 198.19.0.2/24 dev p0");
  peer.run("ip link set p0 up");

  TestSupport::TempDir dir;
  const std::string bin = dir.file("bin");
  ::mkdir(bin.c_str(), 0755);
  std::ofstream(bin + "/sudo") << "#!/bin/sh\nexec \"$@\"\n";
  ::chmod((bin + "/sudo").c_str(), 0755);
  ASSERT_EQ(::symlink(FLOWEXPORTD, (bin + "/flowexportd").c_str()), 0);
  std::ofstream(dir.file("quickstart.sh")) << "set -e\n" << commands;
  const std::string env = "PATH=" + bin + ":/usr/sbin:/usr/bin:/sbin:/bin";
  TestSupport::Daemon shell(
      "/usr/bin/env",
      {env, "FLOWEXPORT_STATS=/flowexport-quickstart-" + std::to_string(::getpid()),
       "FLOWEXPORT_CONTROL_SOCKET=" + dir.file("control.sock"), "STATE_DIRECTORY=" + dir.path(),
       "/bin/bash", dir.file("quickstart.sh")},
      dir.file("quickstart.log"));

  // Use of the network while the agent runs: 20 flows of 400 packets from the peer.
  std::this_thread::sleep_for(2s);
  const int s = peer.socket(AF_INET, SOCK_DGRAM);
  ASSERT_GE(s, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(0xC6130001);  // 198.19.0.1
  const std::string payload(200, 'q');
  for (int i = 0; i < 8000; ++i) {
    to.sin_port = htons(static_cast<uint16_t>(7000 + i % 20));
    ::sendto(s, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    if (i % 500 == 499) std::this_thread::sleep_for(20ms);
  }
  ::close(s);
  ASSERT_EQ(shell.wait(60s), 0) << shell.log();
  const std::string out = shell.log();
  std::printf("%s", out.c_str());
  EXPECT_NE(out.find("lan-q7"), std::string::npos) << out;
  EXPECT_NE(out.find("198.19.0.2"), std::string::npos) << out;
  EXPECT_NE(out.find("FLOWTRACKING_SAMPLING: Sampling interface lan-q7 for flow tracker host, "
                     "one packet in 100."),
            std::string::npos)
      << out;
  TestSupport::runCommand("ip link del lan-q7");
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gSkip = TestSupport::enterNetworkNamespace(true);
  // The commands write /tmp/flows: a directory of the namespace's own there (the rest of
  // /tmp stays visible: the build may live in it). One the test had to make goes after.
  const bool made = gSkip.empty() && ::mkdir("/tmp/flows", 0755) == 0;
  if (gSkip.empty() && ::mount("tmpfs", "/tmp/flows", "tmpfs", 0, "mode=0755") != 0) {
    gSkip = "cannot mount a private /tmp/flows";
  }
  const int rc = RUN_ALL_TESTS();
  ::umount("/tmp/flows");
  if (made) ::rmdir("/tmp/flows");
  return rc;
}
