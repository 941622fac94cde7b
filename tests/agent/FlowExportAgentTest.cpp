// The agent in this process: tracker ids kept in the state file through damage, an
// unreadable file and a disabled period; a kernel source retried; control requests; the
// software status mirrors the flow groups. (Reloads and restarts as operators see them
// are in AgentE2eTest.)

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "agent/FlowExportAgent.h"
#include "agent/FtIdStateFile.h"
#include "tests/support/Decoders.h"

namespace {

using namespace std::chrono_literals;

class AgentTest : public ::testing::Test {
 protected:
  TestSupport::TempDir dir;
  TestSupport::UdpReceiver rx1{false};
  Zub::LogCapture logs;
  std::string file = dir.file("flowexport.yaml");

  void write(const std::string& trackers, const std::string& collectors) {
    std::ofstream(file) << "flow-tracking:\n  enabled: true\n  trackers:\n"
                        << trackers << "      exporters:\n        - name: e\n"
                        << "          local-interface: Loopback0\n          collectors: ["
                        << collectors << "]\n"
                        << "platform:\n  interfaces:\n"
                        << "    Loopback0: {ipv4: 127.0.0.1/8, ipv6: [\"::1/128\"]}\n";
  }
  std::string c1() const { return "\"127.0.0.1:" + std::to_string(rx1.port()) + "\""; }

