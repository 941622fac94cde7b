// The configuration file: what is accepted, and what is refused with file, line and
// field.

#include <gtest/gtest.h>

#include "agent/AgentConfig.h"
#include "agent/ConfigApplier.h"

namespace {

using Agent::ConfigError;
using Agent::parseConfig;

TEST(AgentConfig, FullFileWithUnitsOperatorsRead) {
  const auto c = parseConfig(R"(
flow-tracking:
  enabled: true
  sample-rate: 2048
  trackers:
    - name: edge
      active-interval: 60
      inactive-timeout: 5
      exporters:
        - name: lab
          collectors: ["collector.lab:2055", "10.0.0.9:4739", "[2001:db8::9]:4739"]
          local-interface: Loopback0
          dscp: 46
          mtu: 1500
          template-interval: 30
  interfaces:
    Ethernet1: edge
    Port-Channel5: edge
platform:
  interfaces:
    Loopback0: {mtu: 65535, ipv4: 10.0.0.1/32, ipv6: ["2001:db8::1/128"]}
    Ethernet1: {link: down, forwarding-model: bridged, index: 7}
    Port-Channel5: {members: [Ethernet2, Ethernet3]}
  vrfs:
    default: active
    red: {state: inactive, id: 3}
)",
                             "t.yaml");
  EXPECT_TRUE(c.enabled);
  EXPECT_EQ(c.sampleRate.value(), 2048u);
  ASSERT_EQ(c.trackers.size(), 1u);
  const auto& t = c.trackers[0];
  EXPECT_EQ(t.activeInterval.value(), 60000u);
  EXPECT_EQ(t.inactiveTimeout.value(), 5000u);
  const auto& e = t.exporters[0];
  EXPECT_EQ(e.collectors.size(), 3u);
  EXPECT_EQ(e.collectors[2].host, "2001:db8::9");
  EXPECT_EQ(e.vrf.name(), "default");  // no VRF configured: the default VRF
  EXPECT_EQ(e.dscp.value(), 46);
  EXPECT_EQ(e.templateInterval.value(), 30000u);
  EXPECT_EQ(c.interfaceTracker.at("Port-Channel5"), "edge");
  ASSERT_EQ(c.interfaces.size(), 3u);
  EXPECT_FALSE(c.interfaces[1].linkUp);
  EXPECT_EQ(c.interfaces[1].index, 7u);
  EXPECT_EQ(c.interfaces[2].members.size(), 2u);
  EXPECT_EQ(c.vrfs[1].state, Ip::VrfState::vrfInitializing);
  EXPECT_EQ(c.vrfs[1].id, 3u);
  // Defaults of an almost empty file.
  const auto d = parseConfig("flow-tracking: {trackers: [{name: t, exporters: [{name: e}]}]}", "d");
  EXPECT_FALSE(d.enabled);
  EXPECT_EQ(d.trackers[0].activeInterval.value(), 300000u);
  EXPECT_EQ(d.trackers[0].exporters[0].mtu.value(), 9152u);
  EXPECT_NO_THROW(parseConfig(Agent::embeddedDefaultConfig(), "default"));
  // An empty list of interfaces or VRFs is written as a key with nothing under it.
  const auto none = parseConfig(
      "flow-tracking:\n  enabled: true\n  interfaces:\nplatform:\n  interfaces:\n  vrfs:\n", "n");
  EXPECT_TRUE(none.interfaceTracker.empty());
  EXPECT_TRUE(none.interfaces.empty());
  EXPECT_TRUE(none.vrfs.empty());
}

TEST(AgentConfig, OnlyARegularFileIsRead) {
  for (const char* path : {"/dev/null", "/dev/zero", "."}) {
    try {
      Agent::loadConfigFile(path);
      ADD_FAILURE() << path << " accepted";
    } catch (const ConfigError& e) {
      EXPECT_EQ(std::string(e.what()), std::string(path) + ": not a regular file");
    }
  }
}

