// The information element catalogue against the IANA registry entries it names.

#include <gtest/gtest.h>

#include <set>

#include "ipfix/IpfixSm.h"

namespace {

using Ipfix::ElementId;
using Ipfix::RecordType;

// IANA "IPFIX Information Elements" registry: id, name, and the length that the
// abstract data type gives (65535: variable length).
struct Iana {
  uint16_t id;
  const char* name;
  uint16_t len;
};
constexpr Iana kIana[] = {
    {1, "octetDeltaCount", 8},
    {2, "packetDeltaCount", 8},
    {4, "protocolIdentifier", 1},
    {5, "ipClassOfService", 1},
    {6, "tcpControlBits", 2},
    {7, "sourceTransportPort", 2},
    {8, "sourceIPv4Address", 4},
    {9, "sourceIPv4PrefixLength", 1},
    {10, "ingressInterface", 4},
    {11, "destinationTransportPort", 2},
    {12, "destinationIPv4Address", 4},
    {13, "destinationIPv4PrefixLength", 1},
    {14, "egressInterface", 4},
    {15, "ipNextHopIPv4Address", 4},
    {16, "bgpSourceAsNumber", 4},
    {17, "bgpDestinationAsNumber", 4},
    {18, "bgpNextHopIPv4Address", 4},
    {27, "sourceIPv6Address", 16},
    {28, "destinationIPv6Address", 16},
    {29, "sourceIPv6PrefixLength", 1},
    {30, "destinationIPv6PrefixLength", 1},
    {34, "samplingInterval", 4},
    {36, "flowActiveTimeout", 2},
    {37, "flowIdleTimeout", 2},
    {56, "sourceMacAddress", 6},
    {57, "postDestinationMacAddress", 6},
    {58, "vlanId", 2},
    {59, "postVlanId", 2},
    {62, "ipNextHopIPv6Address", 16},
    {63, "bgpNextHopIPv6Address", 16},
    {82, "interfaceName", 65535},
    {83, "interfaceDescription", 65535},
    {136, "flowEndReason", 1},
    {144, "exportingProcessId", 4},
    {145, "templateId", 2},
    {149, "observationDomainId", 4},
    {152, "flowStartMilliseconds", 8},
    {153, "flowEndMilliseconds", 8},
    {173, "flowKeyIndicator", 8},
    {234, "ingressVRFID", 4},
    {236, "VRFname", 65535},
    {300, "observationDomainName", 65535},
    {304, "selectorAlgorithm", 2},
    {309, "samplingSize", 4},
    {310, "samplingPopulation", 4},
    {368, "ingressInterfaceType", 4},
};

TEST(Catalogue, StandardEntriesMatchTheIanaRegistry) {
  auto init = Ipfix::ipfixInitSmFactory();
  ASSERT_TRUE(init->initialized());
  auto eic = init->elementIdCollection();
  EXPECT_EQ(eic->elementIdCollSize(), 47u);
  for (const Iana& r : kIana) {
    SCOPED_TRACE(r.name);
    ElementId e = eic->elementIdColl(static_cast<RecordType>(r.id));
    EXPECT_EQ(static_cast<uint16_t>(e.id), r.id);
    EXPECT_EQ(e.str, r.name);
    EXPECT_EQ(e.len, r.len);
    EXPECT_FALSE(e.enterpriseIe);
  }
  ElementId inner = eic->elementIdColl(RecordType::innerSrcIp);
  EXPECT_EQ(inner, ElementId(true, RecordType::innerSrcIp, 4, "innerSrcIp"));
  // A second initialisation changes nothing.
  init->handleInitialized();
  EXPECT_EQ(init->elementIdCollection(), eic);
}

TEST(Catalogue, TextForms) {
  EXPECT_EQ(stringValue(RecordType::byteCount), "byteCount");
  EXPECT_EQ(stringValue(static_cast<RecordType>(1)), "byteCount");
  EXPECT_EQ(stringValue(Ipfix::SelectorAlgorithm::randomNofNSampling), "randomNofNSampling");
  EXPECT_EQ(Ipfix::recordTypeFromString("broadscanTimestamp"), RecordType::broadscanTimestamp);
  EXPECT_EQ(Ipfix::recordTypeFromString("bogus"), std::nullopt);
  // Every enumerator has a distinct name that reads back to it.
  std::set<std::string> names;
  for (RecordType t : Ipfix::allRecordTypes()) {
    names.insert(stringValue(t));
    EXPECT_EQ(Ipfix::recordTypeFromString(stringValue(t)), t);
  }
  EXPECT_EQ(names.size(), 64u);
  EXPECT_EQ(ElementId(false, RecordType::vrfName, 65535, "VRFname").stringValue(),
            "Value('Ipfix::ElementId', ** {'enterpriseIe': false, 'id': vrfName, 'len': 65535, "
            "'str': VRFname})");
}

}  // namespace
