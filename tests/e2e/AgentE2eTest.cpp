// flowexportd as operators run it: a configuration file in a directory, collectors on
// loopback ports, flowexportctl beside it. Templates are decoded by tshark and
// ipfixDump; configuration changes are picked up without a restart; a broken file is
// refused and export goes on; tracker ids survive a restart; SIGTERM ends cleanly.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <thread>

#include "export/CollectorStats.h"
#include "tests/support/Collectors.h"
#include "tests/support/Daemon.h"
#include "tests/support/Decoders.h"
#include "tests/support/Network.h"

namespace {

using namespace std::chrono_literals;
using TestSupport::Datagram;

class AgentE2e : public ::testing::Test {
 protected:
  TestSupport::DaemonRig rig{"e2e-agent"};
  TestSupport::TempDir& dir = rig.dir;
  const std::string& file = rig.config;
  const std::string& stats = rig.stats;
  const std::string& socket = rig.socket;
  TestSupport::UdpReceiver rx1{false}, rx2{true};

  // `platform` adds lines to the platform section's interfaces (and may add "  vrfs:").
  void writeConfig(const std::string& trackers, const std::string& platform = "",
                   const std::string& to = "") {
    rig.write("flow-tracking:\n  enabled: true\n  trackers:\n" + trackers +
                  "platform:\n  interfaces:\n"
                  "    Loopback0: {mtu: 65535, ipv4: 127.0.0.1/8, ipv6: [\"::1/128\"]}\n" +
                  platform,
              to);
  }
  std::string tracker(const std::string& name, const std::string& collectors,
                      int templateInterval = 5, int dscp = 0) const {
    return "    - name: " + name + "\n      exporters:\n        - name: e\n" +
           "          local-interface: Loopback0\n          template-interval: " +
           std::to_string(templateInterval) + "\n          dscp: " + std::to_string(dscp) + "\n" +
           "          collectors: [" + collectors + "]\n";
  }
  std::string c1() const { return "\"127.0.0.1:" + std::to_string(rx1.port()) + "\""; }
  std::string c2() const { return "\"[::1]:" + std::to_string(rx2.port()) + "\""; }

