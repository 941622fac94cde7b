#include "ipfix/Ipfix.h"

#include <array>

#include "ipfix/FlowTrackingTypes.h"

namespace Ipfix {

namespace {
struct Named {
  RecordType type;
  std::string_view name;
};
#define IPFIX_RT(n) \
  Named { RecordType::n, #n }
const std::array kRecordTypes = {
    IPFIX_RT(byteCount),
    IPFIX_RT(packetCount),
    IPFIX_RT(ipProtocol),
    IPFIX_RT(ipClassOfService),
    IPFIX_RT(tcpControlBits),
    IPFIX_RT(srcL4Port),
    IPFIX_RT(srcIp),
    IPFIX_RT(srcIpPrefixLen),
    IPFIX_RT(ingressInterface),
    IPFIX_RT(dstL4Port),
    IPFIX_RT(dstIp),
    IPFIX_RT(dstIpPrefixLen),
    IPFIX_RT(egressInterface),
    IPFIX_RT(ipNextHop),
    IPFIX_RT(bgpSrcAs),
    IPFIX_RT(bgpDstAs),
    IPFIX_RT(bgpIpNextHop),
    IPFIX_RT(srcIp6),
    IPFIX_RT(dstIp6),
    IPFIX_RT(srcIpv6PrefixLen),
    IPFIX_RT(dstIpv6PrefixLen),
    IPFIX_RT(samplingInterval),
    IPFIX_RT(flowActiveTimeout),
    IPFIX_RT(flowIdleTimeout),
    IPFIX_RT(srcMac),
    IPFIX_RT(dstMac),
    IPFIX_RT(vlanId),
    IPFIX_RT(postVlanId),
    IPFIX_RT(ip6NextHop),
    IPFIX_RT(bgpIp6NextHop),
    IPFIX_RT(interfaceName),
    IPFIX_RT(interfaceDescription),
    IPFIX_RT(flowEndReason),
    IPFIX_RT(exportingProcessId),
    IPFIX_RT(templateId),
    IPFIX_RT(observationDomainId),
    IPFIX_RT(timeStampFlowStart),
    IPFIX_RT(timeStampFlowEnd),
    IPFIX_RT(flowKeyIndicator),
    IPFIX_RT(vrfId),
    IPFIX_RT(vrfName),
    IPFIX_RT(observationDomainName),
    IPFIX_RT(selectorAlgorithm),
    IPFIX_RT(samplingSize),
    IPFIX_RT(samplingPopulation),
    IPFIX_RT(ingressInterfaceType),
    IPFIX_RT(innerSrcIp),
    IPFIX_RT(innerDstIp),
    IPFIX_RT(innerSrcIp6),
    IPFIX_RT(innerDstIp6),
    IPFIX_RT(innerIpProtocol),
    IPFIX_RT(innerSrcL4Port),
    IPFIX_RT(innerDstL4Port),
    IPFIX_RT(tunnelEncap),
    IPFIX_RT(srcIntf),
    IPFIX_RT(dstIntf),
    IPFIX_RT(srcVlan),
    IPFIX_RT(dstVlan),
    IPFIX_RT(broadscanFlowTableIndex),
    IPFIX_RT(broadscanGroupId),
    IPFIX_RT(broadscanExportReason),
    IPFIX_RT(broadscanExportFlags),
    IPFIX_RT(broadscanTimestamp),
    IPFIX_RT(zeroInfoElement),
};
#undef IPFIX_RT
}  // namespace

std::string stringValue(RecordType t) {
  for (const auto& n : kRecordTypes) {
    if (n.type == t) return std::string(n.name);
  }
  return std::to_string(static_cast<uint32_t>(t));
}

std::optional<RecordType> recordTypeFromString(std::string_view name) {
  for (const auto& n : kRecordTypes) {
    if (n.name == name) return n.type;
  }
  return std::nullopt;
}

const std::vector<RecordType>& allRecordTypes() {
  static const std::vector<RecordType> all = [] {
    std::vector<RecordType> v;
    for (const auto& n : kRecordTypes) v.push_back(n.type);
    return v;
  }();
  return all;
}

std::string stringValue(SelectorAlgorithm a) {
  return a == SelectorAlgorithm::randomNofNSampling ? "randomNofNSampling"
                                                    : std::to_string(static_cast<uint32_t>(a));
}

std::string ElementId::stringValue() const {
  return Zub::str("Value('Ipfix::ElementId', ** {'enterpriseIe': ", enterpriseIe, ", 'id': ", id,
                  ", 'len': ", len, ", 'str': ", str, "})");
}

void ElementIdColl::doInitialize() {
  const uint16_t var = FlowTracking::Constants::variableLengthIe();
  struct Entry {
    RecordType id;
    const char* name;
    uint16_t len;
    bool enterprise;
  };
  const Entry entries[] = {
      {RecordType::byteCount, "octetDeltaCount", 8, false},
      {RecordType::packetCount, "packetDeltaCount", 8, false},
      {RecordType::ipProtocol, "protocolIdentifier", 1, false},
      {RecordType::ipClassOfService, "ipClassOfService", 1, false},
      {RecordType::tcpControlBits, "tcpControlBits", 2, false},
      {RecordType::srcL4Port, "sourceTransportPort", 2, false},
      {RecordType::srcIp, "sourceIPv4Address", 4, false},
      {RecordType::srcIpPrefixLen, "sourceIPv4PrefixLength", 1, false},
      {RecordType::ingressInterface, "ingressInterface", 4, false},
      {RecordType::dstL4Port, "destinationTransportPort", 2, false},
      {RecordType::dstIp, "destinationIPv4Address", 4, false},
      {RecordType::dstIpPrefixLen, "destinationIPv4PrefixLength", 1, false},
      {RecordType::egressInterface, "egressInterface", 4, false},
      {RecordType::ipNextHop, "ipNextHopIPv4Address", 4, false},
      {RecordType::bgpSrcAs, "bgpSourceAsNumber", 4, false},
      {RecordType::bgpDstAs, "bgpDestinationAsNumber", 4, false},
      {RecordType::bgpIpNextHop, "bgpNextHopIPv4Address", 4, false},
      {RecordType::srcIp6, "sourceIPv6Address", 16, false},
      {RecordType::dstIp6, "destinationIPv6Address", 16, false},
      {RecordType::srcIpv6PrefixLen, "sourceIPv6PrefixLength", 1, false},
      {RecordType::dstIpv6PrefixLen, "destinationIPv6PrefixLength", 1, false},
      {RecordType::flowActiveTimeout, "flowActiveTimeout", 2, false},
      {RecordType::flowIdleTimeout, "flowIdleTimeout", 2, false},
      {RecordType::srcMac, "sourceMacAddress", 6, false},
      {RecordType::dstMac, "postDestinationMacAddress", 6, false},
      {RecordType::vlanId, "vlanId", 2, false},
      {RecordType::postVlanId, "postVlanId", 2, false},
      {RecordType::ip6NextHop, "ipNextHopIPv6Address", 16, false},
      {RecordType::bgpIp6NextHop, "bgpNextHopIPv6Address", 16, false},
      {RecordType::interfaceName, "interfaceName", var, false},
      {RecordType::interfaceDescription, "interfaceDescription", var, false},
      {RecordType::exportingProcessId, "exportingProcessId", 4, false},
      {RecordType::samplingInterval, "samplingInterval", 4, false},
      {RecordType::templateId, "templateId", 2, false},
      {RecordType::observationDomainId, "observationDomainId", 4, false},
      {RecordType::timeStampFlowStart, "flowStartMilliseconds", 8, false},
      {RecordType::timeStampFlowEnd, "flowEndMilliseconds", 8, false},
      {RecordType::flowEndReason, "flowEndReason", 1, false},
      {RecordType::flowKeyIndicator, "flowKeyIndicator", 8, false},
      {RecordType::vrfId, "ingressVRFID", 4, false},
      {RecordType::vrfName, "VRFname", var, false},
      {RecordType::observationDomainName, "observationDomainName", var, false},
      {RecordType::selectorAlgorithm, "selectorAlgorithm", 2, false},
      {RecordType::samplingSize, "samplingSize", 4, false},
      {RecordType::samplingPopulation, "samplingPopulation", 4, false},
      {RecordType::ingressInterfaceType, "ingressInterfaceType", 4, false},
      {RecordType::innerSrcIp, "innerSrcIp", 4, true},
  };
  for (const Entry& e : entries) elementIdCollIs(ElementId(e.enterprise, e.id, e.len, e.name));
}

}  // namespace Ipfix
