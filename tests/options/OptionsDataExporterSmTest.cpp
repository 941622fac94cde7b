// The options data exporter on a manual clock, with hand-made sources and recording
// endpoints; every behaviour for IPv4 and IPv6 collectors from one definition.

#include <gtest/gtest.h>

#include "export/Trace.h"
#include "options/OptionsDataExporterSm.h"
#include "platform/nelo/IpfixHeaders.h"
#include "tests/support/ExportWorld.h"

namespace {

using namespace FlowTracking;
using TestSupport::ExportWorld;
using TestSupport::SentPkt;

// Fixed-size records, so a test can count the records of a set from its length.
constexpr uint32_t kIntfRecordLen = 8;   // ingressInterface, interfaceName "EtN" (1 + 3)
constexpr uint32_t kFtRecordLen = 20;    // the flow tracker table's seven fields, name "T"
constexpr uint32_t kFlowRecordLen = 61;  // an IPv4 flow record of template 261

Zub::Ptr<const DataRecord> intfRecord(uint32_t ifindex) {
  Zub::Ptr<DataRecord> r(new DataRecord());
  r->appendU32(ifindex);
  r->appendU8(3);
  r->append("Et", 2);
  r->appendU8(static_cast<uint8_t>('0' + ifindex % 10));
  return r;
}

Zub::Ptr<const DataRecord> ftRecord(uint32_t domain) {
  Zub::Ptr<DataRecord> r(new DataRecord());
  r->appendU32(domain);
  r->appendU8(1);
  r->append("T", 1);
  r->appendU16(60);    // active timeout, s
  r->appendU16(15);    // idle timeout, s
  r->appendU16(3);     // random n-out-of-N sampling
  r->appendU32(1);     // sampling size
  r->appendU32(1024);  // sampling population
  return r;
}

uint32_t seqOf(const SentPkt& p) {
  return Nelo::NetU32::read(reinterpret_cast<const uint8_t*>(p.bytes.data()) + 8);
}

// Data records in a message of options data (sets 257 and 259 of fixed-size records).
uint32_t recordsOf(const SentPkt& p) {
  uint32_t n = 0;
  for (size_t off = 16; off + 4 <= p.bytes.size();) {
    const auto* b = reinterpret_cast<const uint8_t*>(p.bytes.data()) + off;
    const uint16_t id = Nelo::NetU16::read(b);
    const uint16_t len = Nelo::NetU16::read(b + 2);
    if (id == 257) n += (len - 4) / kIntfRecordLen;
    if (id == 259) n += (len - 4) / kFtRecordLen;
    if (id == 261) n += (len - 4) / kFlowRecordLen;
    off += len;
  }
  return n;
}

uint16_t firstSetOf(const SentPkt& p) {
  return Nelo::NetU16::read(reinterpret_cast<const uint8_t*>(p.bytes.data()) + 16);
}

class OptionsExportTest : public ::testing::TestWithParam<bool> {
 protected:
  ExportWorld w;
  Zub::Ptr<OptionsDataContainer> container{new OptionsDataContainer("T")};
  Zub::Ptr<OptionsDataSourceColl> global{new OptionsDataSourceColl(OptionsDataScope::scopeGlobal)};
  Zub::Ptr<OptionsDataSourceColl> tracker{
      new OptionsDataSourceColl(OptionsDataScope::scopeTracker)};
  Zub::Ptr<OptionsDataUpdate> globalUpdate{new OptionsDataUpdate(OptionsDataScope::scopeGlobal)};
  Zub::Ptr<OptionsDataSource> intfTable;
  Zub::Ptr<OptionsDataSource> ftTable;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hw;
  Zub::Ptr<OptionsDataExporterSm> sm;

  bool v6() const { return GetParam(); }

  void SetUp() override {
    hw = w.exporter("T", 7, "E", "10.0.0.1", "2001:db8::1");
    hw->ipfixMtuIs(IpfixMtu(1500));  // messages of at most 1452 bytes
    w.hwConfig->hwFtConfig("T")->activeIntervalIs(ActiveInterval(60000));
    w.flowGroup("T", 261, {{Ipfix::RecordType::srcIp, 4}});
    container->dataIs(global);
    container->dataIs(tracker);
    container->updateIs(globalUpdate);
    intfTable = global->sourceIs("InterfaceTable", TemplateId(257));
    ftTable = tracker->sourceIs("FlowTrackerTable", TemplateId(259));
    for (uint32_t i = 1; i <= 3; ++i) intfTable->dataRecordIs(intfRecord(i));
    ftTable->dataRecordIs(ftRecord(7));
    intfTable->versionInc(1);
    ftTable->versionInc(1);
    w.start();
    sm = Zub::makeReactor<OptionsDataExporterSm>("E", "T", FtId(7), w.hwConfig->hwFtConfig("T"), hw,
                                                 w.info->ftInfo("T")->expInfo("E"), container,
                                                 w.sched);
  }

