#pragma once
// Information elements: the fields the hardware can report or options records carry
// (RecordType, whose values are the IPFIX element ids), and the catalogue that maps
// each to the element that encodes it (ElementIdColl).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/zub/Collection.h"

namespace Ipfix {

// Values are IANA information element ids; 1024 and up are this system's
// enterprise-specific ids. zeroInfoElement is the end value.
enum class RecordType : uint32_t {
  byteCount = 1,
  packetCount = 2,
  ipProtocol = 4,
  ipClassOfService = 5,
  tcpControlBits = 6,
  srcL4Port = 7,
  srcIp = 8,
  srcIpPrefixLen = 9,
  ingressInterface = 10,
  dstL4Port = 11,
  dstIp = 12,
  dstIpPrefixLen = 13,
  egressInterface = 14,
  ipNextHop = 15,
  bgpSrcAs = 16,
  bgpDstAs = 17,
  bgpIpNextHop = 18,
  srcIp6 = 27,
  dstIp6 = 28,
  srcIpv6PrefixLen = 29,
  dstIpv6PrefixLen = 30,
  samplingInterval = 34,
  flowActiveTimeout = 36,
  flowIdleTimeout = 37,
  srcMac = 56,
  dstMac = 57,
  vlanId = 58,
  postVlanId = 59,
  ip6NextHop = 62,
  bgpIp6NextHop = 63,
  interfaceName = 82,
  interfaceDescription = 83,
  flowEndReason = 136,
  exportingProcessId = 144,
  templateId = 145,
  observationDomainId = 149,
  timeStampFlowStart = 152,
  timeStampFlowEnd = 153,
  flowKeyIndicator = 173,
  vrfId = 234,
  vrfName = 236,
  observationDomainName = 300,
  selectorAlgorithm = 304,
  samplingSize = 309,
  samplingPopulation = 310,
  ingressInterfaceType = 368,
  innerSrcIp = 1024,
  innerDstIp = 1025,
  innerSrcIp6 = 1026,
  innerDstIp6 = 1027,
  innerIpProtocol = 1028,
  innerSrcL4Port = 1029,
  innerDstL4Port = 1030,
  tunnelEncap = 1031,
  srcIntf = 1032,
  dstIntf = 1033,
  srcVlan = 1034,
  dstVlan = 1035,
  broadscanFlowTableIndex = 1036,
  broadscanGroupId = 1037,
  broadscanExportReason = 1038,
  broadscanExportFlags = 1039,
  broadscanTimestamp = 1040,
  zeroInfoElement = 1041,
};
// The enumerator name; unknown values print as their number.
std::string stringValue(RecordType t);
std::optional<RecordType> recordTypeFromString(std::string_view name);
// Every enumerator, in declaration order.
const std::vector<RecordType>& allRecordTypes();

// The IANA private enterprise number written with this system's enterprise-specific
// field specifiers: a deployment constant, set at build time (the FLOWEXPORT_PEN cache
// variable, which the ipfix target passes on). Its default, 32473, is the number IANA
// reserves for documentation and examples (RFC 5612).
#ifndef FLOWEXPORT_PEN
#error "FLOWEXPORT_PEN (the private enterprise number) is not defined: link the ipfix target"
#endif
constexpr uint32_t privateEnterpriseNumber() { return FLOWEXPORT_PEN; }

enum class SelectorAlgorithm : uint32_t { randomNofNSampling = 3 };
std::string stringValue(SelectorAlgorithm a);

// IPFIX message sequence number: unsigned 32 bits, wrapping (RFC 7011).
struct IpfixMsgSeqNo {
  uint32_t value = 0;
  IpfixMsgSeqNo() = default;
  explicit constexpr IpfixMsgSeqNo(uint32_t v) : value(v) {}
  IpfixMsgSeqNo& operator+=(const IpfixMsgSeqNo& o) {
    value += o.value;
    return *this;
  }
  IpfixMsgSeqNo operator+(const IpfixMsgSeqNo& o) const { return IpfixMsgSeqNo(value + o.value); }
  friend bool operator==(const IpfixMsgSeqNo&, const IpfixMsgSeqNo&) = default;
  std::string stringValue() const { return std::to_string(value); }
};

// One information element as a template writes it.
struct ElementId {
  bool enterpriseIe = false;
  RecordType id = RecordType::byteCount;
  uint16_t len = 0;
  Zub::String str;

  ElementId() = default;
  ElementId(bool enterprise, RecordType i, uint16_t l, Zub::String s)
      : enterpriseIe(enterprise), id(i), len(l), str(std::move(s)) {}
  friend bool operator==(const ElementId&, const ElementId&) = default;
  // True for the empty element (what a failed lookup returns).
  bool operator!() const { return *this == ElementId(); }
  std::string stringValue() const;
};

// The catalogue: RecordType -> ElementId, keyed by the element's own id.
class ElementIdColl : public Zub::Entity {
 public:
  explicit ElementIdColl(const Zub::Name& name = "elementIdColl") : Entity(name) {}
  ZUB_COLL(elementIdColl, Zub::Collection<RecordType, ElementId>)
  // Inserts or replaces the entry under element.id.
  void elementIdCollIs(const ElementId& element) { elementIdColl_.set(element.id, element); }
  // Fills the catalogue with its 44 entries.
  void doInitialize();
};

}  // namespace Ipfix