  Zub::Ptr<Agent::FlowExportAgent> makeAgent() {
    Agent::AgentOptions o;
    o.configFile = file;
    o.stateFile = dir.file("state/ftids");
    o.statsName = "/flowexport-agent-test-" + std::to_string(::getpid());
    Zub::Ptr<Agent::FlowExportAgent> a(new Agent::FlowExportAgent(o));
    a->start();
    a->scheduler().runReady();
    return a;
  }
};

TEST_F(AgentTest, ARepeatedIdInTheStateFileIsDroppedNotFatal) {
  std::filesystem::create_directories(dir.file("state"));
  std::ofstream(dir.file("state/ftids")) << "7 alpha\n7 beta\n";
  write("    - name: alpha\n    - name: beta\n", c1());
  auto agent = makeAgent();
  EXPECT_EQ(agent->hwConfig()->hwFtConfig("alpha")->ftId().value(), 7u);
  EXPECT_EQ(agent->hwConfig()->hwFtConfig("beta")->ftId().value(), 1u);  // a fresh id
  bool logged = false;
  for (const auto& line : logs.lines()) {
    logged =
        logged || line.find("FLOWEXPORT_STATE_ERROR: Tracker id state file: ") != std::string::npos;
  }
  EXPECT_TRUE(logged);
}

TEST(FtIdStateFile, OnlyLinesOfDigitsABlankAndANameCount) {
  // "4\0 x" was taken as id 4 (found by fuzzing): strtoul stopped at the NUL byte.
  using namespace std::string_literals;
  const std::string text = "4\0 x\n+5 plus\n-1 minus\n 6 blank\n"s +
                           "99999999999999999999 wrap\n0 zero\n65536 big\n007 alpha\n8 \n";
  std::string warning;
  const auto ids = Agent::FtIdStateFile::parse(text, "ftids", &warning);
  EXPECT_EQ(ids, (std::map<std::string, uint32_t>{{"alpha", 7}}));
  // The first five bad lines are named, the rest counted.
  EXPECT_EQ(std::count(warning.begin(), warning.end(), '\n'), 6) << warning;
  EXPECT_NE(warning.find("ftids: and 3 more lines ignored\n"), std::string::npos) << warning;
  EXPECT_EQ(Agent::FtIdStateFile::parse(Agent::FtIdStateFile::text(ids), "ftids"), ids);
  // Names are read back as the configuration's are: control characters, bytes that are
  // not UTF-8 and names too long for the tables are dropped, not taken to a fatal check.
  warning.clear();
  const auto named = Agent::FtIdStateFile::parse(
      "9 esc\x1b[2J\n10 \xff\xfe\n11 " + std::string(300, 'n') + "\n12 ok\n", "ftids", &warning);
  EXPECT_EQ(named, (std::map<std::string, uint32_t>{{"ok", 12}}));
  EXPECT_NE(warning.find("ftids:1: ignored line: a name must not contain control characters"),
            std::string::npos)
      << warning;
  EXPECT_NE(warning.find("ftids:2: ignored line: a name must be UTF-8 text"), std::string::npos);
  EXPECT_NE(warning.find("ftids:3: ignored line: a name is at most"), std::string::npos);
  // Two million bad lines make a short report.
  std::string flood;
  for (int i = 0; i < 2000000; ++i) flood += "x\n";
  warning.clear();
  Agent::FtIdStateFile::parse(flood, "ftids", &warning);
  EXPECT_LT(warning.size(), 512u) << warning;
  EXPECT_NE(warning.find("and 1999995 more lines ignored"), std::string::npos) << warning;
}

TEST_F(AgentTest, TrackerIdsSurviveADisabledPeriod) {
  write("    - name: alpha\n", c1());
  auto agent = makeAgent();
  auto idOf = [&](const char* t) { return agent->hwConfig()->hwFtConfig(t)->ftId().value(); };
  for (const char* trackers : {"    - name: alpha\n", "    - name: alpha\n    - name: beta\n",
                               "    - name: alpha\n    - name: beta\n    - name: gamma\n"}) {
    write(trackers, c1());
    ASSERT_TRUE(agent->reload());
    agent->scheduler().runReady();
  }
  EXPECT_EQ(idOf("gamma"), 3u);
  auto stateFile = [&] {
    std::ifstream in(dir.file("state/ftids"));
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const std::string kept = stateFile();

  // Disabled: the trackers go, the file stays; enabled again with one more tracker: the
  // three keep their ids and the new one gets a free one.
  std::ofstream(file) << "flow-tracking:\n  enabled: false\n";
  ASSERT_TRUE(agent->reload());
  agent->scheduler().runReady();
  EXPECT_EQ(agent->hwConfig()->hwFtConfigSize(), 0u);
  EXPECT_EQ(stateFile(), kept);
  write("    - name: gamma\n    - name: delta\n    - name: beta\n    - name: alpha\n", c1());
  ASSERT_TRUE(agent->reload());
  agent->scheduler().runReady();
  EXPECT_EQ(idOf("alpha"), 1u);
  EXPECT_EQ(idOf("beta"), 2u);
  EXPECT_EQ(idOf("gamma"), 3u);
  EXPECT_EQ(idOf("delta"), 4u);
}

TEST_F(AgentTest, AStateFileThatCannotBeReadIsReportedAndNeverReplaced) {
  std::filesystem::create_directories(dir.file("state"));
  const std::string path = dir.file("state/ftids");
  const bool root = ::geteuid() == 0;
  if (root) {
    std::filesystem::create_directories(path);  // root reads any file: use a directory
  } else {
    std::ofstream(path) << "21 alpha\n22 beta\n";
    std::filesystem::permissions(path, std::filesystem::perms::none);
  }
  write("    - name: alpha\n    - name: beta\n", c1());
  auto agent = makeAgent();
  agent->scheduler().runReady();
  bool logged = false;
  for (const auto& line : logs.lines()) {
    logged = logged || line.find("FLOWEXPORT_STATE_ERROR: Tracker id state file: cannot read " +
                                 path) != std::string::npos;
  }
  EXPECT_TRUE(logged);
  EXPECT_TRUE(agent->hwConfig()->hwFtConfig("beta"));  // exporting with fresh ids
  if (root) {
    EXPECT_TRUE(std::filesystem::is_directory(path));
  } else {
    std::filesystem::permissions(path, std::filesystem::perms::owner_read);
    std::ifstream in(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "21 alpha\n22 beta\n");
  }
  std::string error;
  Agent::FtIdStateFile state(path);
  state.load();
  if (root) {
    EXPECT_FALSE(state.save({{"alpha", 1}}, &error));
    EXPECT_EQ(error, "not writing " + path + ": it could not be read at start");
  }
}

// The kernel cannot be followed at first (no descriptor for the dump socket): the agent
// says so, keeps the status it had and starts a new source 5 s later.
TEST_F(AgentTest, AKernelSourceThatCannotStartIsRetriedAfterFiveSeconds) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_UNDEFINED__)
  GTEST_SKIP() << "not under the sanitizers: their runtime needs descriptors too";
#endif
  Zub::ManualClock clock;
  Zub::ScopedClock scoped{clock};
  write("    - name: t\n", c1());
  auto agent = makeAgent();
  std::ofstream(file) << "flow-tracking:\n  enabled: true\n  trackers:\n    - name: t\n"
                      << "      exporters:\n        - name: e\n          local-interface: lo\n"
                      << "          collectors: [" << c1() << "]\nplatform:\n  source: kernel\n";
  // Leave exactly one descriptor number free: the file is read with it, the event socket
  // takes it, and the dump socket finds none.
  std::vector<int> probe;
  for (int i = 0; i < 2; ++i) probe.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(probe[0] >= 0 && probe[1] > probe[0]);
  for (int fd : probe) ::close(fd);
  rlimit saved{};
  ::getrlimit(RLIMIT_NOFILE, &saved);
  rlimit one = saved;
  one.rlim_cur = static_cast<rlim_t>(probe[1]);
  ::setrlimit(RLIMIT_NOFILE, &one);
  const bool reloaded = agent->reload();
  ::setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_TRUE(reloaded);
  agent->scheduler().runReady();
  const std::string failed =
      "FLOWEXPORT_KERNEL_STATUS_FAILED: Cannot follow the kernel's interfaces (rtnetlink dump "
      "socket: Too many open files); export goes on with the last known status. Retrying in "
      "5 s.";
  auto failures = [&] {
    const auto lines = logs.lines();
    return std::count(lines.begin(), lines.end(), failed);
  };
  EXPECT_EQ(failures(), 1) << ::testing::PrintToString(logs.lines());
  auto hw = agent->hwConfig()->hwFtConfig("t")->expConfig("e");
  EXPECT_FALSE(hw->exporterReady());  // no interface lo in the status it kept