  // A collector of the family under test; it gets the templates, then the full table.
  void addCollector(const std::string& name, int host) {
    if (v6()) {
      w.collector6("T", "E", name, "2001:db8::" + std::to_string(host), 4739);
    } else {
      w.collector4("T", "E", name, "192.0.2." + std::to_string(host), 4739);
    }
    w.run();
  }
  std::string dst(int host) const {
    return v6() ? "[2001:db8::" + std::to_string(host) + "]:4739"
                : "192.0.2." + std::to_string(host) + ":4739";
  }
  void sourceIs(bool on) {
    if (v6()) {
      hw->srcIp6AddrIs(on ? Nelo::Ip6Addr("2001:db8::1") : Nelo::Ip6Addr());
    } else {
      hw->srcIpAddrIs(on ? Nelo::IpAddr("10.0.0.1") : Nelo::IpAddr());
    }
  }
  bool hasCollector(const std::string& name) const {
    return v6() ? sm->collector6Has(name) : sm->collector4Has(name);
  }
  // The options data messages sent since the last call (templates are dropped).
  std::vector<SentPkt> data() {
    std::vector<SentPkt> out;
    for (SentPkt& p : w.recorder.take()) {
      if (firstSetOf(p) >= 256) out.push_back(std::move(p));
    }
    return out;
  }
  // The collector's channel of the family under test.
  Zub::Ptr<CollectorChannel> channel(const std::string& name) {
    return w.collInfo("T", "E", name)->channel(!v6());
  }
};

TEST_P(OptionsExportTest, AFullTableFollowsTheOptionsTemplatesToThatCollectorAlone) {
  addCollector("a", 1);
  auto sent = w.recorder.take();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(firstSetOf(sent[0]), 2);  // data templates, options templates, then the table
  EXPECT_EQ(firstSetOf(sent[1]), 3);
  EXPECT_EQ(recordsOf(sent[2]), 4u);
  EXPECT_EQ(seqOf(sent[2]), 0u);
  EXPECT_EQ(channel("a")->ipfixMsgSeqNo().value, 4u);
  EXPECT_TRUE(hasCollector("a"));
  EXPECT_TRUE(sm->txPeriodicTask()->scheduled());
  EXPECT_EQ(sm->txPeriodicTask()->name(), "optionsDataExporterPeriodicTx-T-E");
  EXPECT_EQ(sm->collectorUpdateTask()->name(), "optionsDataExporterCollectorUpdate-T-E");
  EXPECT_EQ(sm->updateTask()->name(), "optionsDataExporterUpdate-T-E");
  // A second collector gets its own table; the first hears nothing; the cache is reused.
  w.advance(10);
  addCollector("b", 2);
  auto second = data();
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].dst, dst(2));
  EXPECT_EQ(sm->msgCacheBuildCount(), 1u);
}

TEST_P(OptionsExportTest, NothingGoesWithoutTheOptionsTemplatesOrAReadyFamily) {
  sourceIs(false);
  addCollector("a", 1);
  EXPECT_FALSE(channel("a")->optTemplateSent());
  EXPECT_FALSE(hasCollector("a"));
  EXPECT_FALSE(sm->txPeriodicTask()->scheduled());
  w.advance(120);
  EXPECT_TRUE(w.recorder.sent.empty());
  sourceIs(true);  // templates, then the table
  w.run();
  EXPECT_EQ(data().size(), 1u);
  // No family ready any more: the period stops and updates stay unsent.
  ASSERT_TRUE(sm->txPeriodicTask()->scheduled());
  sourceIs(false);
  EXPECT_FALSE(sm->txReady());
  EXPECT_FALSE(sm->txPeriodicTask()->scheduled());
  globalUpdate->addUpdate(TemplateId(257), intfRecord(4));
  w.advance(120);
  EXPECT_TRUE(data().empty());
}