  std::unique_ptr<TestSupport::Daemon> startDaemon(const std::string& config = "") {
    std::vector<std::string> extra = {"--state-file", dir.file("state/ftids")};
    if (!config.empty()) extra.insert(extra.end(), {"--config", config});
    return rig.start(extra);
  }
  TestSupport::CommandResult ctl(const std::string& args) const { return rig.ctl(args); }
  // The observation domain ids of the datagrams, as tshark reads them.
  static std::string domains(const std::vector<Datagram>& d) {
    auto r = TestSupport::tsharkFields(d, {"cflow.od_id"});
    return r.status == 0 ? r.out : r.err;
  }
};

// One operator session: templates and the four options tables decoded by tshark and
// ipfixDump, the DSCP on the wire, reloads that add an interface (one update message),
// a collector and a tracker (the new ones get templates then tables, the old one nothing
// again), every message's sequence number the count of data records before it, the
// statistics as flowexportctl shows them, a broken file refused with export going on,
// clearing, and tracker ids kept across a restart.
TEST_F(AgentE2e, OperatorSession) {
  // Templates once an hour: no periodic send changes the numbers checked below.
  constexpr int kOnce = 3600;
  constexpr int kEf = 46;  // expedited forwarding: 0xb8 in the TOS / traffic class byte
  const std::string eth1 = "    Ethernet1: {link: up, forwarding-model: routed, index: 11}\n";
  const std::string eth2 = "    Ethernet2: {link: up, forwarding-model: routed, index: 12}\n";
  const std::string vrfs = "  vrfs:\n    default: active\n    red: {state: active, id: 5}\n";
  writeConfig(tracker("edge", c1(), kOnce, kEf), eth1 + vrfs);
  auto daemon = startDaemon();

  // Data templates, options templates, the tables in one message.
  std::vector<Datagram> got = rx1.drain(5000ms, 3);
  ASSERT_EQ(got.size(), 3u) << daemon->log();
  EXPECT_EQ(got[0].tos, kEf << 2) << "the configured DSCP is not on the wire (IPv4)";
  EXPECT_EQ(TestSupport::firstSetId(got[1].payload), 3);
  auto fields =
      TestSupport::tsharkFields({got[0]}, {"cflow.od_id", "cflow.sequence", "cflow.flowset_id",
                                           "cflow.template_id", "cflow.template_field_count"});
  ASSERT_EQ(fields.status, 0) << fields.err;
  EXPECT_EQ(fields.out, "1,0,2,261;262,15;15\n");
  auto dump = TestSupport::ipfixDumpDecode(got);
  ASSERT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.err, "");
  for (const char* text :
       {"sourceIPv4Address", "destinationIPv6Address", "interfaceName : (len: 9) Ethernet1",
        "interfaceName : (len: 9) Loopback0", "interfaceName : (len: 3) CPU",
        "VRFname : (len: 3) red", "VRFname : (len: 7) default", "templateId : 261",
        "templateId : 262", "observationDomainName : (len: 4) edge", "flowActiveTimeout : 300",
        "flowIdleTimeout : 15", "selectorAlgorithm : 3", "samplingPopulation : 1048576"}) {
    EXPECT_NE(dump.out.find(text), std::string::npos) << text << "\n" << dump.out;
  }
  auto verbose = TestSupport::tsharkDecode(got);
  ASSERT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_EQ(verbose.out.find("Malformed"), std::string::npos) << verbose.out;
  // No complaint; a port in traceroute's range (33434-33534) gets a Chat remark, not one.
  std::istringstream lines(verbose.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("Expert Info") != std::string::npos) {
      EXPECT_NE(line.find("(Chat/"), std::string::npos) << line << "\n" << verbose.out;
    }
  }
  EXPECT_TRUE(daemon->waitForLog("FLOWTRACKING_ACTIVE: Sampled flow tracking is active."));

  // A reload that adds an interface: one update message, within 1.5 s of the save.
  writeConfig(tracker("edge", c1(), kOnce, kEf), eth1 + eth2 + vrfs);
  const auto saved = std::chrono::steady_clock::now();
  auto update = rx1.receive(3000ms);
  ASSERT_TRUE(update) << daemon->log();
  EXPECT_LT(std::chrono::steady_clock::now() - saved, 1500ms);
  EXPECT_EQ(TestSupport::firstSetId(update->payload), 257);
  got.push_back(*update);
  EXPECT_TRUE(rx1.drain(300ms).empty());  // nothing else changed

  // A collector and a tracker added to the file: no restart; the first collector gets
  // nothing again, the new ones get the templates, then the tables.
  writeConfig(tracker("edge", c1() + ", " + c2(), kOnce, kEf) + tracker("second", c1(), kOnce),
              eth1 + eth2 + vrfs);
  const std::vector<Datagram> got6 = rx2.drain(5000ms, 3);
  ASSERT_EQ(got6.size(), 3u) << daemon->log();
  EXPECT_EQ(got6[0].tos, kEf << 2) << "the configured DSCP is not on the wire (IPv6)";
  EXPECT_EQ(domains({got6[0]}), "1\n");
  EXPECT_EQ(TestSupport::firstSetId(got6[1].payload), 3);
  EXPECT_GE(TestSupport::firstSetId(got6[2].payload), 256);
  auto fromSecond = TestSupport::ofSet(rx1.drain(500ms), 2);
  ASSERT_EQ(fromSecond.size(), 1u);
  EXPECT_EQ(domains(fromSecond), "2\n");
  // Every message's sequence number is the count of data records before it: tshark's
  // sequence analysis follows each collector's stream and flags any other number (and
  // does flag the message after one that is lost).
  auto gaps = [](const std::vector<Datagram>& seen) {
    return TestSupport::tsharkFields(seen, {"cflow.sequence_analysis.expected_sn"})
               .out.find_first_not_of("\n") != std::string::npos;
  };
  EXPECT_FALSE(gaps(got));
  EXPECT_FALSE(gaps(got6));
  EXPECT_TRUE(gaps({got[0], got[1], got[3]}));

  // Statistics as flowexportctl reads them.
  auto json = ctl("show collectors --json");
  ASSERT_EQ(json.status, 0) << json.err;
  const std::string row1 =
      "\"tracker\": \"edge\", \"exporter\": \"e\", \"collector\": "
      "\"127.0.0.1:" +
      std::to_string(rx1.port()) + "\"";
  // Data templates, options templates, the four tables in one message, the update: the
  // interface table (Loopback0, Ethernet1 and the four reserved rows, then Ethernet2), the
  // VRFs (the reserved row, default, red), the flow keys of 261 and 262, the tracker; and
  // the same interface and VRF rows and the sampling rate in the compatible layout (in the
  // totals, not per set).
  EXPECT_NE(
      json.out.find(row1 + ", \"address\": \"127.0.0.1\", \"port\": " + std::to_string(rx1.port()) +
                    ", \"messages\": 4, \"records\": 24, \"messagesByKind\": {\"templates\": 2, "
                    "\"flowData\": 0, \"optionsData\": 2}, \"recordsByKind\": {\"flowData\": 0, "
                    "\"optionsData\": 24}, \"octets\": "),
      std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find("{\"setId\": 257, \"name\": \"interface table\", \"records\": 7"),
            std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find("\"collector\": \"[::1]:" + std::to_string(rx2.port())),
            std::string::npos);
  auto table = ctl("show collectors");
  EXPECT_NE(table.out.find("second"), std::string::npos) << table.out;
  for (const char* line : {"\n    messages: 2 templates, 0 flow data, 2 options data\n",
                           "\n    set 257   interface table              7 records\n",
                           "\n    set 259   flow tracker table           1 records\n",
                           "\n    options data last sent "}) {
    EXPECT_NE(table.out.find(line), std::string::npos) << line << table.out;
  }
  // The same numbers for a metrics collector.
  auto metrics = ctl("show collectors --format prometheus");
  ASSERT_EQ(metrics.status, 0) << metrics.err;
  const std::string labels1 =
      "tracker=\"edge\",exporter=\"e\",collector=\"127.0.0.1:" + std::to_string(rx1.port()) + "\"";
  for (const std::string& line :
       {std::string("# TYPE flowexport_messages_total counter"),
        "flowexport_messages_total{" + labels1 + ",kind=\"templates\"} 2",
        "flowexport_messages_total{" + labels1 + ",kind=\"flow_data\"} 0",
        "flowexport_messages_total{" + labels1 + ",kind=\"options_data\"} 2",
        "flowexport_records_total{" + labels1 + ",kind=\"options_data\"} 24",
        "flowexport_send_errors_total{" + labels1 + "} 0",
        "flowexport_set_records_total{" + labels1 + ",set_id=\"257\"} 7",
        "flowexport_set_templates_total{" + labels1 + ",set_id=\"2\"} 2"}) {
    EXPECT_NE(metrics.out.find("\n" + line + "\n"), std::string::npos) << line << "\n"
                                                                       << metrics.out;
  }

  // A broken file is refused with file, line and field; export goes on.
  std::ofstream(file) << "flow-tracking:\n  enabled: true\n  trackers:\n    - name: edge\n"
                      << "      inactive-timeout: 1000\n";
  ASSERT_TRUE(daemon->waitForLog(
      "FLOWEXPORT_CONFIG_REFUSED: Configuration refused: " + file +
      ":5: flow-tracking.trackers[0].inactive-timeout: expected 3 to 900 seconds"))
      << daemon->log();
  // Nothing was torn down or sent again: every counter and time is as it was.
  EXPECT_EQ(ctl("show collectors --format prometheus").out, metrics.out);
  EXPECT_TRUE(rx1.drain(100ms).empty());

  // Clearing the counters.
  auto clear = ctl("clear counters");
  EXPECT_EQ(clear.status, 0) << clear.err;
  json = ctl("show collectors --json");
  EXPECT_NE(json.out.find("\"collectors\": []"), std::string::npos) << json.out;
  EXPECT_NE(json.out.find("{\"tracker\": \"edge\", \"time\": "), std::string::npos) << json.out;

  // The first tracker goes; the second keeps its id, also across a restart.
  writeConfig(tracker("second", c1(), kOnce));
  ASSERT_TRUE(daemon->waitForLog("Configuration " + file + " applied.", 5s));
  rx1.drain(200ms);
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_NE(daemon->log().find("FLOWTRACKING_INACTIVE: Sampled flow tracking is inactive."),
            std::string::npos);
  struct stat st;
  EXPECT_NE(::stat(("/dev/shm" + stats).c_str(), &st), 0) << "shared memory left behind";
  EXPECT_NE(::stat(socket.c_str(), &st), 0) << "control socket left behind";
  auto gone = ctl("clear counters");
  EXPECT_EQ(gone.status, 1);
  EXPECT_NE(gone.err.find("cannot reach flowexportd"), std::string::npos) << gone.err;

  daemon = startDaemon();
  auto again = rx1.receive(5000ms);
  ASSERT_TRUE(again) << daemon->log();
  EXPECT_EQ(domains({*again}), "2\n");  // a fresh allocation would have given 1
  // Killed without its cleanup, it leaves its counters in shared memory: flowexportctl
  // shows them as the dead daemon's, with their time, and fails.
  ASSERT_EQ(ctl("show collectors").status, 0);
  const pid_t pid = daemon->pid();
  daemon->signal(SIGKILL);
  daemon->wait();
  auto shown = ctl("show collectors");
  ::shm_unlink(stats.c_str());
  ::unlink(("/dev/shm" + stats + ".lock").c_str());
  EXPECT_EQ(shown.status, 1);
  EXPECT_NE(shown.err.find("flowexportctl: flowexportd (pid " + std::to_string(pid) +
                           ") is not running; statistics as of 20"),
            std::string::npos)
      << shown.err;
  EXPECT_NE(shown.out.find("127.0.0.1:" + std::to_string(rx1.port())), std::string::npos)
      << shown.out;
}

