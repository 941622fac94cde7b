// Data templates and their delivery, with recording endpoints on a manual clock.

#include <gtest/gtest.h>

#include "platform/nelo/IpfixHeaders.h"
#include "tests/support/Bytes.h"
#include "tests/support/ExportWorld.h"

namespace {

using Ipfix::RecordType;
using TestSupport::ExportWorld;
using TestSupport::FieldSpec;
using TestSupport::hexBytes;
using TestSupport::toHex;

const std::vector<FieldSpec> kIpv4Fields = {
    {RecordType::srcIp, 4, false, true},     {RecordType::dstIp, 4, false, true},
    {RecordType::srcL4Port, 2, false, true}, {RecordType::byteCount, 8},
    {RecordType::innerSrcIp, 4, true},
};
const std::vector<FieldSpec> kIpv6Fields = {{RecordType::srcIp6, 16, false, true}};

uint32_t seqOf(const std::string& bytes) {
  return Nelo::NetU32::read(reinterpret_cast<const uint8_t*>(bytes.data()) + 8);
}

class TemplateTest : public ::testing::Test {
 protected:
  ExportWorld w;
  void SetUp() override {
    w.exporter("T", 7, "E", "10.0.0.1", "2001:db8::1");
    w.flowGroup("T", 262, kIpv6Fields);
    w.flowGroup("T", 261, kIpv4Fields);
    w.start();
  }
};

TEST_F(TemplateTest, TemplateMessageMatchesTheHandWrittenBytes) {
  w.collector4("T", "E", "c4", "192.0.2.1", 4739);
  w.run();
  auto sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].pam, "udpPam4-T-E");
  EXPECT_EQ(sent[0].src, "10.0.0.1");
  EXPECT_EQ(sent[0].dst, "192.0.2.1:4739");
  const std::string expected = hexBytes(
      "000a 0038 | 6b49d200 | 00000000 | 00000007"  // version, length 56, time, seq, domain 7
      "0002 0028"                                   // template set, length 40
      "0105 0005 | 0008 0004 | 000c 0004 | 0007 0002 | 0001 0008"  // 261: five fields
      "8400 0004 00007ed9"       // innerSrcIp: enterprise bit and PEN 32473
      "0106 0001 | 001b 0010");  // 262: sourceIPv6Address
  EXPECT_EQ(toHex(sent[0].bytes), toHex(expected));
  auto sm = w.ftExporterSm("T", "E");
  EXPECT_EQ(sm->templatePktTemplateCount(), 2);
  EXPECT_EQ(sm->templatePktMsgLen(), 56);
  EXPECT_EQ(sm->templateLen().at(FlowTracking::TemplateId(261)), 28u);
  EXPECT_EQ(sm->templateLen().at(FlowTracking::TemplateId(262)), 8u);
  EXPECT_EQ(sm->periodicTemplateTxTask()->name(), "ftExporterSm-PeriodicTxTask-E-T");
  EXPECT_EQ(sm->templateCreationTask()->name(), "ftExporterSm-TemplateCreationTask-T-E");
}

TEST_F(TemplateTest, SendsToBothFamiliesThenPeriodicallyAndCountsEachSend) {
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.collector4("T", "E", "b", "192.0.2.2", 4739);
  w.collector6("T", "E", "c", "2001:db8::9", 4740);
  w.run();
  auto sm = w.ftExporterSm("T", "E");
  EXPECT_EQ(w.recorder.take(2).size(), 3u);
  EXPECT_EQ(sm->templateTxCount(), 3u);
  EXPECT_TRUE(sm->sending4());
  EXPECT_TRUE(sm->sending6());
  w.advance(3599);
  EXPECT_TRUE(w.recorder.take(2).empty());
  w.advance(1);  // the default interval: one hour
  auto sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 3u);
  // Each pass sends to all IPv4 collectors, then to all IPv6 collectors.
  EXPECT_EQ(sent[2].pam, "udpPam6-T-E");
  EXPECT_EQ(sent[2].src, "2001:db8::1");
  EXPECT_EQ(sent[2].dst, "[2001:db8::9]:4740");
  EXPECT_EQ(sm->templateTxCount(), 6u);

  const Stova::Ipfix::CollectorStatisticsKey key(
      Stova::Ipfix::CollectorInfo::fromIpAndPort({Nelo::IpAddr("192.0.2.1"), 4739}), "T", "E");
  auto entry = w.stats->stats(key);
  // Two passes, each with the data template message (56 bytes, two templates) and the
  // options template message (170 bytes, four templates and the three compatible ones,
  // each in its own set).
  EXPECT_EQ(entry.exportedMessageTotalCount, 4u);
  EXPECT_EQ(entry.exportedOctetTotalCount, 2u * 56 + 2u * 170);
  EXPECT_EQ(entry.exportedFlowRecordTotalCount, 0u);
  EXPECT_EQ(entry.setEntry(Stova::Ipfix::SetId(2)).exportedTemplateCount, 4u);
  EXPECT_EQ(entry.setEntry(Stova::Ipfix::SetId(3)).exportedTemplateCount, 14u);
  EXPECT_EQ(entry.lastTemplateSentTime, Zub::System::now());
  EXPECT_EQ(entry.lastSentTime, Zub::System::now());
  EXPECT_EQ(w.stats->statsSize(), 3u);
}