TEST_P(OptionsExportTest, ABurstOfUpdatesIsOneMessageOneSecondAfterTheFirst) {
  addCollector("a", 1);
  w.recorder.take();
  globalUpdate->addUpdate(TemplateId(257), intfRecord(4));
  w.advance(0.4);
  globalUpdate->addUpdate(TemplateId(257), intfRecord(5));
  w.advance(0.4);
  globalUpdate->addUpdate(TemplateId(257), intfRecord(6));  // never postpones the flush
  w.advance(0.19);
  EXPECT_TRUE(w.recorder.sent.empty());
  EXPECT_EQ(sm->updateQueueBytes(), 3 * kIntfRecordLen);
  w.advance(0.01);
  auto sent = data();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(recordsOf(sent[0]), 3u);
  EXPECT_EQ(seqOf(sent[0]), 4u);
  EXPECT_EQ(channel("a")->ipfixMsgSeqNo().value, 7u);
  EXPECT_EQ(sm->updateQueueBytes(), 0u);
}

TEST_P(OptionsExportTest, AnUpdateThatReachesTheMessageLimitIsFlushedAtOnce) {
  addCollector("a", 1);
  w.recorder.take();
  // Messages of at most 1452 bytes: two 720-byte records and their headers do not fit.
  auto big = [](char c) { return Zub::Ptr<const DataRecord>(new DataRecord(std::string(720, c))); };
  globalUpdate->addUpdate(TemplateId(257), big('x'));
  EXPECT_FALSE(sm->updateTask()->running());
  w.run();
  EXPECT_TRUE(w.recorder.sent.empty());  // still coalescing
  globalUpdate->addUpdate(TemplateId(257), big('y'));
  w.run();  // no time passes: the full message goes at once
  auto sent = data();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].bytes.size(), 16u + 4 + 720);
  w.advance(0.99);
  EXPECT_TRUE(data().empty());  // the rest does not fill a message: it waits
  w.advance(0.01);              // for the burst's deadline, 1 s after its first update
  auto rest = data();
  ASSERT_EQ(rest.size(), 1u);
  EXPECT_EQ(seqOf(rest[0]), seqOf(sent[0]) + 1);
}

TEST_P(OptionsExportTest, AFullTransmissionDiscardsQueuedUpdates) {
  addCollector("a", 1);
  w.recorder.take();
  globalUpdate->addUpdate(TemplateId(257), intfRecord(4));
  // A new active interval starts a full transmission at the end of this turn of the loop
  // (the other values of a reload are in place by then).
  w.hwConfig->hwFtConfig("T")->activeIntervalIs(ActiveInterval(30000));
  EXPECT_TRUE(data().empty());
  w.run();
  EXPECT_EQ(data().size(), 1u);
  EXPECT_EQ(sm->updateQueueBytes(), 0u);
  w.advance(2);
  EXPECT_TRUE(data().empty());
  w.advance(28);
  EXPECT_EQ(data().size(), 1u);  // the new period
}

TEST_P(OptionsExportTest, TheCacheIsReusedUntilASourceOrTheMtuChanges) {
  addCollector("a", 1);
  w.advance(60);
  auto periodic = data();
  ASSERT_EQ(periodic.size(), 2u);  // the collector's own table, then the period
  EXPECT_EQ(sm->msgCacheBuildCount(), 1u);
  intfTable->dataRecordIs(intfRecord(9));
  w.advance(60);
  EXPECT_EQ(sm->msgCacheBuildCount(), 1u);  // records alone are not a change
  // A rebuild fills the old cache's messages anew, except one that somebody still holds.
  const auto held = sm->msgCache().front();
  const std::string heldBytes = held->msg()->pkt()->bytesString();
  intfTable->versionInc(1);
  w.advance(60);
  EXPECT_EQ(sm->msgCacheBuildCount(), 2u);
  auto rebuilt = data();
  ASSERT_EQ(rebuilt.size(), 2u);
  EXPECT_EQ(recordsOf(rebuilt[1]), 5u);
  EXPECT_EQ(held->msg()->pkt()->bytesString(), heldBytes);
  EXPECT_NE(sm->msgCache().front(), held);
  hw->ipfixMtuIs(IpfixMtu(1400));
  w.advance(60);
  EXPECT_EQ(sm->msgCacheBuildCount(), 3u);
}