// `--check` tells whether a file is valid, and the unit's reload runs it first: reloading
// a file the daemon would refuse fails, with the line, before the daemon is signalled.
TEST_F(AgentE2e, TheUnitsReloadChecksTheFileFirst) {
  writeConfig(tracker("edge", c1(), 3600));
  auto daemon = startDaemon();
  ASSERT_TRUE(daemon->waitForLog("FLOWEXPORT_CONFIG_LOADED", 5s)) << daemon->log();
  std::ifstream unit(UNIT_PATH);
  std::string reload;
  for (std::string line; std::getline(unit, line);) {
    if (line.rfind("ExecReload=", 0) == 0)
      reload += (reload.empty() ? "" : " && ") + line.substr(11);
  }
  auto replace = [&](const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = reload.find(from, at)) != std::string::npos; at += to.size()) {
      reload.replace(at, from.size(), to);
    }
  };
  replace("/usr/sbin/flowexportd", FLOWEXPORTD);
  replace("/etc/flowexport/flowexport.yaml", file);
  replace("$MAINPID", std::to_string(daemon->pid()));
  reload = "sh -c '" + reload + "'";
  auto good = TestSupport::runCommand(reload);
  EXPECT_EQ(good.status, 0) << reload << "\n" << good.err;
  EXPECT_EQ(good.out, "flowexportd: " + file + " is valid\n");
  EXPECT_TRUE(daemon->waitForLog("FLOWEXPORT_CONFIG_UNCHANGED", 5s)) << daemon->log();
  std::ofstream(file + ".bad") << "flow-tracking:\n  enabled: true\n  trackers:\n    - name: edge\n"
                               << "      inactive-timeout: 1000\n";
  replace(file, file + ".bad");
  auto bad = TestSupport::runCommand(reload);
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "flowexportd: configuration refused: " + file +
                         ".bad:5: flow-tracking.trackers[0].inactive-timeout: expected 3 to 900 "
                         "seconds\n");
  // Not signalled: the one reload the daemon logged is the first one's.
  std::this_thread::sleep_for(300ms);
  const std::string log = daemon->log();
  const auto first = log.find("FLOWEXPORT_CONFIG_UNCHANGED");
  EXPECT_EQ(log.find("FLOWEXPORT_CONFIG_UNCHANGED", first + 1), std::string::npos) << log;
}