TEST_F(TemplateTest, SequenceNumberIsTheCollectorsCountAndIsNotAdvanced) {
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.run();
  w.recorder.take(2);
  auto info = w.collInfo("T", "E", "a");
  info->channel4()->ipfixMsgSeqNoIs(Ipfix::IpfixMsgSeqNo(4242));
  w.ftExporterSm("T", "E")->handleTemplateInterval();
  auto sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(seqOf(sent[0].bytes), 4242u);
  EXPECT_EQ(info->channel4()->ipfixMsgSeqNo().value, 4242u);
}

TEST_F(TemplateTest, NoSourceAddressMeansNoSendAndNoPeriodicTask) {
  auto hw = w.hwConfig->hwFtConfig("T")->expConfig("E");
  hw->srcIpAddrIs(Nelo::IpAddr());
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.run();
  auto sm = w.ftExporterSm("T", "E");
  EXPECT_EQ(w.recorder.count(2), 0u);
  EXPECT_FALSE(sm->periodicTemplateTxTask()->scheduled());
  EXPECT_TRUE(sm->templateReady());
  // The source address arriving sends at once and starts the period.
  hw->srcIpAddrIs(Nelo::IpAddr("10.0.0.5"));
  EXPECT_EQ(w.recorder.take(2).size(), 1u);
  EXPECT_TRUE(sm->periodicTemplateTxTask()->scheduled());
  // Not ready: the next pass sends nothing and stops the task.
  hw->exporterReadyIs(false);
  EXPECT_FALSE(sm->periodicTemplateTxTask()->scheduled());
  EXPECT_EQ(w.recorder.count(2), 0u);
}

TEST_F(TemplateTest, RemovingACollectorSendsNothingAndKeepsThePeriod) {
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.collector4("T", "E", "b", "192.0.2.2", 4739);
  w.run();
  w.recorder.take(2);
  auto sm = w.ftExporterSm("T", "E");
  w.hwConfig->hwFtConfig("T")->expConfig("E")->collectorIpAndPortDel("b");
  w.run();
  EXPECT_EQ(w.recorder.count(2), 0u);
  EXPECT_TRUE(sm->sending4());
  EXPECT_TRUE(sm->periodicTemplateTxTask()->scheduled());
  EXPECT_FALSE(w.collInfo("T", "E", "b"));
  w.advance(3600);
  auto sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].dst, "192.0.2.1:4739");
}

TEST_F(TemplateTest, IntervalChangeSendsAtOnceAndTruncatesToSeconds) {
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.run();
  w.recorder.take(2);
  w.hwConfig->hwFtConfig("T")->expConfig("E")->templateIntervalIs(
      FlowTracking::TemplateInterval(5999));
  EXPECT_EQ(w.recorder.take(2).size(), 1u);
  w.advance(4.9);
  EXPECT_EQ(w.recorder.count(2), 0u);
  w.advance(0.1);  // 5999 ms runs every 5 s
  EXPECT_EQ(w.recorder.take(2).size(), 1u);
  w.advance(5);
  EXPECT_EQ(w.recorder.take(2).size(), 1u);
}

TEST_F(TemplateTest, NewGenerationRebuildsAndTheLastGroupGoneStopsSending) {
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.run();
  w.recorder.take(2);
  auto fg = w.hwStatus->hwFtStatus("T")->hwFgStatus(FlowTracking::TemplateId(262));
  fg->templateEntryIs(1, RecordType::dstIp6)->fieldLenIs(16);
  w.run();
  EXPECT_EQ(w.recorder.count(2), 0u);  // entries alone are not a new template
  fg->genIdIs(2);
  w.run();
  auto sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].bytes.size(), 56u + 4);
  auto sm = w.ftExporterSm("T", "E");
  w.hwStatus->hwFtStatus("T")->hwFgStatusDel(FlowTracking::TemplateId(262));
  w.run();
  EXPECT_EQ(w.recorder.take(2).size(), 1u);
  EXPECT_EQ(sm->templatePktTemplateCount(), 1);
  w.hwStatus->hwFtStatus("T")->hwFgStatusDel(FlowTracking::TemplateId(261));
  w.run();
  EXPECT_EQ(w.recorder.count(2), 0u);
  EXPECT_FALSE(sm->templateReady());
  EXPECT_EQ(sm->templatePktMsgLen(), 0);
  EXPECT_FALSE(sm->periodicTemplateTxTask()->scheduled());
  w.advance(7200);
  EXPECT_EQ(w.recorder.count(2), 0u);
}