// Flow records from the data path go the options data's way: to the collectors that have
// their templates, in messages within the MTU, numbered in one sequence with the tables.
TEST_P(OptionsExportTest, FlowRecordsShareTheCollectorsSequenceNumbers) {
  addCollector("a", 1);
  auto batch = w.info->ftInfo("T")->flowRecords();
  for (int i = 0; i < 40; ++i) {
    batch->records().append(TemplateId(261), std::string(kFlowRecordLen, char('a' + i % 26)));
  }
  batch->versionInc(1);
  batch->records().clear();
  globalUpdate->addUpdate(TemplateId(257), intfRecord(4));
  w.advance(1);
  std::vector<std::pair<uint32_t, uint32_t>> seqAndRecords;
  std::string firstBytes;  // of each flow record, in the order sent
  for (const SentPkt& p : data()) {
    EXPECT_LE(p.bytes.size(), 1452u);
    seqAndRecords.emplace_back(seqOf(p), recordsOf(p));
    if (firstSetOf(p) != 261) continue;
    const uint16_t len = Nelo::NetU16::read(reinterpret_cast<const uint8_t*>(p.bytes.data()) + 18);
    for (size_t at = 20; at + kFlowRecordLen <= 16u + len; at += kFlowRecordLen) {
      EXPECT_EQ(p.bytes.substr(at, kFlowRecordLen), std::string(kFlowRecordLen, p.bytes[at]));
      firstBytes += p.bytes[at];
    }
  }
  EXPECT_EQ(firstBytes, "abcdefghijklmnopqrstuvwxyzabcdefghijklmn");
  // The table (3 interfaces, the tracker), the 40 records in two messages, the update.
  EXPECT_EQ(seqAndRecords,
            (std::vector<std::pair<uint32_t, uint32_t>>{{0, 4}, {4, 23}, {27, 17}, {44, 1}}));
  EXPECT_EQ(channel("a")->ipfixMsgSeqNo().value, 45u);
  EXPECT_TRUE(batch->reached());
  // Without a source of the family nothing goes, and the batch says it reached nobody.
  sourceIs(false);
  w.run();
  batch->records().append(TemplateId(261), std::string(kFlowRecordLen, 'z'));
  batch->outcomeDel();
  batch->versionInc(1);
  EXPECT_TRUE(data().empty());
  EXPECT_FALSE(batch->reached());
  EXPECT_EQ(channel("a")->ipfixMsgSeqNo().value, 45u);
}

TEST_P(OptionsExportTest, ACollectorWhoseDestinationGoesIsDroppedAsStale) {
  addCollector("a", 1);
  addCollector("b", 2);
  w.recorder.take();
  std::vector<std::string> lines;
  Zub::Glint::Capture capture(optionsTrace(), 1u << Zub::Glint::kState,
                              [&](const Zub::Glint::Record& r) { lines.emplace_back(r.text); });
  if (v6()) {
    hw->collectorIp6AndPortDel("a");
  } else {
    hw->collectorIpAndPortDel("a");
  }
  EXPECT_FALSE(hasCollector("a"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(std::string(v6() ? "stale v6 collector " : "stale v4 collector ") + "a"),
            std::string::npos)
      << lines[0];
  w.advance(60);
  auto sent = data();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].dst, dst(2));
}

TEST_P(OptionsExportTest, AFlushThatMustYieldSendsWhatItBuiltAndGoesOnNextRun) {
  addCollector("a", 1);
  w.recorder.take();
  for (uint32_t i = 4; i <= 6; ++i) globalUpdate->addUpdate(TemplateId(257), intfRecord(i));
  w.sched.timeSliceIs(std::chrono::nanoseconds(0));  // every record uses up the slice
  w.advance(1);
  auto sent = data();
  ASSERT_EQ(sent.size(), 3u);  // one record per run, each run rescheduling the rest
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(recordsOf(sent[i]), 1u);
    EXPECT_EQ(seqOf(sent[i]), 4u + i);
  }
  EXPECT_EQ(sm->updateQueueBytes(), 0u);
  EXPECT_TRUE(sm->update().empty());
}

