// The four options tables and the options data manager.

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "options/OptionsDataManagerSm.h"
#include "platform/nelo/IpfixHeaders.h"
#include "tests/support/Bytes.h"
#include "tests/support/ExportWorld.h"

namespace {

using namespace FlowTracking;
using Ipfix::RecordType;
using TestSupport::ExportWorld;
using TestSupport::hexBytes;
using TestSupport::toHex;

std::string hexOf(const Zub::Ptr<const DataRecord>& r) { return toHex(r->data()); }

// ---- record encodings -----------------------------------------------------------------

TEST(OptionsTableRecords, GoldenBytes) {
  EXPECT_EQ(hexOf(InterfaceTableSm::makeDataRecord("CPU", 0x3FFFFFFF)),
            toHex(hexBytes("3fffffff 03 435055")));  // index, length 3, "CPU"
  EXPECT_EQ(hexOf(VrfTableSm::makeDataRecord(0xFFFFFF, "")),
            toHex(hexBytes("00ffffff 00")));  // the reserved row: empty name
  EXPECT_EQ(hexOf(VrfTableSm::makeDataRecord(7, "red")), toHex(hexBytes("00000007 03 726564")));
  const std::string name254(254, 'e');
  EXPECT_EQ(InterfaceTableSm::makeDataRecord(name254, 1)->dataLen(), 259u);
  // Flow key indicators: a 32-bit signed one shifted by the position modulo 32.
  EXPECT_EQ(FlowKeySm::flowKeyBit(0) | FlowKeySm::flowKeyBit(2), 0x5u);
  EXPECT_EQ(FlowKeySm::flowKeyBit(31), 0xFFFFFFFF80000000ull);
  EXPECT_EQ(FlowKeySm::flowKeyBit(33), 0x2u);
}

TEST(OptionsTableRecordsDeathTest, NamesOf255BytesAreFatal) {
  const std::string name255(255, 'e');
  EXPECT_DEATH(InterfaceTableSm::makeDataRecord(name255, 1), "intfNameLen < 255");
  EXPECT_DEATH(InterfaceTableSm::makeDataRecord("", 1), "pos \\+ sizeof\\( U8 \\) < max");
  EXPECT_DEATH(VrfTableSm::makeDataRecord(1, name255), "vrfName.bytes\\(\\) < 255");
}

// ---- the sources on a manual clock ------------------------------------------------------

struct Tables {
  ExportWorld w;
  Zub::Ptr<IntfIndexMap> intfIndexMap{new IntfIndexMap()};
  Zub::Ptr<Vrf::VrfIdMap::Status> vrfIdMap{new Vrf::VrfIdMap::Status()};
  Zub::Ptr<OptionsDataSourceColl> coll{new OptionsDataSourceColl(OptionsDataScope::scopeGlobal)};
  Zub::Ptr<OptionsDataUpdate> update{new OptionsDataUpdate(OptionsDataScope::scopeGlobal)};
  int updates = 0;
  Zub::Subscription sub = update->versionSignal().connect(nullptr, [this] { ++updates; });
};

TEST(OptionsTables, InterfaceAndVrfTablesFollowTheirMapsPlusTheReservedRows) {
  Tables t;
  t.intfIndexMap->intfIs("Ethernet1", 1);
  t.intfIndexMap->intfIs("Ethernet2", 2);
  auto intfSource = t.coll->sourceIs("InterfaceTable", InterfaceTableSm::setId());
  auto intf = Zub::makeReactor<InterfaceTableSm>(intfSource, t.update, t.intfIndexMap);
  EXPECT_EQ(intfSource->dataRecordSize(), 2u + 4);
  EXPECT_EQ(intfSource->version(), 1u);
  EXPECT_EQ(t.updates, 0);  // the start pushes nothing

  // A new interface: pushed at once, and in the table from now on.
  t.intfIndexMap->intfIs("Ethernet3", 3);
  EXPECT_EQ(t.updates, 1);
  EXPECT_EQ(hexOf(t.update->update().second), toHex(hexBytes("00000003 09") + "Ethernet3"));
  EXPECT_EQ(intfSource->dataRecordSize(), 3u + 4);
  // A removed index: the row goes, nothing is pushed.
  t.intfIndexMap->intfDel("Ethernet1");
  EXPECT_EQ(t.updates, 1);
  EXPECT_EQ(intfSource->dataRecordSize(), 2u + 4);
  EXPECT_EQ(intf->dataRecords(), 2u);
  // A new index for an interface: one new row replaces the old one.
  t.intfIndexMap->intfIs("Ethernet2", 20);
  EXPECT_EQ(intfSource->dataRecordSize(), 2u + 4);
  EXPECT_EQ(hexOf(t.update->update().second), toHex(hexBytes("00000014 09") + "Ethernet2"));
  // An index another interface holds moves: that interface's row goes with it.
  t.intfIndexMap->intfIs("Ethernet3", 20);
  EXPECT_FALSE(t.intfIndexMap->intfIndexHas("Ethernet2"));
  EXPECT_EQ(t.intfIndexMap->intfId(20), Nelo::IntfId("Ethernet3"));
  EXPECT_EQ(intfSource->dataRecordSize(), 1u + 4);
  EXPECT_FALSE(intf->dataRecord().get("Ethernet2"));
  EXPECT_EQ(hexOf(intf->dataRecord().get("Ethernet3")),
            toHex(hexBytes("00000014 09") + "Ethernet3"));

  t.vrfIdMap->vrfIdToNameIs(5, "red");
  auto vrfSource = t.coll->sourceIs("VrfTable", VrfTableSm::setId());
  auto vrf = Zub::makeReactor<VrfTableSm>(vrfSource, t.update, t.vrfIdMap);
  EXPECT_EQ(vrfSource->dataRecordSize(), 1u + 1);
  t.vrfIdMap->vrfIdToNameIs(5, "blue");  // renamed: one row, pushed
  EXPECT_EQ(vrfSource->dataRecordSize(), 1u + 1);
  EXPECT_EQ(hexOf(t.update->update().second), toHex(hexBytes("00000005 04") + "blue"));
  t.vrfIdMap->vrfIdToNameDel(5);
  EXPECT_EQ(vrfSource->dataRecordSize(), 1u);  // the reserved row stays
  EXPECT_EQ(vrf->dataRecords(), 0u);
}

// The map stays one-to-one and finds every entry both ways through a long run of
// additions, re-indexings, take-overs and removals; the interface table follows it row
// for row.
TEST(OptionsTables, TheInterfaceMapAndTableStayExactThroughChurn) {
  Tables t;
  auto intfSource = t.coll->sourceIs("InterfaceTable", InterfaceTableSm::setId());
  auto intf = Zub::makeReactor<InterfaceTableSm>(intfSource, t.update, t.intfIndexMap);
  std::map<std::string, uint32_t> model;
  uint32_t rng = 7;
  for (int step = 0; step < 5000; ++step) {
    rng = rng * 1103515245 + 12345;
    const std::string name = "Ethernet" + std::to_string((rng >> 8) % 200);
    const uint32_t index = 1 + (rng >> 16) % 150;
    if ((rng >> 28) % 4 == 0) {
      t.intfIndexMap->intfDel(name);
      model.erase(name);
    } else {
      t.intfIndexMap->intfIs(name, index);
      std::erase_if(model, [&](const auto& e) { return e.second == index; });
      model[name] = index;
    }
  }
  ASSERT_EQ(t.intfIndexMap->intfIndexSize(), model.size());
  ASSERT_EQ(intf->dataRecords(), model.size());
  ASSERT_EQ(intfSource->dataRecordSize(), model.size() + 4);
  for (const auto& [name, index] : model) {
    EXPECT_EQ(t.intfIndexMap->intfIndex(name), index) << name;
    EXPECT_EQ(t.intfIndexMap->intfId(index), Nelo::IntfId(name)) << index;
    EXPECT_EQ(hexOf(intf->dataRecord().get(name)),
              hexOf(InterfaceTableSm::makeDataRecord(name, index)));
  }
}

TEST(OptionsTables, FlowKeysOfCompleteConsistentTemplatesOnly) {
  Tables t;
  t.w.flowGroup("T", 261,
                {{RecordType::srcIp, 4, false, true},
                 {RecordType::packetCount, 8},
                 {RecordType::dstIp, 4, false, true}});
  t.w.flowGroup("T", 262, {{RecordType::srcIp, 4, false, true}, {RecordType::dstIp6, 16}});
  auto status = t.w.hwStatus->hwFtStatus("T");
  auto source = t.coll->sourceIs("FlowKey", FlowKeySm::setId());
  auto sm = Zub::makeReactor<FlowKeySm>(source, t.update, status, t.w.sched);
  // 262 mixes IPv4 and IPv6 address fields: no record.
  ASSERT_EQ(source->dataRecordSize(), 1u);
  EXPECT_EQ(hexOf(*source->dataRecordColl().begin()), toHex(hexBytes("0105 0000000000000005")));
  // A key field at position 31 (and nothing mixed) fills the upper half.
  std::vector<TestSupport::FieldSpec> wide(32, {RecordType::packetCount, 8});
  wide[31].key = true;
  t.w.flowGroup("T", 300, wide);
  EXPECT_EQ(t.updates, 1);
  EXPECT_EQ(hexOf(t.update->update().second), toHex(hexBytes("012c ffffffff80000000")));
  EXPECT_EQ(source->dataRecordSize(), 2u);
  status->hwFgStatusDel(TemplateId(300));
  EXPECT_EQ(source->dataRecordSize(), 1u);
  EXPECT_EQ(sm->dataRecords(), 1u);
}

// The tracker's records follow each change at once; a new rate is pushed at once and
// urgently, other changes once per turn of the loop; the compatible sampling record comes
// and goes with its switch.
TEST(OptionsTables, TheFlowTrackerRecordsFollowEveryChangeAtOnce) {
  Tables t;
  auto ft = t.w.hwConfig->hwFtConfigIs("T", FtId(7));
  ft->activeIntervalIs(ActiveInterval(60500));  // whole seconds, truncated
  ft->inactiveTimeoutIs(InactiveTimeout(15000));
  t.w.hwConfig->sampleRateIs(1024);
  auto source = t.coll->sourceIs("FlowTrackerTable", FlowTrackerTableSm::setId());
  auto sampling = t.coll->sourceIs("Sampling", TemplateId(CompatibleTemplate::kSampling));
  auto sm =
      Zub::makeReactor<FlowTrackerTableSm>(source, t.update, t.w.hwConfig, ft, t.w.sched, sampling);
  auto only = [](const Zub::Ptr<OptionsDataSource>& s) {
    return s->dataRecordSize() == 1 ? hexOf(*s->dataRecordColl().begin()) : std::string("none");
  };
  // domain 7, name "T", 60 s, 15 s, selector 3, size 1, population 1024: 19 + 1 bytes;
  // the sampling record: domain 7, interval 1024. Nothing is pushed at the start.
  EXPECT_EQ(only(source), toHex(hexBytes("00000007 01 54 003c 000f 0003 00000001 00000400")));
  EXPECT_EQ(only(sampling), toHex(hexBytes("00000007 00000400")));
  EXPECT_EQ(t.updates, 0);
  EXPECT_EQ(sm->updateTask()->name(), "FlowTrackerTableSmUpdate");

  t.w.hwConfig->sampleRateIs(2048);  // pushed at once, the last push urgent
  EXPECT_EQ(t.updates, 2);
  EXPECT_TRUE(t.update->urgent());
  EXPECT_EQ(only(sampling), toHex(hexBytes("00000007 00000800")));
  ft->inactiveTimeoutIs(InactiveTimeout(30000));
  ft->activeIntervalIs(ActiveInterval(120000));
  EXPECT_EQ(only(source), toHex(hexBytes("00000007 01 54 0078 001e 0003 00000001 00000800")));
  EXPECT_EQ(t.updates, 2);
  t.w.run();  // both changes in one push
  EXPECT_EQ(t.updates, 4);
  EXPECT_FALSE(t.update->urgent());
  EXPECT_EQ(hexOf(t.update->update().second), only(source));

  t.w.hwConfig->compatibleOptionsIs(false);
  EXPECT_EQ(sampling->dataRecordSize(), 0u);
  t.w.hwConfig->sampleRateIs(4096);
  EXPECT_EQ(t.updates, 5);  // the tracker's record alone
}

// ---- the manager ----------------------------------------------------------------------

struct ManagedWorld {
  ExportWorld w;
  Zub::Ptr<IntfIndexMap> intfIndexMap{new IntfIndexMap()};
  Zub::Ptr<Vrf::VrfIdMap::Status> vrfIdMap{new Vrf::VrfIdMap::Status()};
  Zub::Ptr<OptionsDataManagerSm> manager;
  void start() {
    w.start();
    manager = optionsDataManagerSmFactory(w.hwConfig, w.hwStatus, w.info, intfIndexMap, vrfIdMap,
                                          w.sched);
  }
  FtOptionsDataManagerSm* ft(const std::string& name) const {
    return manager->ftManagerSm().get(name);
  }
};

TEST(OptionsDataManager, ATrackersOptionsExportExistsExactlyWhileItsThreeInputsDo) {
  ManagedWorld m;
  m.w.exporter("T", 7, "E", "10.0.0.1");
  m.start();
  // Hardware configuration and endpoints, but no hardware status yet.
  EXPECT_EQ(m.ft("T"), nullptr);
  EXPECT_EQ(m.manager->dataContainer().count("T"), 0u);
  m.w.flowGroup("T", 261, {{RecordType::srcIp, 4, false, true}});
  ASSERT_NE(m.ft("T"), nullptr);
  auto container = m.manager->dataContainer().at("T");
  EXPECT_EQ(container->dataSize(), 2u);
  EXPECT_EQ(container->updateSize(), 2u);
  // The interface and VRF tables with their fixed-length rows; the flow keys, the tracker
  // and its compatible sampling record.
  EXPECT_EQ(container->data(OptionsDataScope::scopeGlobal)->sourceSize(), 4u);
  EXPECT_EQ(container->data(OptionsDataScope::scopeTracker)->sourceSize(), 3u);
  EXPECT_TRUE(m.ft("T")->exporterSm().has("E"));
  auto firstSource = container->data(OptionsDataScope::scopeTracker)->source("FlowKey");

  // Removing one input removes everything of the tracker; re-adding rebuilds it afresh.
  m.w.hwStatus->hwFtStatusDel("T");
  EXPECT_EQ(m.ft("T"), nullptr);
  EXPECT_EQ(m.manager->dataContainer().count("T"), 0u);
  EXPECT_FALSE(m.manager->dataAll()->trackerDataHas("T"));
  m.w.flowGroup("T", 261, {{RecordType::srcIp, 4, false, true}});
  ASSERT_NE(m.ft("T"), nullptr);
  EXPECT_NE(
      m.manager->dataContainer().at("T")->data(OptionsDataScope::scopeTracker)->source("FlowKey"),
      firstSource);
  // The global sources stay with the manager; the fixed-length rows follow the switch.
  auto global = m.manager->dataAll()->globalData();
  EXPECT_EQ(global->sourceSize(), 4u);
  EXPECT_EQ(global->source("InterfaceNames")->rowsOf(), global->source("InterfaceTable"));
  m.w.hwConfig->compatibleOptionsIs(false);
  EXPECT_FALSE(global->source("InterfaceNames")->rowsOf());
  EXPECT_FALSE(global->source("VrfNames")->rowsOf());
}

// The compatible data sets byte for byte: the observation domain's sampling rate, and
// each interface and VRF row at a fixed length under exporting process 0, a long name cut
// at a character boundary.
TEST(OptionsDataManager, TheCompatibleDataSetsMatchTheHandWrittenBytes) {
  ManagedWorld m;
  m.intfIndexMap->intfIs("Ethernet1", 3);
  m.intfIndexMap->intfIs(std::string(31, 'x') + "\xc3\xa9", 4);  // 33 bytes: the last is cut
  m.vrfIdMap->vrfIdToNameIs(5, "red");
  m.w.exporter("T", 7, "E", "10.0.0.1");
  m.w.hwConfig->sampleRateIs(1024);
  m.w.flowGroup("T", 261, {{RecordType::srcIp, 4, false, true}});
  m.w.collector4("T", "E", "a", "192.0.2.1", 4739);
  m.start();
  std::map<uint16_t, std::set<std::string>> rows;  // by set, each record in hex
  for (const auto& p : m.w.recorder.take()) {
    for (size_t at = 16; at + 4 <= p.bytes.size();) {
      const auto* b = reinterpret_cast<const uint8_t*>(p.bytes.data()) + at;
      const uint16_t id = Nelo::NetU16::read(b), len = Nelo::NetU16::read(b + 2);
      const size_t record = id == CompatibleTemplate::kSampling ? 8 : 40;
      for (size_t r = 4; CompatibleTemplate::is(id) && r + record <= len; r += record) {
        rows[id].insert(toHex(p.bytes.substr(at + r, record)));
      }
      at += len;
    }
  }
  auto name = [](const std::string& n) { return n + std::string(32 - n.size(), '\0'); };
  EXPECT_EQ(rows[CompatibleTemplate::kSampling],
            std::set<std::string>{toHex(hexBytes("00000007 00000400"))});
  EXPECT_EQ(rows[CompatibleTemplate::kInterfaces].size(), 2u + 4);  // and the reserved rows
  for (const auto& row : {hexBytes("00000000 00000003") + name("Ethernet1"),
                          hexBytes("00000000 00000004") + name(std::string(31, 'x')),
                          hexBytes("00000000 3fffffff") + name("CPU")}) {
    EXPECT_EQ(rows[CompatibleTemplate::kInterfaces].count(toHex(row)), 1u) << toHex(row);
  }
  EXPECT_EQ(rows[CompatibleTemplate::kVrfs],
            (std::set<std::string>{toHex(hexBytes("00000000 00000005") + name("red")),
                                   toHex(hexBytes("00000000 00ffffff") + name(""))}));
}

TEST(OptionsDataManager, AnExporterWithoutEndpointsHasNoOptionsDataExporter) {
  ManagedWorld m;
  m.w.exporter("T", 7, "E", "10.0.0.1");
  m.w.flowGroup("T", 261, {{RecordType::srcIp, 4, false, true}});
  m.start();
  // Endpoint state goes (its reactor is replaced by nothing): no exporter Sm for E.
  m.w.info->ftInfo("T")->expInfoDel("E");
  ASSERT_NE(m.ft("T"), nullptr);
  EXPECT_FALSE(m.ft("T")->exporterSm().has("E"));
  m.w.info->ftInfo("T")->expInfoIs("E");
  EXPECT_TRUE(m.ft("T")->exporterSm().has("E"));
  m.w.hwConfig->hwFtConfig("T")->expConfigDel("E");
  EXPECT_FALSE(m.ft("T")->exporterSm().has("E"));
}

}  // namespace
