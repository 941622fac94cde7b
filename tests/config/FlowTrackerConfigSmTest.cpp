// Scenario tests of the configuration reactors: sequences of configuration and status
// changes, checked against the hardware configuration and the operator log after each
// step.

#include <gtest/gtest.h>

#include "tests/support/ConfigWorld.h"

namespace {

using Lines = std::vector<std::string>;
using TestSupport::ConfigWorld;

class ConfigSmTest : public ::testing::Test {
 protected:
  ConfigWorld w;
  Zub::LogCapture logs;

  // The log lines since the last call.
  Lines take() {
    Lines l = logs.lines();
    logs.clear();
    return l;
  }
  void startEnabled() {
    w.config->enabledIs(true);
    w.start();
    take();
  }
};

TEST_F(ConfigSmTest, TrackerIdsRotateAndTheReleasedIdComesBackFirst) {
  w.start();
  EXPECT_EQ(take(), Lines{"FLOWTRACKING_ACTIVE: dummy flow tracking is active."});
  EXPECT_EQ(w.agentDir->entries(), 1u);
  w.config->enabledIs(true);
  w.tracker("A");
  w.tracker("B");
  EXPECT_EQ(w.ftId("A"), 1u);
  EXPECT_EQ(w.ftId("B"), 2u);
  w.config->flowTrackerConfigDel("A");
  EXPECT_EQ(w.ftId("A"), 0u);
  EXPECT_FALSE(w.sm->ftConfigSm().has("A"));
  w.tracker("C");
  EXPECT_EQ(w.ftId("C"), 1u);  // the id released last is tried first
  w.tracker("D");
  EXPECT_EQ(w.ftId("D"), 3u);
  EXPECT_EQ(w.sm->ftIdToName(FlowTracking::FtId(3)), "D");

  w.sm->nextFtIdIs(FlowTracking::FtId(65535));
  EXPECT_EQ(w.sm->allocateFtId("E").value(), 65535u);
  EXPECT_EQ(w.sm->nextFtId().value(), 1u);
  EXPECT_EQ(w.sm->allocateFtId("F").value(), 4u);  // 1, 2, 3 are taken
}

// The sample rate too: the configured one while on, the default while off.
TEST_F(ConfigSmTest, SwitchingOffRemovesEverythingAndSwitchingOnRestoresIt) {
  w.ethIntf("Ethernet1");
  w.ethIntf("Ethernet2");
  w.bind("Ethernet1", "A");
  w.bind("Ethernet2", "B");
  w.tracker("A")->activeIntervalIs(FlowTracking::ActiveInterval(60000));
  w.tracker("B");
  w.start();
  w.config->sampleRateIs(FlowTracking::SampleRate(2048));
  EXPECT_TRUE(w.boundIntfs().empty());
  EXPECT_EQ(w.hwConfig->hwFtConfigSize(), 0u);
  EXPECT_EQ(w.hwConfig->sampleRate(), 1048576u);
  take();

  w.config->enabledIs(true);
  EXPECT_EQ(w.hwConfig->sampleRate(), 2048u);
  w.config->sampleRateIs(FlowTracking::SampleRate(4096));
  EXPECT_EQ(w.hwConfig->sampleRate(), 4096u);
  EXPECT_EQ(w.boundIntfs(), (Lines{"Ethernet1:A", "Ethernet2:B"}));
  EXPECT_EQ(w.hwConfig->hwFtConfig("A")->activeInterval().value(), 60000u);
  Lines on = take();
  std::sort(on.begin(), on.end());
  EXPECT_EQ(on, (Lines{"FLOWTRACKING_TRACKER_ACTIVE: dummy flow tracker A is active on interface "
                       "Ethernet1.",
                       "FLOWTRACKING_TRACKER_ACTIVE: dummy flow tracker B is active on interface "
                       "Ethernet2."}));

  w.config->enabledIs(false);
  EXPECT_TRUE(w.boundIntfs().empty());
  EXPECT_EQ(w.hwConfig->hwFtConfigSize(), 0u);
  EXPECT_EQ(w.hwConfig->sampleRate(), 1048576u);
  EXPECT_TRUE(w.sm->ftIdToNameMap().empty());
  EXPECT_TRUE(w.sm->ethIntfStatusSm().empty());
  EXPECT_TRUE(w.sm->ftConfigSm().empty());
  EXPECT_EQ(take().size(), 2u);  // two trackers inactive on their interfaces

  w.config->enabledIs(true);
  EXPECT_EQ(w.boundIntfs(), (Lines{"Ethernet1:A", "Ethernet2:B"}));
  EXPECT_EQ(w.ftId("A") + w.ftId("B"), 3u);  // ids 1 and 2 again
}

// Kinds without flow tracking (VLANs, loopbacks) are ignored.
TEST_F(ConfigSmTest, InterfaceBoundBeforeItsTrackerExists) {
  startEnabled();
  w.ethIntf("Ethernet7");
  w.bind("Ethernet7", "T");
  w.bind("Vlan100", "T");
  w.bind("Loopback0", "T");
  EXPECT_TRUE(w.sm->ethIntfStatusSm().empty());
  EXPECT_TRUE(w.boundIntfs().empty());
  w.tracker("T");
  EXPECT_EQ(w.boundIntfs(), Lines{"Ethernet7:T"});
  EXPECT_EQ(w.sm->ethIntfStatusSm().size(), 1u);
  EXPECT_EQ(take(), Lines{"FLOWTRACKING_TRACKER_ACTIVE: dummy flow tracker T is active on "
                          "interface Ethernet7."});
  // Deleting the tracker takes the interface with it.
  w.config->flowTrackerConfigDel("T");
  EXPECT_TRUE(w.boundIntfs().empty());
  EXPECT_EQ(take(), Lines{"FLOWTRACKING_TRACKER_INACTIVE: dummy flow tracker T is inactive on "
                          "interface Ethernet7."});
}

TEST_F(ConfigSmTest, LinkFlapAndForwardingModel) {
  startEnabled();
  auto eth = w.ethIntf("Ethernet3/1");
  w.tracker("T");
  w.bind("Ethernet3/1", "T");
  EXPECT_EQ(w.boundIntfs(), Lines{"Ethernet3/1:T"});
  take();
  eth->linkStatusIs(Interface::LinkStatus::linkDown);
  EXPECT_TRUE(w.boundIntfs().empty());
  eth->linkStatusIs(Interface::LinkStatus::linkNotPresent);  // still down: logs nothing
  eth->linkStatusIs(Interface::LinkStatus::linkUp);
  EXPECT_EQ(w.boundIntfs(), Lines{"Ethernet3/1:T"});
  EXPECT_EQ(take(), (Lines{"FLOWTRACKING_TRACKER_INACTIVE: dummy flow tracker T is inactive on "
                           "interface Ethernet3/1.",
                           "FLOWTRACKING_TRACKER_ACTIVE: dummy flow tracker T is active on "
                           "interface Ethernet3/1."}));
  // Forwarding models up to "quiet" do not forward: inactive even with the link up.
  eth->forwardingModelIs(Interface::ForwardingModel::intfForwardingModelQuiet);
  EXPECT_TRUE(w.boundIntfs().empty());
  eth->forwardingModelIs(Interface::ForwardingModel::intfForwardingModelBridged);
  EXPECT_EQ(w.boundIntfs(), Lines{"Ethernet3/1:T"});
  // The status disappearing removes the reactor and the binding.
  take();
  w.ethPhy->intfStatusDel(Nelo::IntfId("Ethernet3/1"));
  EXPECT_TRUE(w.boundIntfs().empty());
  EXPECT_TRUE(w.sm->ethIntfStatusSm().empty());
  EXPECT_EQ(take().size(), 1u);
}

TEST_F(ConfigSmTest, RebindingLogsInactiveForTheOldTrackerBeforeActiveForTheNew) {
  startEnabled();
  w.ethIntf("Ethernet1");
  w.tracker("A");
  w.tracker("B");
  w.bind("Ethernet1", "A");
  take();
  w.config->flowTrackerIntfConfigDel(Nelo::IntfId("Ethernet1"));
  w.bind("Ethernet1", "B");
  EXPECT_EQ(w.boundIntfs(), Lines{"Ethernet1:B"});
  EXPECT_EQ(take(), (Lines{"FLOWTRACKING_TRACKER_INACTIVE: dummy flow tracker A is inactive on "
                           "interface Ethernet1.",
                           "FLOWTRACKING_TRACKER_ACTIVE: dummy flow tracker B is active on "
                           "interface Ethernet1."}));
  EXPECT_EQ(w.sm->ftNameToIntfIdMap().count("A"), 0u);
  EXPECT_EQ(w.sm->ftNameToIntfIdMap().at("B").intfs(), 1u);
  // Binding again to another tracker without deleting first is refused.
  EXPECT_THROW(w.bind("Ethernet1", "A"), Zub::NameInUseException);
}

TEST_F(ConfigSmTest, PortChannelFollowsItsLinkAndReactsToMembers) {
  startEnabled();
  auto lag = w.lagIntf("Port-Channel10");
  lag->memberIs(Nelo::IntfId("Ethernet1"), true);
  w.tracker("T");
  w.bind("Port-Channel10", "T");
  EXPECT_EQ(w.boundIntfs(), Lines{"Port-Channel10:T"});
  EXPECT_EQ(take().size(), 1u);
  lag->memberIs(Nelo::IntfId("Ethernet2"), true);  // re-evaluated, nothing changes
  EXPECT_EQ(w.boundIntfs(), Lines{"Port-Channel10:T"});
  EXPECT_TRUE(take().empty());
  lag->linkStatusIs(Interface::LinkStatus::linkDown);
  EXPECT_TRUE(w.boundIntfs().empty());
  lag->memberDel(Nelo::IntfId("Ethernet1"));
  EXPECT_TRUE(w.boundIntfs().empty());
  lag->linkStatusIs(Interface::LinkStatus::linkUp);
  EXPECT_EQ(w.boundIntfs(), Lines{"Port-Channel10:T"});
  EXPECT_EQ(take().size(), 2u);
  // Members never get entries of their own.
  w.ethIntf("Ethernet2");
  EXPECT_EQ(w.boundIntfs(), Lines{"Port-Channel10:T"});
}

class ExporterTest : public ConfigSmTest {
 protected:
  void SetUp() override {
    w.localIntf("Loopback0", 9214, "10.0.0.1/32");
    w.localIntf("Loopback1", 9214, "10.0.0.2/32");
    startEnabled();
  }
};

TEST_F(ExporterTest, ReadyExporterWhoseSourceInterfaceChanges) {
  w.exporter("T", "E", "Loopback0");
  EXPECT_FALSE(w.hwExporter("T", "E")->exporterReady());
  w.collector("T", "E", "192.0.2.10");
  auto hw = w.hwExporter("T", "E");
  EXPECT_TRUE(hw->exporterReady());
  EXPECT_EQ(hw->srcIpAddr().stringValue(), "10.0.0.1");
  EXPECT_EQ(hw->collectorIpAndPort("192.0.2.10").stringValue(), "192.0.2.10:4739");
  EXPECT_EQ(take(),
            (Lines{"FLOWTRACKING_COLLECTOR_ACTIVE: dummy collector 192.0.2.10 for exporter E in "
                   "dummy flow tracker T is active.",
                   "FLOWTRACKING_EXPORTER_ACTIVE: dummy exporter E in VRF default, in dummy flow "
                   "tracker T is active."}));

  w.config->flowTrackerConfig("T")->expConfig("E")->localIntfNameIs("Loopback1");
  EXPECT_TRUE(hw->exporterReady());
  EXPECT_EQ(hw->srcIpAddr().stringValue(), "10.0.0.2");
  auto records = logs.records();
  EXPECT_EQ(take(), (Lines{"FLOWTRACKING_EXPORTER_INACTIVE: dummy exporter E in VRF default, in "
                           "dummy flow tracker T is inactive.",
                           "FLOWTRACKING_EXPORTER_ACTIVE: dummy exporter E in VRF default, in "
                           "dummy flow tracker T is active."}));
  EXPECT_EQ(records[0].facility, "IPFIX");

  // The new source interface loses its address: not ready.
  w.ipStatus->ipIntfStatusDel(Nelo::IntfId("Loopback1"));
  EXPECT_FALSE(hw->exporterReady());
  EXPECT_EQ(hw->srcIpAddr().stringValue(), "0.0.0.0");
  w.localIntf("Loopback1", 9214, "10.0.0.3/32");
  EXPECT_TRUE(hw->exporterReady());
  EXPECT_EQ(hw->srcIpAddr().stringValue(), "10.0.0.3");
}

TEST_F(ExporterTest, CollectorThatResolvesToMulticastIsRemoved) {
  w.resolver->answerIs("collector.example", "192.0.2.20");
  w.exporter("T", "E", "Loopback0");
  w.collector("T", "E", "collector.example", 2055);
  auto hw = w.hwExporter("T", "E");
  ASSERT_TRUE(hw->exporterReady());
  take();
  w.resolver->answerIs("collector.example", "224.0.0.1");
  w.collector("T", "E", "collector.example", 2056);  // re-resolved on change
  EXPECT_FALSE(hw->collectorIpAndPortHas("collector.example"));
  EXPECT_FALSE(hw->exporterReady());
  EXPECT_EQ(take(),
            (Lines{"FLOWTRACKING_COLLECTOR_INACTIVE: dummy collector collector.example for "
                   "exporter E in dummy flow tracker T is inactive.",
                   "FLOWTRACKING_EXPORTER_INACTIVE: dummy exporter E in VRF default, in dummy "
                   "flow tracker T is inactive."}));
}

TEST_F(ExporterTest, ResolverFailureKeepsThePreviousAddressAndALaterChangeRetries) {
  w.resolver->answerIs("c.example", "192.0.2.30");
  w.exporter("T", "E", "Loopback0");
  w.collector("T", "E", "c.example", 4739);
  auto hw = w.hwExporter("T", "E");
  take();
  // The same destination under another name is configured, and pointed out.
  w.collector("T", "E", "192.0.2.30", 4739);
  EXPECT_EQ(take(),
            (Lines{"FLOWTRACKING_COLLECTOR_ACTIVE: dummy collector 192.0.2.30 for exporter E in "
                   "dummy flow tracker T is active.",
                   "FLOWTRACKING_COLLECTOR_SAME_DESTINATION: dummy collector 192.0.2.30 for "
                   "exporter E in dummy flow tracker T is the same destination (192.0.2.30:4739) "
                   "as collector c.example; it receives everything twice."}));
  w.config->flowTrackerConfig("T")->expConfig("E")->collectorHostAndPortDel("192.0.2.30");
  take();
  w.resolver->failIs("c.example");
  w.collector("T", "E", "c.example", 4740);
  EXPECT_EQ(hw->collectorIpAndPort("c.example").stringValue(), "192.0.2.30:4739");
  EXPECT_TRUE(hw->exporterReady());
  EXPECT_EQ(take(), (Lines{"FLOWTRACKING_COLLECTOR_NOT_RESOLVED: dummy collector c.example for "
                           "exporter E in dummy flow tracker T does not resolve (Name or service "
                           "not known); export goes on to its previous address "
                           "192.0.2.30:4739."}));
  // Failing again says nothing more.
  w.collector("T", "E", "c.example", 4742);
  EXPECT_TRUE(take().empty());
  // A name with addresses of both families is a destination in each.
  w.resolver->answerIs("c.example", "2001:db8::30", "192.0.2.31");
  w.collector("T", "E", "c.example", 4741);
  EXPECT_EQ(hw->collectorIp6AndPort("c.example").stringValue(), "[2001:db8::30]:4741");
  EXPECT_EQ(hw->collectorIpAndPort("c.example").stringValue(), "192.0.2.31:4741");
  // The name loses its IPv4 address: that destination goes.
  w.resolver->answerIs("c.example", "2001:db8::30");
  w.sm->names().refresh();
  EXPECT_FALSE(hw->collectorIpAndPortHas("c.example"));
  w.resolver->answerIs("c.example", "2001:db8::30", "192.0.2.31");
  w.sm->names().refresh();
  w.config->flowTrackerConfig("T")->expConfig("E")->collectorHostAndPortDel("c.example");
  EXPECT_FALSE(hw->collectorIpAndPortHas("c.example"));
  EXPECT_FALSE(hw->collectorIp6AndPortHas("c.example"));
  EXPECT_FALSE(hw->exporterReady());
  // The same answer again changes and logs nothing.
  w.collector("T", "E", "c.example", 4741);
  take();
  const int calls = w.resolver->calls();
  w.sm->ftConfigSm().get("T")->expConfigSm().get("E")->handleCollectorHostAndPort("c.example");
  EXPECT_EQ(w.resolver->calls(), calls + 1);
  EXPECT_TRUE(take().empty());
}

// A collector configured by a name that does not resolve yet (DNS not up at boot) is
// reported, and followed once it resolves; an address that moves is followed too. A
// lookup that gives the same address changes and logs nothing.
TEST_F(ExporterTest, ANameThatDoesNotResolveIsReportedAndFollowedOnceItDoes) {
  w.resolver->failIs("late.example");
  w.exporter("T", "E", "Loopback0");
  take();
  w.collector("T", "E", "late.example", 4739);
  auto hw = w.hwExporter("T", "E");
  EXPECT_FALSE(hw->collectorIpAndPortHas("late.example"));
  EXPECT_EQ(take(), (Lines{"FLOWTRACKING_COLLECTOR_NOT_RESOLVED: dummy collector late.example "
                           "for exporter E in dummy flow tracker T does not resolve (Name or "
                           "service not known); nothing is exported to it until it does."}));
  w.sm->names().refresh();
  EXPECT_TRUE(take().empty());

  w.resolver->answerIs("late.example", "192.0.2.40");
  w.sm->names().refresh();
  EXPECT_EQ(hw->collectorIpAndPort("late.example").stringValue(), "192.0.2.40:4739");
  EXPECT_TRUE(hw->exporterReady());
  EXPECT_EQ(take(),
            (Lines{"FLOWTRACKING_COLLECTOR_ACTIVE: dummy collector late.example for exporter E "
                   "in dummy flow tracker T is active.",
                   "FLOWTRACKING_EXPORTER_ACTIVE: dummy exporter E in VRF default, in dummy "
                   "flow tracker T is active."}));
  w.sm->names().refresh();
  EXPECT_TRUE(take().empty());

  w.resolver->answerIs("late.example", "192.0.2.41");
  w.sm->names().refresh();
  EXPECT_EQ(hw->collectorIpAndPort("late.example").stringValue(), "192.0.2.41:4739");
  EXPECT_EQ(take().size(), 1u);

  // Failing, then resolving to the address it kept: said both ways.
  w.resolver->failIs("late.example", "Temporary failure in name resolution");
  w.sm->names().refresh();
  w.resolver->answerIs("late.example", "192.0.2.41");
  w.sm->names().refresh();
  EXPECT_EQ(take(),
            (Lines{"FLOWTRACKING_COLLECTOR_NOT_RESOLVED: dummy collector late.example for "
                   "exporter E in dummy flow tracker T does not resolve (Temporary failure in "
                   "name resolution); export goes on to its previous address 192.0.2.41:4739.",
                   "FLOWTRACKING_COLLECTOR_ACTIVE: dummy collector late.example for exporter E "
                   "in dummy flow tracker T is active."}));

  // A collector removed before it ever resolved is no longer followed.
  w.resolver->failIs("never.example");
  w.collector("T", "E", "never.example", 4739);
  take();
  w.config->flowTrackerConfig("T")->expConfig("E")->collectorHostAndPortDel("never.example");
  const int calls = w.resolver->calls();
  w.sm->names().refresh();
  EXPECT_EQ(w.resolver->calls(), calls + 1);  // late.example only
  EXPECT_TRUE(take().empty());
}

// An IPv6 collector on an exporter whose local interface has only IPv4 receives nothing;
// the operator is told so, also while IPv4 collectors keep the exporter active.
TEST_F(ExporterTest, CollectorsOfAFamilyTheInterfaceLacksAreReported) {
  w.exporter("T", "E", "Loopback0");
  take();
  w.collector("T", "E", "2001:db8::10");
  auto hw = w.hwExporter("T", "E");
  EXPECT_FALSE(hw->exporterReady());
  const std::string noV6 =
      "FLOWTRACKING_EXPORTER_NO_SOURCE: dummy exporter E in dummy flow tracker T has IPv6 "
      "collectors, but its local interface Loopback0 has no usable IPv6 address; they "
      "receive nothing.";
  EXPECT_EQ(take(), (Lines{"FLOWTRACKING_COLLECTOR_ACTIVE: dummy collector 2001:db8::10 for "
                           "exporter E in dummy flow tracker T is active.",
                           noV6}));
  w.collector("T", "E", "192.0.2.10");
  EXPECT_TRUE(hw->exporterReady());
  EXPECT_EQ(take().size(), 2u);  // collector and exporter active; IPv6 said once
  w.localIntf("Loopback0", 9214, "10.0.0.1/32", {"2001:db8::1/64"});
  EXPECT_EQ(hw->srcIp6Addr().stringValue(), "2001:db8::1");
  EXPECT_TRUE(take().empty());
  w.ip6Status->intf(Nelo::IntfId("Loopback0"))
      ->addrDel(*Nelo::Ip6AddrWithMask::parse("2001:db8::1/64"));
  EXPECT_EQ(take(), (Lines{noV6}));
}

TEST_F(ExporterTest, MtuIsFittedToTheLocalInterface) {
  w.localIntf("Ethernet9", 1500, "10.9.0.1/24");
  w.exporter("T", "E", "Ethernet9");
  auto hw = w.hwExporter("T", "E");
  EXPECT_EQ(hw->ipfixMtu().value(), 1500u);
  EXPECT_EQ(hw->ipfixMaxMsgSize(), 1452u);
  w.allIntf->intfStatus(Nelo::IntfId("Ethernet9"))->mtuIs(300);
  EXPECT_EQ(hw->ipfixMtu().value(), 512u);
  w.allIntf->intfStatus(Nelo::IntfId("Ethernet9"))->mtuIs(9000);
  w.config->flowTrackerConfig("T")->expConfig("E")->ipfixMtuIs(FlowTracking::IpfixMtu(1000));
  EXPECT_EQ(hw->ipfixMtu().value(), 1000u);
  EXPECT_THROW(FlowTracking::IpfixMtu(511), Zub::RangeException);

  // A local interface whose status appears after the exporter was configured.
  w.exporter("T", "F", "Ethernet10");
  auto hwF = w.hwExporter("T", "F");
  EXPECT_EQ(hwF->ipfixMtu().value(), 9152u);
  w.localIntf("Ethernet10", 1500, "10.10.0.1/24");
  EXPECT_EQ(hwF->ipfixMtu().value(), 1500u);
  w.allIntf->intfStatusDel(Nelo::IntfId("Ethernet10"));
  EXPECT_EQ(hwF->ipfixMtu().value(), 9152u);
}

TEST_F(ExporterTest, Ipv6PathIgnoresTheVrfAndKeepsItsSourceWhileAssigned) {
  w.vrfState("red", Ip::VrfState::vrfInitializing);
  w.localIntf("Loopback5", 9214, "10.5.0.1/32", {"fe80::5/64"}, "red");
  w.exporter("T", "E", "Loopback5", "red");
  w.collector("T", "E", "192.0.2.50");
  auto hw = w.hwExporter("T", "E");
  EXPECT_EQ(hw->srcIpAddr().stringValue(), "10.5.0.1");
  EXPECT_EQ(hw->srcIp6Addr().stringValue(), "::");  // link-local only
  EXPECT_FALSE(hw->exporterReady());                // VRF red is not active
  EXPECT_EQ(hw->vrfDevice(), "");                   // a VRF of the file: nothing to bind to
  w.vrfState("red", Ip::VrfState::vrfActive);
  EXPECT_TRUE(hw->exporterReady());
  // The kernel's VRF device, as it comes and goes; the exporter's sockets follow it.
  auto red = w.vrfs->vrf(L3::VrfName("red"));
  red->deviceIs("red");
  EXPECT_EQ(hw->vrfDevice(), "red");
  w.config->flowTrackerConfig("T")->expConfig("E")->vrfNameIs(L3::VrfName("default"));
  EXPECT_EQ(hw->vrfDevice(), "");
  w.config->flowTrackerConfig("T")->expConfig("E")->vrfNameIs(L3::VrfName("red"));
  EXPECT_EQ(hw->vrfDevice(), "red");
  red->deviceIs("");
  EXPECT_EQ(hw->vrfDevice(), "");
  w.vrfState("red", Ip::VrfState::vrfDeleting);
  EXPECT_FALSE(hw->exporterReady());

  auto ip6 = w.ip6Status->intf(Nelo::IntfId("Loopback5"));
  ip6->addrIs(*Nelo::Ip6AddrWithMask::parse("2001:db8::5/64"));
  EXPECT_EQ(hw->srcIp6Addr().stringValue(), "2001:db8::5");
  w.collector("T", "E", "2001:db8::99");
  EXPECT_TRUE(hw->exporterReady());  // IPv6 source and collector: the VRF does not matter
  ip6->addrIs(*Nelo::Ip6AddrWithMask::parse("2001:db8::1/64"));  // sorts first
  EXPECT_EQ(hw->srcIp6Addr().stringValue(), "2001:db8::5");      // sticky
  ip6->addrDel(*Nelo::Ip6AddrWithMask::parse("2001:db8::5/64"));
  EXPECT_EQ(hw->srcIp6Addr().stringValue(), "2001:db8::1");
}

TEST_F(ExporterTest, SameConfigurationTwiceWritesNothingAndAChangePlusItsReverseRestores) {
  auto exp = w.exporter("T", "E", "Loopback0");
  w.collector("T", "E", "192.0.2.10");
  exp->dscpValueIs(Nelo::DscpValue(46));
  auto hw = w.hwExporter("T", "E");
  auto snapshot = [&] {
    return Zub::str(hw->vrfName(), "|", hw->ipfixMtu(), "|", hw->dscpValue(), "|", hw->srcIpAddr(),
                    "|", hw->srcIp6Addr(), "|", hw->exporterReady(), "|",
                    hw->collectorIpAndPortSize(), "|", hw->templateInterval());
  };
  const std::string before = snapshot();
  int notes = 0;
  std::vector<Zub::Subscription> subs;
  subs.push_back(hw->exporterReadySignal().connect(nullptr, [&] { ++notes; }));
  subs.push_back(hw->srcIpAddrSignal().connect(nullptr, [&] { ++notes; }));
  subs.push_back(hw->collectorIpAndPortSignal().connect(nullptr, [&](auto&) { ++notes; }));
  take();
  // The same values again.
  exp->localIntfNameIs("Loopback0");
  w.collector("T", "E", "192.0.2.10");
  w.tracker("T");
  w.sm->handleFtrConfig();
  EXPECT_EQ(notes, 0);
  EXPECT_TRUE(take().empty());
  // A change and its reverse.
  exp->templateIntervalIs(FlowTracking::TemplateInterval(60000));
  exp->vrfNameIs(L3::VrfName("blue"));
  exp->vrfNameIs(L3::VrfName("default"));
  exp->templateIntervalIs(FlowTracking::TemplateInterval());
  EXPECT_EQ(snapshot(), before);
}

TEST_F(ConfigSmTest, ShutdownLeavesTheAgentDirectoryWhileEnabled) {
  struct Agent : Hollin::CAgent {
    int flushed = 0;
    void flushEntityLog() override { ++flushed; }
  };
  Zub::Ptr<Agent> agent(new Agent());
  startEnabled();
  w.sm->handleShutdown(agent.get());
  EXPECT_EQ(w.agentDir->entries(), 1u);
  EXPECT_EQ(agent->flushed, 0);
  EXPECT_TRUE(take().empty());
  w.config->enabledIs(false);
  w.sm->handleShutdown(agent.get());
  EXPECT_EQ(w.agentDir->entries(), 0u);
  EXPECT_EQ(agent->flushed, 1);
  EXPECT_TRUE(w.sm->exitAgent());
  EXPECT_EQ(take(), Lines{"FLOWTRACKING_INACTIVE: dummy flow tracking is inactive."});
}

// The reactor restarts while the hardware configuration stays: its children go with what
// they wrote, the trackers keep their ids, and the successor binds the interfaces again.
TEST_F(ConfigSmTest, ARestartedReactorKeepsTheIdsAndBindsAgain) {
  startEnabled();
  w.ethIntf("Ethernet1");
  w.tracker("A");
  w.tracker("B");
  w.config->flowTrackerConfigDel("A");
  w.tracker("C");  // C gets A's id 1
  w.bind("Ethernet1", "C");
  ASSERT_EQ(w.ftId("C"), 1u);
  ASSERT_EQ(w.ftId("B"), 2u);
  take();
  w.sm = nullptr;
  EXPECT_TRUE(w.boundIntfs().empty());
  EXPECT_EQ(take(), Lines{"FLOWTRACKING_TRACKER_INACTIVE: dummy flow tracker C is inactive on "
                          "interface Ethernet1."});
  EXPECT_EQ(w.hwConfig->hwFtConfigSize(), 2u);
  w.agentDir->entryDelAll();
  w.start();
  EXPECT_EQ(w.boundIntfs(), Lines{"Ethernet1:C"});
  EXPECT_EQ(w.ftId("C"), 1u);
  EXPECT_EQ(w.ftId("B"), 2u);
  w.tracker("D");
  EXPECT_EQ(w.ftId("D"), 3u);
}

TEST(ConfigSmDeathTest, InconsistentTablesStopTheAgent) {
  const char* file = "\\(file FlowTrackerConfigSm.cpp";
  {
    ConfigWorld w;
    w.agentDir->mkdir("otherAgent");
    w.agentDir->mkdir("base");
    EXPECT_DEATH(w.start(), std::string("ASSERTION FAILED: false ") + file);
  }
  {
    ConfigWorld w;
    w.agentDir->mkdir("otherAgent");
    EXPECT_DEATH(w.start(),
                 "ASSERTION FAILED: agentDir\\(\\)->entityPtr< Zub::Dir >\\( agentName\\(\\) \\) "
                 "!= __null \\(file FlowTrackerConfigSm.cpp");
  }
  {
    ConfigWorld w;
    w.config->enabledIs(true);
    w.hwConfig->hwFtConfigIs("A", FlowTracking::FtId(5));
    w.hwConfig->hwFtConfigIs("B", FlowTracking::FtId(5));
    w.tracker("A");
    w.tracker("B");
    EXPECT_DEATH(w.start(), "ASSERTION FAILED: ftIdToName\\( ftId \\) == ftName ");
  }
  {
    ConfigWorld w;
    w.config->enabledIs(true);
    w.start();
    for (int i = 0; i < 65535; ++i) w.sm->allocateFtId("t" + std::to_string(i));
    EXPECT_DEATH(w.sm->allocateFtId("one too many"),
                 std::string("ASSERTION FAILED: ftId != FtId::null\\(\\) ") + file);
  }
}

}  // namespace