TEST_P(OptionsExportTest, StatisticsCountMessagesRecordsOctetsAndSets) {
  addCollector("a", 1);
  w.recorder.take();
  const Stova::Ipfix::CollectorStatisticsKey key(
      v6() ? Stova::Ipfix::CollectorInfo::fromIp6AndPort({Nelo::Ip6Addr("2001:db8::1"), 4739})
           : Stova::Ipfix::CollectorInfo::fromIpAndPort({Nelo::IpAddr("192.0.2.1"), 4739}),
      "T", "E");
  const auto before = w.stats->stats(key);
  globalUpdate->addUpdate(TemplateId(257), intfRecord(4));
  w.advance(1);
  w.advance(59);  // the period: the whole table
  auto sent = data();
  ASSERT_EQ(sent.size(), 2u);
  const auto after = w.stats->stats(key);
  EXPECT_EQ(after.exportedMessageTotalCount - before.exportedMessageTotalCount, 2u);
  EXPECT_EQ(after.exportedFlowRecordTotalCount - before.exportedFlowRecordTotalCount, 1u + 4);
  EXPECT_EQ(after.exportedOctetTotalCount - before.exportedOctetTotalCount,
            sent[0].bytes.size() + sent[1].bytes.size());
  using Stova::Ipfix::SetId;
  EXPECT_EQ(after.setEntry(SetId(257)).exportedFlowRecordCount -
                before.setEntry(SetId(257)).exportedFlowRecordCount,
            1u + 3);
  EXPECT_EQ(after.setEntry(SetId(259)).exportedFlowRecordCount -
                before.setEntry(SetId(259)).exportedFlowRecordCount,
            1u);
  EXPECT_EQ(after.lastOptionsDataSentTime, Zub::System::now());
  EXPECT_EQ(after.lastSentTime, Zub::System::now());
}

INSTANTIATE_TEST_SUITE_P(Ipv4AndIpv6, OptionsExportTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Ipv6" : "Ipv4"; });

// A collector name with addresses of both families is two destinations, each with its
// own sequence numbers; a destination whose options templates the kernel refused gets no
// options data until a later send of them is taken.
using OneRunTest = OptionsExportTest;

TEST_P(OneRunTest, BothFamiliesOfANameAndOnlyAfterTheOptionsTemplatesWereTaken) {
  w.recorder.failSet = 3;  // the options templates are refused
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.collector6("T", "E", "a", "2001:db8::1", 4739);
  w.run();
  std::map<std::string, std::vector<uint16_t>> sets;  // by destination, in order
  auto take = [&] {
    sets.clear();
    for (const SentPkt& p : w.recorder.take()) sets[p.dst].push_back(firstSetOf(p));
  };
  take();
  EXPECT_EQ(sets, (std::map<std::string, std::vector<uint16_t>>{{"192.0.2.1:4739", {2}},
                                                                {"[2001:db8::1]:4739", {2}}}));
  w.advance(120);  // periods pass: still nothing but what the kernel took
  w.recorder.failSet = 0;
  w.hwConfig->hwFtConfig("T")->expConfig("E")->templateIntervalIs(TemplateInterval(60000));
  w.run();
  take();
  const std::vector<uint16_t> then = {2, 3, 257};  // templates, then the whole table
  EXPECT_EQ(sets, (std::map<std::string, std::vector<uint16_t>>{{"192.0.2.1:4739", then},
                                                                {"[2001:db8::1]:4739", then}}));
  globalUpdate->addUpdate(TemplateId(257), intfRecord(4));
  w.advance(1);
  for (bool v4 : {true, false})
    EXPECT_EQ(w.collInfo("T", "E", "a")->channel(v4)->ipfixMsgSeqNo().value, 5u);
}

INSTANTIATE_TEST_SUITE_P(Once, OneRunTest, ::testing::Values(false));

using OptionsExportDeathTest = OptionsExportTest;

TEST_P(OptionsExportDeathTest, ProgrammingErrorsAreFatalWithTheirTexts) {
  // A record larger than an empty message.
  intfTable->dataRecordIs(Zub::Ptr<const DataRecord>(new DataRecord(std::string(2000, 'z'))));
  intfTable->versionInc(1);
  EXPECT_DEATH(addCollector("a", 1), "consumed > 0");
  // Sources are fixed once the exporter has started.
  EXPECT_DEATH(global->sourceIs("VrfTable", TemplateId(256)), "data source changed after init!");
  EXPECT_DEATH(container->dataDel(OptionsDataScope::scopeTracker),
               "data source changed after init!");
  // Work before initialisation.
  Zub::Ptr<OptionsDataExporterSm> raw(
      new OptionsDataExporterSm("E", "T", FtId(7), w.hwConfig->hwFtConfig("T"), hw,
                                w.info->ftInfo("T")->expInfo("E"), container, w.sched));
  EXPECT_DEATH(raw->handleUpdateData(OptionsDataScope::scopeGlobal), "initialized\\(\\)");
  EXPECT_DEATH(raw->maybeBuildMsgCache(), "initialized\\(\\)");
}

INSTANTIATE_TEST_SUITE_P(Ipv4, OptionsExportDeathTest, ::testing::Values(false));

}  // namespace
