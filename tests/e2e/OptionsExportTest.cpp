// Options export end to end: the options templates and the options data of hand-made
// sources, sent over real UDP endpoints to collectors on 127.0.0.1 and ::1, decoded by
// tshark and ipfixDump, and shown by flowexportctl from the shared statistics table.
// With FLOWEXPORT_SHOW_DECODE set, the decoders' output is printed.

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "options/OptionsDataExporterSm.h"
#include "tests/support/Decoders.h"
#include "tests/support/ExportWorld.h"
#include "tests/support/Network.h"

namespace {

using namespace std::chrono_literals;
using namespace FlowTracking;
using TestSupport::Datagram;

Zub::Ptr<const DataRecord> intfRecord(uint32_t ifindex, const std::string& name) {
  Zub::Ptr<DataRecord> r(new DataRecord());
  r->appendU32(ifindex);
  r->appendU8(static_cast<uint8_t>(name.size()));
  r->append(name.data(), name.size());
  return r;
}

Zub::Ptr<const DataRecord> vrfRecord(uint32_t id, const std::string& name) {
  return intfRecord(id, name);  // the same layout: a 4-byte id and a name
}

Zub::Ptr<const DataRecord> flowKeyRecord(uint16_t templateId, uint64_t keys) {
  Zub::Ptr<DataRecord> r(new DataRecord());
  r->appendU16(templateId);
  r->appendU64(keys);
  return r;
}

Zub::Ptr<const DataRecord> trackerRecord(uint32_t domain, const std::string& name) {
  Zub::Ptr<DataRecord> r(new DataRecord());
  r->appendU32(domain);
  r->appendU8(static_cast<uint8_t>(name.size()));
  r->append(name.data(), name.size());
  r->appendU16(60);    // flowActiveTimeout, s
  r->appendU16(15);    // flowIdleTimeout, s
  r->appendU16(3);     // selectorAlgorithm: random n-out-of-N sampling
  r->appendU32(1);     // samplingSize
  r->appendU32(1024);  // samplingPopulation
  return r;
}

void show(const char* what, const TestSupport::CommandResult& r) {
  if (std::getenv("FLOWEXPORT_SHOW_DECODE")) std::cout << "---- " << what << "\n" << r.out;
}

TEST(OptionsExportE2e, OptionsTemplatesAndDataReachCollectorsAndDecode) {
  TestSupport::UdpReceiver rx4(false), rx6(true);
  const std::string shm = "/flowexport-test-options-" + std::to_string(::getpid());
  TestSupport::ExportWorld w(true, nullptr, shm);
  w.exporter("T", 7, "E", "127.0.0.1", "::1");
  w.hwConfig->hwFtConfig("T")->activeIntervalIs(ActiveInterval(60000));
  w.flowGroup("T", 261, {{Ipfix::RecordType::srcIp, 4, false, true}});

  Zub::Ptr<OptionsDataContainer> container(new OptionsDataContainer("T"));
  Zub::Ptr<OptionsDataSourceColl> global(new OptionsDataSourceColl(OptionsDataScope::scopeGlobal));
  Zub::Ptr<OptionsDataSourceColl> tracker(
      new OptionsDataSourceColl(OptionsDataScope::scopeTracker));
  Zub::Ptr<OptionsDataUpdate> update(new OptionsDataUpdate(OptionsDataScope::scopeGlobal));
  container->dataIs(global);
  container->dataIs(tracker);
  container->updateIs(update);
  auto intf = global->sourceIs("InterfaceTable", TemplateId(257));
  intf->dataRecordIs(intfRecord(1, "Ethernet1"));
  intf->dataRecordIs(intfRecord(2, "Ethernet2"));
  global->sourceIs("VrfTable", TemplateId(256))->dataRecordIs(vrfRecord(0xffffff, ""));
  tracker->sourceIs("FlowKey", TemplateId(258))->dataRecordIs(flowKeyRecord(261, 0x1));
  tracker->sourceIs("FlowTrackerTable", TemplateId(259))->dataRecordIs(trackerRecord(7, "T"));

  w.start();
  auto sm = Zub::makeReactor<OptionsDataExporterSm>(
      "E", "T", FtId(7), w.hwConfig->hwFtConfig("T"), w.hwConfig->hwFtConfig("T")->expConfig("E"),
      w.info->ftInfo("T")->expInfo("E"), w.stats.get(), container, w.sched);
  w.collector4("T", "E", "127.0.0.1", "127.0.0.1", rx4.port());
  w.collector6("T", "E", "::1", "::1", rx6.port());
  w.run();
  update->addUpdate(TemplateId(257), intfRecord(3, "Ethernet3"));
  w.advance(1);

  auto got4 = rx4.drain(300ms);
  auto got6 = rx6.drain(300ms);
  // Data templates, options templates, the whole table, the update.
  ASSERT_EQ(got4.size(), 4u);
  ASSERT_EQ(got6.size(), 4u);
  EXPECT_EQ(got4[2].payload, got6[2].payload);  // one cached message for both

  auto fields =
      TestSupport::tsharkFields(got4, {"cflow.od_id", "cflow.sequence", "cflow.flowset_id"});
  ASSERT_EQ(fields.status, 0) << fields.err;
  show("tshark fields (domain, sequence, set ids) of the IPv4 collector's four messages", fields);
  // The sequence number counts the data records sent before each message: five in the
  // table, then the update's one. (The flow tracker record's observationDomainId is the
  // second domain tshark finds in the table.)
  EXPECT_EQ(fields.out, "7,0,2\n7,0,3\n7;7,0,257;256;258;259\n7,5,257\n");
  auto verbose = TestSupport::tsharkDecode(got4);
  ASSERT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_EQ(verbose.out.find("Malformed"), std::string::npos) << verbose.out;
  EXPECT_NE(verbose.out.find("Ethernet3"), std::string::npos) << verbose.out;

  std::vector<Datagram> optionsOnly = {got6[1], got6[2]};
  auto dump = TestSupport::ipfixDumpDecode(optionsOnly);
  ASSERT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.err, "");
  show("ipfixDump of the IPv6 collector's options template and options data messages", dump);
  for (const char* text : {"tid:   257", "tid:   259", "interfaceName", "Ethernet2",
                           "observationDomainName", "samplingPopulation", "flowKeyIndicator"}) {
    EXPECT_NE(dump.out.find(text), std::string::npos) << text << "\n" << dump.out;
  }

  // What each collector received, per set, as the operator's tool shows it.
  auto table = TestSupport::runCommand(std::string(FLOWEXPORTCTL) + " --stats-name " + shm +
                                       " show collectors");
  ASSERT_EQ(table.status, 0) << table.err;
  show("flowexportctl show collectors", table);
  EXPECT_NE(table.out.find("    set 257   interface table              3 records"),
            std::string::npos)
      << table.out;
  EXPECT_NE(table.out.find("    set 259   flow tracker table           1 records"),
            std::string::npos)
      << table.out;
  EXPECT_NE(table.out.find("    options data last sent "), std::string::npos) << table.out;
  auto json = TestSupport::runCommand(std::string(FLOWEXPORTCTL) + " --stats-name " + shm +
                                      " show collectors --json");
  EXPECT_NE(json.out.find("{\"setId\": 258, \"name\": \"flow keys\", \"records\": 1"),
            std::string::npos)
      << json.out;
}

}  // namespace