TEST(AgentConfig, TheShippedExampleIsValid) {
  const auto c = Agent::loadConfigFile(EXAMPLE_CONFIG);
  EXPECT_TRUE(c.enabled);
  ASSERT_EQ(c.trackers.size(), 1u);
  EXPECT_EQ(c.trackers[0].exporters[0].collectors.size(), 3u);
  EXPECT_EQ(c.interfaces.size(), 3u);
}

TEST(AgentConfig, RefusalsNameFileLineFieldAndTheRangeInOperatorWords) {
  struct Case {
    std::string yaml;
    std::string what;
  };
  const Case cases[] = {
      {"flow-tracking:\n  trackers:\n    - name: t\n      active-interval: 4\n",
       "f.yaml:4: flow-tracking.trackers[0].active-interval: expected 5 to 36000 seconds"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      inactive-timeout: 901\n",
       "f.yaml:4: flow-tracking.trackers[0].inactive-timeout: expected 3 to 900 seconds"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      flow-cache: 1023\n",
       "f.yaml:4: flow-tracking.trackers[0].flow-cache: expected 1024 to 4194304 flows"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      exporters:\n        - name: e\n"
       "          mtu: 511\n",
       "f.yaml:6: flow-tracking.trackers[0].exporters[0].mtu: expected 512 to 65472 bytes"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      exporters:\n        - name: e\n"
       "          dscp: 64\n",
       "f.yaml:6: flow-tracking.trackers[0].exporters[0].dscp: expected 0 to 63 (DSCP)"},
      {"flow-tracking:\n  sample-rate: 0\n",
       "f.yaml:2: flow-tracking.sample-rate: expected 1 to 16777216 (one packet in N)"},
      {"flow-tracking: {enabled: false}\nplatform:\n  interfaces:\n    Ethernet1: {mtu: 67}\n",
       "f.yaml:4: platform.interfaces.Ethernet1.mtu: expected 68 to 65535 bytes"},
      {"flow-tracking: {enabled: false}\nplatform:\n  interfaces:\n    Ethernet1: {index: 0}\n",
       "f.yaml:4: platform.interfaces.Ethernet1.index: expected 1 to 1073741822"},
      {"flow-tracking: {enabled: false}\nplatform:\n  vrfs:\n    red: {id: 16777215}\n",
       "f.yaml:4: platform.vrfs.red.id: expected 0 to 16777214"},
      {"flow-tracking: {enabled: false}\nplatform:\n  source: kernel\n  names:\n"
       "    vA: Ethernet1\n    vC: Ethernet1\n",
       "f.yaml:6: platform.names.vC: kernel links vA and vC both map to Ethernet1; an interface "
       "id names one link"},
      {"flow-tracking:\n  memory-limit: 8\n",
       "f.yaml:2: flow-tracking.memory-limit: expected 16 to 1048576 MiB"},
      {"flow-tracking:\n  ring-size: 100\n",
       "f.yaml:2: flow-tracking.ring-size: expected 256 to 1048576 KiB"},
      {"flow-tracking:\n  sample-rate: 1023\n",
       "f.yaml:2: flow-tracking.sample-rate: the chip samples one packet in 1024 to 16777216; "
       "with `platform: {source: kernel}` the host samples at any rate from 1"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      exporters:\n        - name: e\n"
       "          template-interval: 3601\n",
       "f.yaml:6: flow-tracking.trackers[0].exporters[0].template-interval: expected 5 to 3600 "
       "seconds"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      exporters:\n        - name: e\n"
       "          vrf: " +
           std::string(101, 'v') + "\n",
       "vrf: a VRF name is at most 100 bytes"},
      {"flow-tracking: {enabled: false}\nplatform:\n  vrfs:\n    " + std::string(101, 'v') +
           ": active\n",
       "f.yaml:4: platform.vrfs." + std::string(101, 'v') + ": a VRF name is at most 100 bytes"},
      {"flow-tracking: {enabled: false}\nplatform:\n  source: kernel\n  interfaces: {}\n",
       "f.yaml:4: platform.interfaces: with source: kernel the interfaces and VRFs come from the "
       "kernel"},
      {"flow-tracking: {enabled: false}\nplatform:\n  source: netlink\n",
       "f.yaml:3: platform.source: expected file or kernel"},
      {"flow-tracking: {enabled: false}\nplatform: " + std::string(600, '[') +
           std::string(600, ']') + "\n",
       "f.yaml:2: nested deeper than 499 levels"},
      // A newline in a name would break the line-oriented tracker-id state file.
      {"flow-tracking:\n  trackers:\n    - name: \"note\\n2 aaa\"\n",
       "f.yaml:3: flow-tracking.trackers[0].name: a name must not contain control characters"},
      {"platform:\n  interfaces:\n    \"Eth\\tx\": {}\n",
       "f.yaml:3: platform.interfaces: a name must not contain control characters"},
      {"flow-tracking:\n  trackers:\n    - name: \"t\xc2\x9b"
       "2J\"\n",
       "f.yaml:3: flow-tracking.trackers[0].name: a name must not contain control characters"},
      {"flow-tracking:\n  trackers:\n    - name: \"t\xff\"\n",
       "f.yaml:3: flow-tracking.trackers[0].name: a name must be UTF-8 text"},
      {"flow-tracking:\n  enabeld: true\n",
       "f.yaml:2: flow-tracking.enabeld: unknown field (known: enabled, hardware-acceleration, "
       "sample-rate, compatible-options, memory-limit, ring-size, trackers, interfaces)"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      exporters:\n        - name: e\n"
       "          collectors: [\"10.0.0.1\"]\n",
       "f.yaml:6: flow-tracking.trackers[0].exporters[0].collectors[0]: expected host:port"},
      {"flow-tracking:\n  enabled: yes please\n",
       "f.yaml:2: flow-tracking.enabled: expected true or false"},
      {"flow-tracking:\n  trackers:\n    - name: t\n    - name: t\n",
       "f.yaml:4: flow-tracking.trackers[1]: tracker t given twice"},
      {"flow-tracking: [\n", "f.yaml:2: "},
      {"flow-tracking:\n  interfaces:\n    [Ethernet1]: t\n",  // found by the fuzzer
       "f.yaml:3: flow-tracking.interfaces: expected a name as key"},
      {"platform:\n  interfaces:\n    Ethernet1: {members: [Ethernet2]}\n",
       "f.yaml:3: platform.interfaces.Ethernet1.members: only a Port-Channel has members"},
      // Nothing that reads as "no configuration" switches export off: an empty, a
      // comment-only or a section-less file is refused, saying how to disable.
      {"", "f.yaml: no flow-tracking section; write `flow-tracking: {enabled: false}` to disable"},
      {"# nothing yet\n", "f.yaml: no flow-tracking section"},
      {"---\n", "f.yaml:2: no flow-tracking section"},
      {"~\n", "f.yaml:1: no flow-tracking section"},
      {"platform:\n  vrfs: {default: active}\n", "f.yaml:1: no flow-tracking section"},
      // A line appended to switch export off must not be ignored, nor a second document.
      {"flow-tracking:\n  enabled: true\nflow-tracking:\n  enabled: false\n",
       "f.yaml:3: flow-tracking: given twice"},
      {"flow-tracking:\n  trackers:\n    - name: t\n      exporters:\n"
       "        - {name: e, mtu: 600, mtu: 99999}\n",
       "f.yaml:5: flow-tracking.trackers[0].exporters[0].mtu: given twice"},
      {"flow-tracking: {enabled: true}\nplatform:\n  vrfs: {red: active, red: inactive}\n",
       "f.yaml:3: platform.vrfs.red: given twice"},
      {"flow-tracking: {enabled: true}\n---\nflow-tracking: {enabled: false}\n",
       "f.yaml:3: a second YAML document; the file holds one"},
      // Found by fuzzing: yaml-cpp's LoadAll made empty documents of this without end.
      {"\n,N?", "f.yaml:2: a second YAML document; the file holds one"},
      {"flow-tracking:\n  trackers:\n    - name: t1\n  interfaces:\n    Ethernet1: t-one\n",
       "f.yaml:5: flow-tracking.interfaces.Ethernet1: no tracker named t-one"},
      // Each tracker needs an observation domain id of 1..65535.
      {"flow-tracking:\n  trackers: [" + std::string(65535 * 2, ',').replace(0, 1, "x") + "]\n",
       "f.yaml:2: flow-tracking.trackers: at most 65535 trackers"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.yaml);
    try {
      parseConfig(c.yaml, "f.yaml");
      ADD_FAILURE() << "accepted";
    } catch (const ConfigError& e) {
      EXPECT_NE(std::string(e.what()).find(c.what), std::string::npos) << e.what();
    }
  }
}