  agent->scheduler().advance(std::chrono::milliseconds(4900));
  EXPECT_FALSE(hw->exporterReady());
  agent->scheduler().advance(std::chrono::milliseconds(100));
  agent->scheduler().runReady();
  EXPECT_TRUE(hw->exporterReady());
  EXPECT_EQ(hw->srcIpAddr().stringValue(), "127.0.0.1");
  EXPECT_EQ(failures(), 1);
}

TEST_F(AgentTest, ClearingWhatDoesNotExistIsAnError) {
  write("    - name: t\n", c1());
  auto agent = makeAgent();
  EXPECT_EQ(agent->handleControl({"clear-counters"}), "ok");
  EXPECT_EQ(agent->handleControl({"clear-counters", "t", "e"}), "ok");
  EXPECT_EQ(agent->handleControl({"clear-counters", "nope"}), "error: no tracker named nope");
  EXPECT_EQ(agent->handleControl({"clear-counters", "t", "x"}),
            "error: tracker t has no exporter named x");
  EXPECT_EQ(agent->handleControl({"clear-counters", "t", "e", "more"}),
            "error: clear-counters takes at most a tracker and an exporter");
}

TEST_F(AgentTest, SoftwareStatusMirrorsTheDefaultFlowGroups) {
  write("    - name: t\n", c1());
  auto agent = makeAgent();
  auto status = agent->hwStatus()->hwFtStatus("t");
  ASSERT_TRUE(status);
  ASSERT_EQ(status->hwFgStatusSize(), 2u);
  auto v4 = status->hwFgStatus(FlowTracking::TemplateId(261));
  auto v6 = status->hwFgStatus(FlowTracking::TemplateId(262));
  ASSERT_TRUE(v4 && v6);
  EXPECT_EQ(v4->templateEntrySize(), Agent::FlowExportConfigSm::ipv4Fields().size());
  EXPECT_EQ(v4->templateEntry(0)->fieldId(), Ipfix::RecordType::srcIp);
  EXPECT_EQ(v4->templateEntry(0)->fieldLen(), 4u);
  EXPECT_TRUE(v4->templateEntry(0)->flowKey());
  EXPECT_EQ(v6->templateEntry(0)->fieldLen(), 16u);
  EXPECT_EQ(v4->genId(), 1u);
  // A new generation of a group is published as a new status.
  auto fg = agent->hwConfig()->hwFtConfig("t")->hwFgConfig(1);
  fg->flowParamIs(FlowTracking::FlowParam{99, Ipfix::RecordType::bgpSrcAs, false});
  fg->genIdInc();
  v4 = status->hwFgStatus(FlowTracking::TemplateId(261));
  EXPECT_EQ(v4->genId(), 2u);
  EXPECT_EQ(v4->templateEntrySize(), Agent::FlowExportConfigSm::ipv4Fields().size() + 1);
  // Removing the tracker removes its status.
  std::ofstream(file) << "flow-tracking:\n  enabled: true\n";
  agent->reload();
  EXPECT_FALSE(agent->hwStatus()->hwFtStatus("t"));
}

}  // namespace