// A signal that arrives while the daemon is still starting (here: applying a file with
// 20,000 interfaces) waits for the loop: SIGHUP then reloads once started, SIGTERM stops
// cleanly. Before, either one killed the half-started process and left its shared
// memory behind.
TEST_F(AgentE2e, SignalsDuringStartAreAnsweredOnceStarted) {
  {
    std::ofstream out(file);
    out << "flow-tracking:\n  enabled: true\n  trackers:\n"
        << tracker("t", c1()) << "  interfaces:\n";
    for (int i = 0; i < 20000; ++i)
      out << "    Ethernet" << i / 100 + 1 << "/" << i % 100 + 1 << ": t\n";
    out << "platform:\n  interfaces:\n    Loopback0: {mtu: 65535, ipv4: 127.0.0.1/8}\n";
  }
  // The agent's signals (HUP, INT, TERM) are blocked, as /proc shows.
  auto blocked = [](pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("SigBlk:", 0) == 0) {
        const unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
        return (mask & 0x4003) == 0x4003;
      }
    }
    return false;
  };
  auto waitBlocked = [&](const TestSupport::Daemon& d) {
    for (int i = 0; i < 1000 && !blocked(d.pid()); ++i) std::this_thread::sleep_for(1ms);
    return blocked(d.pid());
  };
  const std::string applied = "Configuration " + file + " applied.";
  auto count = [](const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  };

  auto daemon = startDaemon();
  ASSERT_TRUE(waitBlocked(*daemon));
  ASSERT_EQ(daemon->log().find(applied), std::string::npos)
      << "started before the signals were blocked";
  daemon->signal(SIGHUP);
  ASSERT_TRUE(daemon->waitForLog(applied, 30s)) << daemon->log();
  // The reload reads the file again and finds what it runs on: nothing is applied twice.
  EXPECT_TRUE(daemon->waitForLog("Configuration " + file + " is unchanged; nothing to apply.", 30s))
      << "the SIGHUP did not reload once started";
  EXPECT_EQ(count(daemon->log(), applied), 1u);
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(30s), 0);

  daemon = startDaemon();
  ASSERT_TRUE(waitBlocked(*daemon));
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(30s), 0) << daemon->log();
  struct stat st;
  EXPECT_NE(::stat(("/dev/shm" + stats).c_str(), &st), 0) << "shared memory left behind";
  EXPECT_NE(::stat(socket.c_str(), &st), 0) << "control socket left behind";
}

