// Statistics records: set slots, limits, refused sends, rows that follow their
// collectors, and clear-counters requests.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "platform/zub/LogHandle.h"

#include "tests/support/ExportWorld.h"

namespace {

using namespace Stova::Ipfix;

CollectorStatisticsKey key4(const std::string& tracker, const std::string& exporter,
                            const char* addr = "10.0.0.1", uint16_t port = 4739) {
  return CollectorStatisticsKey(CollectorInfo::fromIpAndPort({Nelo::IpAddr(addr), port}), tracker,
                                exporter);
}

CollectorSetStatisticsEntry set(uint16_t id, uint64_t templates) {
  CollectorSetStatisticsEntry e;
  e.setId = SetId(id);
  e.exportedTemplateCount = templates;
  return e;
}

TEST(CollectorStats, NineSetSlotsTheTenthIsARangeError) {
  CollectorStatisticsEntry e(key4("T", "E"));
  for (uint16_t i = 0; i < 9; ++i) e.setEntryIs(set(static_cast<uint16_t>(256 + i), i));
  EXPECT_EQ(e.setEntryCount, 9);
  e.setEntryIs(set(260, 99));  // an existing id keeps its slot
  EXPECT_EQ(e.setEntry(SetId(260)).exportedTemplateCount, 99u);
  try {
    e.setEntryIs(set(300, 1));
    FAIL();
  } catch (const Zub::RangeException& ex) {
    EXPECT_STREQ(ex.what(), "SetIndex::value < SetIndex::min or > SetIndex::max not allowed");
  }
  // A count read from shared memory that someone else wrote is not trusted beyond the
  // nine slots (under AddressSanitizer a read past them fails the test).
  e.setEntryCount = 255;
  EXPECT_EQ(e.setEntry(SetId(260)).exportedTemplateCount, 99u);
  EXPECT_TRUE(e.setEntry(SetId(999)).setId.isFree());
}

TEST(CollectorStats, DeletedSlotsAreReusedAndTheHighWaterMarkDrops) {
  CollectorStatisticsEntry e(key4("T", "E"));
  for (uint16_t id : {2, 3, 256, 257}) e.setEntryIs(set(id, id));
  // Deleting a middle slot leaves a hole that the next new id takes first.
  EXPECT_EQ(e.setEntryDel(SetId(3)).exportedTemplateCount, 3u);
  EXPECT_EQ(e.setEntryCount, 4);
  EXPECT_EQ(e.setEntry(SetId(3)).exportedTemplateCount, 0u);
  e.setEntryIs(set(258, 1));
  EXPECT_EQ(e.indexForSetId(SetId(258)).value, 1);
  // Deleting the last slots lowers the count past trailing free slots.
  e.setEntryDel(SetId(256));
  EXPECT_EQ(e.setEntryCount, 4);
  e.setEntryDel(SetId(257));
  EXPECT_EQ(e.setEntryCount, 2);
  EXPECT_EQ(e.setEntryDel(SetId(999)).exportedTemplateCount, 0u);
  EXPECT_FALSE(e.indexForSetId(SetId(257)).found());
  EXPECT_EQ(e.indexForSetId(SetId(257)).value, SetIndex::setIdNotFound);
  EXPECT_THROW(SetIndex(9), Zub::RangeException);
}

// What the kernel refuses is a send error with its errno and time, never "exported";
// both the template and the options data exporters count that way, and say so in the
// operator log.
TEST(CollectorStats, RefusedSendsAreErrorsNotExports) {
  Zub::LogCapture logs;
  TestSupport::ExportWorld w;
  w.recorder.failSend = ENETUNREACH;
  w.exporter("T", 1, "E", "10.0.0.1");
  w.flowGroup("T", 261, {{Ipfix::RecordType::srcIp, 4}});
  w.collector4("T", "E", "c", "192.0.2.1", 4739);
  w.start();
  const CollectorStatisticsKey key(CollectorInfo::fromIpAndPort({Nelo::IpAddr("192.0.2.1"), 4739}),
                                   "T", "E");
  auto e = w.stats->stats(key);
  EXPECT_EQ(e.exportedMessageTotalCount, 0u);
  EXPECT_EQ(e.exportedOctetTotalCount, 0u);
  EXPECT_GE(e.sendErrorCount, 1u);
  EXPECT_EQ(e.lastSendErrno, ENETUNREACH);
  EXPECT_GT(e.lastSendErrorTime, 0);
  ASSERT_FALSE(logs.lines().empty());
  EXPECT_EQ(logs.lines()[0],
            "FLOWTRACKING_COLLECTOR_SEND_FAILED: Sending to collector 192.0.2.1:4739 of exporter "
            "E in flow tracker T failed: Network is unreachable.");

  // The route comes back: the next period's sends count, the errors stay as they were.
  const uint64_t errors = e.sendErrorCount;
  w.recorder.failSend = 0;
  w.advance(3600);  // the longest template interval
  e = w.stats->stats(key);
  EXPECT_GT(e.exportedMessageTotalCount, 0u);
  EXPECT_EQ(e.sendErrorCount, errors);
}

TEST(CollectorStats, AFullTableLosesStatisticsNotExport) {
  Zub::LogCapture logs;
  TestSupport::ExportWorld w;
  w.stats = CollectorStatistics::createLocal(2);
  w.exporter("T", 1, "E", "10.0.0.1");
  w.flowGroup("T", 261, {{Ipfix::RecordType::srcIp, 4}});
  w.start();
  for (int i = 1; i <= 3; ++i) {
    w.collector4("T", "E", "c" + std::to_string(i), "192.0.2." + std::to_string(i), 4739);
  }
  w.run();
  EXPECT_EQ(w.recorder.count(2), 3u);  // all three get the data templates
  EXPECT_EQ(w.recorder.count(3), 3u);  // and the options templates
  EXPECT_EQ(w.stats->statsSize(), 2u);
  ASSERT_FALSE(logs.lines().empty());
  // One of the three, whichever came last.
  EXPECT_EQ(logs.lines()[0].rfind("FLOWTRACKING_COLLECTOR_STATS_LOST: Statistics of collector "
                                  "192.0.2.",
                                  0),
            0u)
      << logs.lines()[0];
  EXPECT_NE(logs.lines()[0].find(":4739 of exporter E in flow tracker T are not kept: the "
                                 "statistics table is full, or its row has no room for "
                                 "another set."),
            std::string::npos)
      << logs.lines()[0];
}

// Rows follow the collectors: a collector that moves, goes, or whose exporter or tracker
// goes takes its row with it, so that removed collectors never fill the table. What
// records a clearing stays.
TEST(CollectorStats, RowsGoWithTheirCollectorExporterOrTracker) {
  TestSupport::ExportWorld w;
  w.exporter("T", 1, "E", "10.0.0.1");
  w.exporter("T", 1, "F", "10.0.0.1");
  w.flowGroup("T", 261, {{Ipfix::RecordType::srcIp, 4}});
  w.start();
  w.collector4("T", "E", "a", "192.0.2.1", 4739);
  w.collector4("T", "E", "b", "192.0.2.2", 4739);
  w.collector4("T", "F", "c", "192.0.2.3", 4739);
  w.run();
  auto rows = [&] {
    std::vector<std::string> out;
    for (const auto& e : w.stats->statsAll()) {
      out.push_back(e.key.exporter() + " " +
                    (!e.key.collector ? "cleared" : e.key.collector.stringValue()));
    }
    std::sort(out.begin(), out.end());
    return out;
  };
  ASSERT_EQ(rows(),
            (std::vector<std::string>{"E 192.0.2.1:4739", "E 192.0.2.2:4739", "F 192.0.2.3:4739"}));
  auto hwE = w.hwConfig->hwFtConfig("T")->expConfig("E");
  hwE->collectorIpAndPortIs("a", Nelo::IpAndPort{Nelo::IpAddr("192.0.2.1"), 4740});  // moves
  w.run();
  EXPECT_EQ(rows(),
            (std::vector<std::string>{"E 192.0.2.1:4740", "E 192.0.2.2:4739", "F 192.0.2.3:4739"}));
  hwE->collectorIpAndPortDel("b");  // goes
  w.run();
  EXPECT_EQ(rows(), (std::vector<std::string>{"E 192.0.2.1:4740", "F 192.0.2.3:4739"}));
  w.hwConfig->hwFtConfig("T")->expConfigDel("F");  // its exporter goes
  w.run();
  EXPECT_EQ(rows(), (std::vector<std::string>{"E 192.0.2.1:4740"}));
  // A clearing marker of the tracker survives the tracker's exporters going.
  Stova::Ipfix::CollectorStatisticsEntry marker{CollectorStatisticsKey(CollectorInfo(), "T", "")};
  marker.lastClearedTime = 1;
  w.stats->statsIs(marker);
  w.hwConfig->hwFtConfigDel("T");  // the tracker goes
  w.run();
  EXPECT_EQ(rows(), (std::vector<std::string>{" cleared"}));
}

TEST(CollectorStatsDeathTest, NamesAndSetIdsOutOfRange) {
  CollectorStatisticsKey k;
  k.trackerIs(std::string(128, 't'));  // exactly the storage: no terminator needed
  EXPECT_EQ(k.tracker(), std::string(128, 't'));
  EXPECT_DEATH(k.exporterIs(std::string(129, 'e')),
               "ASSERTION FAILED: sz <= StringIndex::max\\(\\) \\+ 1");
  EXPECT_DEATH(SetId(255), "ASSERTION FAILED: setId == 2 \\|\\| setId == 3 \\|\\| setId >= 256");
}

TEST(ClearCounters, RemovesMatchingEntriesAndKeepsOneMarkerPerTracker) {
  TestSupport::ExportWorld w;
  w.start();
  for (const char* t : {"T1", "T2"}) {
    for (const char* e : {"E1", "E2"}) {
      CollectorStatisticsEntry entry(key4(t, e));
      entry.exportedMessageTotalCount = 5;
      w.stats->statsIs(entry);
    }
  }
  auto req = [&](const std::string& t, const std::string& e) {
    w.configReq->clearCountersIs(FlowTracking::ClearCountersReq{t, e, Zub::System::now()});
  };
  w.configReq->clearCountersIs(FlowTracking::ClearCountersReq{"", "", 0});  // no request
  EXPECT_EQ(w.stats->statsSize(), 4u);
  req("T1", "E2");
  EXPECT_EQ(w.stats->statsSize(), 4u);  // one entry cleared, one marker written
  EXPECT_FALSE(w.stats->statsHas(key4("T1", "E2")));
  const CollectorStatisticsKey marker1(CollectorInfo(), "T1", "");
  EXPECT_EQ(w.stats->stats(marker1).lastClearedTime, Zub::System::now());

  w.advance(10);
  req("", "");
  auto all = w.stats->statsAll();
  ASSERT_EQ(all.size(), 2u);  // only the markers remain
  for (const auto& e : all) {
    EXPECT_TRUE(!e.key.collector);
    EXPECT_EQ(e.exportedMessageTotalCount, 0u);
    EXPECT_EQ(e.lastClearedTime, Zub::System::now());
  }
  // Markers survive a later clear unchanged.
  w.advance(10);
  req("", "");
  EXPECT_EQ(w.stats->stats(marker1).lastClearedTime, Zub::System::now() - 10);
}

}  // namespace
