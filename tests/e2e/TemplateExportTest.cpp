// The first end-to-end export: operator configuration through the configuration
// reactors to the hardware configuration, hardware status with two flow groups, real
// UDP endpoints sending to collectors on 127.0.0.1 and ::1, the scheduler on a manual
// clock. What arrives is decoded by tshark and ipfixDump; the statistics are read by a
// second process through the reader API.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/ConfigWorld.h"
#include "tests/support/Decoders.h"
#include "tests/support/ExportWorld.h"

namespace {

using namespace std::chrono_literals;
using Ipfix::RecordType;
using TestSupport::Datagram;
using TestSupport::FieldSpec;

// Reads the statistics table in a child process through the reader API and returns one
// line per entry: "tracker exporter collector msgs=N octets=N templates=N cleared=0|1".
std::vector<std::string> readStatsInAnotherProcess(const std::string& shmName) {
  int fds[2];
  if (::pipe(fds) != 0) return {"pipe failed"};
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    std::string out;
    try {
      Stova::Ipfix::CollectorStatisticsReader reader(Stova::Segment::open(shmName));
      for (const auto& e : reader.all()) {
        out += Zub::str(e.key.stovaString(), " msgs=", e.exportedMessageTotalCount,
                        " octets=", e.exportedOctetTotalCount,
                        " templates=", e.setEntry(Stova::Ipfix::SetId(2)).exportedTemplateCount,
                        " cleared=", e.lastClearedTime > 0 ? 1 : 0, "\n");
      }
    } catch (const std::exception& ex) {
      out = std::string("error: ") + ex.what() + "\n";
    }
    ssize_t n = ::write(fds[1], out.data(), out.size());
    ::_exit(n == static_cast<ssize_t>(out.size()) ? 0 : 1);
  }
  ::close(fds[1]);
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = ::read(fds[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  ::close(fds[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    lines.push_back(text.substr(pos, nl - pos));
    pos = nl + 1;
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST(TemplateExportE2e, TemplatesReachRealCollectorsAndDecode) {
  TestSupport::UdpReceiver rx4(false), rx6(true);
  const std::string shm = "/flowexport-e2e-" + std::to_string(::getpid());

  // Operator configuration and platform status.
  TestSupport::ConfigWorld cw;
  cw.localIntf("Loopback0", 65535, "127.0.0.1/8", {"::1/128"});
  cw.config->enabledIs(true);
  cw.start();
  cw.sm->resolverIs(std::make_shared<FlowTracking::SystemResolver>());
  cw.exporter("T", "E", "Loopback0");
  cw.collector("T", "E", "127.0.0.1", rx4.port());
  cw.collector("T", "E", "::1", rx6.port());
  auto hwExp = cw.hwExporter("T", "E");
  ASSERT_TRUE(hwExp->exporterReady());
  const uint32_t ftId = cw.ftId("T");

  // The export side on the same hardware configuration; the chip's template lists.
  TestSupport::ExportWorld ew(true, cw.hwConfig, shm);
  ew.flowGroup("T", 261,
               {{RecordType::srcIp, 4, false, true},
                {RecordType::dstIp, 4, false, true},
                {RecordType::byteCount, 8},
                {RecordType::innerSrcIp, 4, true}});
  ew.flowGroup("T", 262, {{RecordType::srcIp6, 16, false, true}, {RecordType::packetCount, 8}});
  ew.start();

  // Each collector gets the data template message and the options template message.
  auto all4 = rx4.drain(300ms);
  auto all6 = rx6.drain(300ms);
  auto got4 = TestSupport::ofSet(all4, 2);
  auto got6 = TestSupport::ofSet(all6, 2);
  ASSERT_EQ(got4.size(), 1u);
  ASSERT_EQ(got6.size(), 1u);
  EXPECT_EQ(TestSupport::ofSet(all4, 3).size(), 1u);
  EXPECT_EQ(TestSupport::ofSet(all6, 3).size(), 1u);
  EXPECT_EQ(got4[0].src.stringValue(), "127.0.0.1");
  EXPECT_EQ(got6[0].src.stringValue(), "::1");
  EXPECT_EQ(got4[0].payload, got6[0].payload);  // one message for every collector
  std::vector<Datagram> both = {got4[0], got6[0]};

  auto fields = TestSupport::tsharkFields(
      both, {"cflow.version", "cflow.od_id", "cflow.sequence", "cflow.flowset_id",
             "cflow.template_id", "cflow.template_field_count", "cflow.template_ipfix_field_type",
             "cflow.template_field_length", "cflow.template_ipfix_field_type_enterprise",
             "cflow.template_ipfix_field_pen"});
  ASSERT_EQ(fields.status, 0) << fields.err;
  // version, domain, sequence, set id, template ids, field counts, standard field ids,
  // all field lengths, enterprise field id, its enterprise number.
  const std::string expectLine =
      Zub::str("10,", ftId, ",0,2,261;262,4;2,8;12;1;27;2,4;4;8;4;16;8,1024,32473\n");
  EXPECT_EQ(fields.out, expectLine + expectLine);
  auto verbose = TestSupport::tsharkDecode(both);
  ASSERT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_EQ(verbose.out.find("Malformed"), std::string::npos) << verbose.out;
  EXPECT_EQ(verbose.out.find("Expert Info"), std::string::npos) << verbose.out;

  auto dump = TestSupport::ipfixDumpDecode(both);
  ASSERT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.err, "");
  EXPECT_NE(dump.out.find(Zub::str("observation domain id: ", ftId)), std::string::npos)
      << dump.out;
  EXPECT_NE(dump.out.find("tid:   261"), std::string::npos) << dump.out;
  EXPECT_NE(dump.out.find("tid:   262"), std::string::npos) << dump.out;
  EXPECT_NE(dump.out.find("ent: 32473  id:  1024"), std::string::npos) << dump.out;
  EXPECT_NE(dump.out.find("sourceIPv6Address"), std::string::npos) << dump.out;

  // The sequence number is the collector's count of data records.
  auto info4 = ew.collInfo("T", "E", "127.0.0.1");
  info4->channel4()->ipfixMsgSeqNoInc(5);
  // A shorter interval: sent at once, then every 5 s.
  cw.config->flowTrackerConfig("T")->expConfig("E")->templateIntervalIs(
      FlowTracking::TemplateInterval(5000));
  EXPECT_EQ(rx4.drain(200ms).size(), 2u);  // data and options templates
  EXPECT_EQ(rx6.drain(200ms).size(), 2u);
  ew.advance(5);
  auto again = TestSupport::ofSet(rx4.drain(200ms), 2);
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(TestSupport::ofSet(rx6.drain(200ms), 2).size(), 1u);
  auto seq = TestSupport::tsharkFields(again, {"cflow.sequence"});
  EXPECT_EQ(seq.out, "5\n");

  // A new generation of a flow group rebuilds the template.
  auto fg = ew.hwStatus->hwFtStatus("T")->hwFgStatus(FlowTracking::TemplateId(262));
  fg->templateEntryIs(2, RecordType::dstIp6)->fieldLenIs(16);
  fg->genIdIs(fg->genId() + 1);
  ew.run();
  auto rebuilt = rx6.drain(200ms);
  ASSERT_EQ(rebuilt.size(), 1u);
  EXPECT_EQ(rx4.drain(200ms).size(), 1u);
  auto counts = TestSupport::tsharkFields(rebuilt, {"cflow.template_field_count"});
  EXPECT_EQ(counts.out, "4;3\n");

  // A second process reads the statistics.
  auto stats = readStatsInAnotherProcess(shm);
  ASSERT_EQ(stats.size(), 2u) << (stats.empty() ? "" : stats[0]);
  // Data templates four times each (at start, interval change, period, new generation);
  // options templates (96 bytes) three times, the generation being no change of theirs.
  // "templates=" counts the data templates.
  EXPECT_EQ(stats[0], Zub::str("T E 127.0.0.1:", rx4.port(),
                               " msgs=7 octets=", 3 * 56 + 60 + 3 * 96, " templates=8 cleared=0"));
  EXPECT_EQ(stats[1], Zub::str("T E [::1]:", rx6.port(), " msgs=7 octets=", 3 * 56 + 60 + 3 * 96,
                               " templates=8 cleared=0"));

  // A clear request leaves only the tracker's clear-time marker.
  ew.configReq->clearCountersIs(FlowTracking::ClearCountersReq{"", "", Zub::System::now()});
  EXPECT_EQ(readStatsInAnotherProcess(shm),
            std::vector<std::string>{"T  unspecified:0 msgs=0 octets=0 templates=0 cleared=1"});

  // Removing the last flow group stops the data template sends; the options templates
  // go on every period.
  ew.hwStatus->hwFtStatus("T")->hwFgStatusDelAll();
  ew.run();
  ew.advance(20);
  auto after4 = rx4.drain(200ms);
  EXPECT_TRUE(TestSupport::ofSet(after4, 2).empty());
  EXPECT_EQ(TestSupport::ofSet(after4, 3).size(), after4.size());
  EXPECT_FALSE(after4.empty());
  EXPECT_TRUE(TestSupport::ofSet(rx6.drain(200ms), 2).empty());
  EXPECT_FALSE(ew.ftExporterSm("T", "E")->templateReady());
}

}  // namespace