// Saving the file is a reload, also where the file is a symbolic link into another
// directory, and after the configuration directory itself was replaced.
TEST_F(AgentE2e, ReloadsFollowALinkedFileAndAReplacedDirectory) {
  const std::string real = dir.file("real"), conf = dir.file("conf");
  ASSERT_EQ(::mkdir(real.c_str(), 0700), 0);
  ASSERT_EQ(::mkdir(conf.c_str(), 0700), 0);
  writeConfig(tracker("one", c1()), "", real + "/a.yaml");
  ASSERT_EQ(::symlink("../real/a.yaml", (conf + "/flowexport.yaml").c_str()), 0);
  auto daemon = startDaemon(conf + "/flowexport.yaml");
  ASSERT_TRUE(rx1.receive(5000ms)) << daemon->log();
  auto active = [](const std::string& t) {
    return "FLOWTRACKING_EXPORTER_ACTIVE: Sampled exporter e in VRF default, in Sampled flow "
           "tracker " +
           t + " is active.";
  };

  writeConfig(tracker("one", c1()) + tracker("two", c1()), "", real + "/a.yaml");
  EXPECT_TRUE(daemon->waitForLog(active("two"), 5s)) << daemon->log();

  ASSERT_EQ(::rename(conf.c_str(), (conf + ".old").c_str()), 0);
  ASSERT_EQ(::mkdir(conf.c_str(), 0700), 0);
  writeConfig(tracker("three", c1()), "", conf + "/flowexport.yaml");
  EXPECT_TRUE(daemon->waitForLog(active("three"), 5s)) << daemon->log();
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 0);
}