TEST_F(TemplateTest, TemplatesThatDoNotFitTheMessageSizeAreNotSent) {
  std::vector<FieldSpec> many;
  for (int i = 0; i < 120; ++i) many.push_back({RecordType::packetCount, 8});
  w.flowGroup("T", 300, many);  // 484 bytes of template records
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  auto hw = w.hwConfig->hwFtConfig("T")->expConfig("E");
  hw->ipfixMtuIs(FlowTracking::IpfixMtu(512));  // messages of at most 464 bytes
  w.run();
  w.recorder.take(2);
  auto sm = w.ftExporterSm("T", "E");
  EXPECT_FALSE(sm->templateReady());
  hw->ipfixMtuIs(FlowTracking::IpfixMtu(1500));
  w.run();
  auto sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].bytes.size(), 56u + 484);
}

TEST(TemplateSmBaseDeathTest, DerivedClassesMustOverride) {
  ExportWorld w;
  auto hw = w.exporter("T", 1, "E", "10.0.0.1");
  Zub::Ptr<FlowTracking::ExporterInfo> info(new FlowTracking::ExporterInfo("E"));
  Zub::Ptr<FlowTracking::TemplateExporterSmBase> base(new FlowTracking::TemplateExporterSmBase(
      "T", "E", FlowTracking::FtId(1), hw, info, nullptr, w.sched));
  EXPECT_DEATH(base->taskPrefix(), "ASSERTION FAILED: \\(!\\(\"taskPrefix\"\\)\\)");
  EXPECT_DEATH(base->headerSetId(), "ASSERTION FAILED: \\(!\\(\"headerSetId\"\\)\\)");
}

TEST(TemplateSmBaseDeathTest, AFieldSpecifierNeverWritesPastItsPacket) {
  ExportWorld w;
  auto hw = w.exporter("T", 1, "E", "10.0.0.1");
  auto fg = w.flowGroup("T", 261, {{RecordType::innerSrcIp, 4, true}});
  Zub::Ptr<FlowTracking::ExporterInfo> info(new FlowTracking::ExporterInfo("E"));
  auto sm = Zub::makeReactor<FlowTracking::FtExporterSm>(
      "T", "E", FlowTracking::FtId(1), hw, info, nullptr, w.sched, w.hwStatus->hwFtStatus("T"));
  const auto& entry = *fg->templateEntry(0);
  auto pkt = Nelo::globalPktManager().newPkt(12);
  EXPECT_EQ(sm->addTemplateFieldSpecifier(pkt, 4, entry), 8u);  // an enterprise element
  EXPECT_EQ(toHex(pkt->bytesString().substr(4)), toHex(hexBytes("8400 0004 00007ed9")));
  EXPECT_DEATH(sm->addTemplateFieldSpecifier(pkt, 8, entry), "offset \\+ n <= bytes_");
}

// A collector gets the templates exactly once when it is added, whichever of the
// endpoint and template reactors was created (and so subscribed) first: the collector
// information is created inside the notification of the collector itself.
class CreationOrderTest : public ::testing::TestWithParam<bool> {};

TEST_P(CreationOrderTest, ACollectorGetsTheTemplatesOnceWhenAdded) {
  ExportWorld w;
  w.exporter("T", 7, "E", "10.0.0.1", "2001:db8::1");
  w.flowGroup("T", 261, kIpv4Fields);
  w.start(/*templatesFirst=*/GetParam());
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.collector6("T", "E", "b", "2001:db8::9", 4740);
  w.run();
  auto sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].dst, "192.0.2.1:4739");
  EXPECT_EQ(sent[1].dst, "[2001:db8::9]:4740");
  // A new destination is a new collector to the wire; an unchanged one is not.
  w.collector4("T", "E", "a", "192.0.2.7", 4739);
  w.collector4("T", "E", "a", "192.0.2.7", 4739);
  sent = w.recorder.take(2);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].dst, "192.0.2.7:4739");
  w.advance(3599);
  EXPECT_EQ(w.recorder.count(2), 0u);
}

INSTANTIATE_TEST_SUITE_P(EndpointsFirstOrTemplatesFirst, CreationOrderTest, ::testing::Bool());

}  // namespace