// Interface indexes and VRF ids as the tables name them: configured ones as given, the
// others chosen (lowest free number in name order) and kept across reloads.
TEST(ConfigApplier, IndexesAndVrfIdsAreChosenOnceAndKept) {
  Agent::StatusEntities s;
  auto apply = [&](const std::string& platform) {
    Agent::applyPlatform(
        s, parseConfig("flow-tracking:\n  enabled: true\nplatform:\n" + platform, "test.yaml"));
  };
  auto index = [&](const char* intf) { return s.intfIndexMap->intfIndex(intf); };
  apply(
      "  interfaces:\n    Ethernet2: {}\n    Ethernet1: {index: 2}\n    Loopback0: {}\n"
      "  vrfs:\n    red: active\n    default: active\n    blue: {state: active, id: 1}\n");
  EXPECT_EQ(index("Ethernet1"), 2u);  // configured
  EXPECT_EQ(index("Ethernet2"), 1u);  // then the lowest free, in name order
  EXPECT_EQ(index("Loopback0"), 3u);
  EXPECT_EQ(s.intfIndexMap->intfId(3), Nelo::IntfId("Loopback0"));
  EXPECT_EQ(s.vrfIdMap->vrfIdToName(0), L3::VrfName("default"));
  EXPECT_EQ(s.vrfIdMap->vrfIdToName(1), L3::VrfName("blue"));
  EXPECT_EQ(s.vrfIdMap->vrfIdToName(2), L3::VrfName("red"));

  // A new interface that sorts first does not move the others; a configured index that
  // another interface had takes it over, and that one gets a free number.
  apply(
      "  interfaces:\n    Ethernet0: {}\n    Ethernet2: {}\n    Ethernet1: {index: 2}\n"
      "    Loopback0: {index: 1}\n  vrfs:\n    red: active\n    default: active\n");
  EXPECT_EQ(index("Loopback0"), 1u);
  EXPECT_EQ(index("Ethernet1"), 2u);
  EXPECT_EQ(index("Ethernet0"), 3u);
  EXPECT_EQ(index("Ethernet2"), 4u);
  EXPECT_EQ(s.intfIndexMap->intfIdSize(), 4u);
  EXPECT_EQ(s.vrfIdMap->vrfIdToName(2), L3::VrfName("red"));  // kept, though 1 is free now
  EXPECT_FALSE(s.vrfIdMap->vrfIdToNameHas(1));

  // Interfaces that go lose their index.
  apply("  interfaces:\n    Ethernet2: {}\n");
  EXPECT_EQ(s.intfIndexMap->intfIndexSize(), 1u);
  EXPECT_EQ(index("Ethernet2"), 4u);
  EXPECT_EQ(s.intfIndexMap->intfIdSize(), 1u);
}

}  // namespace