// A second daemon with the same statistics name or control socket refuses to start
// and leaves the running one's table and socket alone.
TEST_F(AgentE2e, ASecondDaemonLeavesTheFirstOneAlone) {
  writeConfig(tracker("t", c1()));
  auto first = startDaemon();
  ASSERT_TRUE(rx1.receive(5000ms)) << first->log();
  struct Case {
    std::string statsName, socketPath, refusal;
  };
  const Case cases[] = {
      {stats, dir.file("other.sock"), "another flowexportd uses statistics name " + stats},
      {stats + "-other", socket, "another flowexportd uses control socket " + socket},
  };
  for (const Case& c : cases) {
    TestSupport::Daemon second(FLOWEXPORTD,
                               {"--config", file, "--state-file", dir.file("state/other"),
                                "--stats-name", c.statsName, "--control-socket", c.socketPath},
                               dir.file("second.log"));
    EXPECT_EQ(second.wait(), 1);
    EXPECT_NE(second.log().find(c.refusal), std::string::npos) << second.log();
    auto shown = ctl("show collectors");
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(ctl("clear counters").status, 0);
  }
  first->signal(SIGTERM);
  EXPECT_EQ(first->wait(), 0);
}

// Every flow tracker row and every sampling record on the wire carries the configured
// timeouts and rate: on a first start, on a restart that finds the tracker in the state
// file (created there with the defaults before the file's values arrive), and after a
// reload that changes them. nfdump reads the rate of the chip's records from the
// compatible layout alone (its sampler of the observation domain).
TEST_F(AgentE2e, EveryTrackerRowOnTheWireCarriesTheConfiguredValues) {
  auto config = [&](int active, int idle, int rate, uint16_t nfcapd) {
    rig.write("flow-tracking:\n  enabled: true\n  sample-rate: " + std::to_string(rate) +
              "\n  trackers:\n    - name: edge\n      active-interval: " + std::to_string(active) +
              "\n      inactive-timeout: " + std::to_string(idle) +
              "\n      exporters:\n        - name: e\n          local-interface: Loopback0\n"
              "          collectors: [" +
              c1() + ", \"127.0.0.2:" + std::to_string(nfcapd) +
              "\"]\nplatform:\n  interfaces:\n    Loopback0: {ipv4: 127.0.0.1/8}\n");
  };
  // The values of every tracker row and sampling record in `got`, as ipfixDump reads them.
  auto rows = [](const std::vector<Datagram>& got) {
    auto dump = TestSupport::ipfixDumpDecode(got);
    EXPECT_EQ(dump.err, "");
    std::set<std::string> values;
    for (const auto& r : TestSupport::ipfixDumpRecords(dump.out, {259, 65280})) {
      values.insert(r.count("samplingInterval")
                        ? "interval " + r.at("samplingInterval")
                        : r.at("flowActiveTimeout") + " " + r.at("flowIdleTimeout") + " " +
                              r.at("samplingPopulation"));
    }
    return values;
  };
  const std::set<std::string> configured = {"60 5 4096", "interval 4096"};
  for (int start = 0; start < 2; ++start) {
    SCOPED_TRACE(start ? "restart with the state file" : "first start");
    TestSupport::Nfcapd nfcapd("127.0.0.2");
    config(60, 5, 4096, nfcapd.port());
    auto daemon = startDaemon();
    std::vector<Datagram> got;
    for (auto d = rx1.receive(5000ms); d; d = rx1.receive(3500ms)) got.push_back(*d);
    EXPECT_EQ(rows(got), configured);
    if (start == 1) {
      // A reload to other values: the new rate goes out at once, then the rest.
      config(120, 30, 8192, nfcapd.port());
      auto after = TestSupport::ofSet(got, 3);  // the options templates, for the decoder
      for (auto d = rx1.receive(3000ms); d; d = rx1.receive(1500ms)) after.push_back(*d);
      EXPECT_EQ(rows(after), (std::set<std::string>{"120 30 8192", "interval 8192"}))
          << daemon->log();
    }
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
    if (!TestSupport::collectorsMissing().empty()) continue;
    const std::string exporters = nfcapd.exporters();
    EXPECT_NE(
        exporters.find("Generic Sampler: algorithm: 0, packet interval: 1, packet space: 4095"),
        std::string::npos)
        << exporters;
  }
}

}  // namespace
