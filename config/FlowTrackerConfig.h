#pragma once
// The operator's flow-tracking configuration: what the command layer (here, the
// agent's configuration file) writes and the configuration reactors read.

#include <optional>
#include <string>

#include "ipfix/FlowTrackingTypes.h"
#include "ipfix/Ipfix.h"
#include "platform/nelo/Addr.h"
#include "platform/nelo/IntfId.h"
#include "platform/nelo/VrfName.h"
#include "platform/zub/Collection.h"

namespace FlowTracking {

class ExporterConfig : public Zub::Entity {
 public:
  explicit ExporterConfig(const Zub::Name& name) : Entity(name) {}
  ZUB_ATTR(L3::VrfName, vrfName)
  // Collector host text as configured -> host and UDP port.
  ZUB_COLL(collectorHostAndPort, Zub::Collection<Zub::String, Nelo::HostAndPort>)
  ZUB_ATTR(Zub::String, localIntfName)
  // Carried for the command layer; the source address always comes from the local
  // interface.
  ZUB_ATTR(Nelo::IpAddr, localAddress)
  ZUB_ATTR(IpfixMtu, ipfixMtu)
  ZUB_ATTR(Nelo::DscpValue, dscpValue)
  ZUB_ATTR(bool, ipfixFormatConfigured, false)
  ZUB_ATTR(IpfixVersion, ipfixVersion)
  ZUB_ATTR(TemplateInterval, templateInterval)
};

class FlowTrackerConfig : public Zub::Entity {
 public:
  explicit FlowTrackerConfig(const Zub::Name& name) : Entity(name) {}
  ZUB_ATTR(InactiveTimeout, inactiveTimeout)
  ZUB_ATTR(ActiveInterval, activeInterval)
  ZUB_ATTR(FlowCacheSize, flowCacheSize)
  ZUB_COLL(expConfig, Zub::Collection<Zub::Name, Zub::Ptr<ExporterConfig>>)
};

// Which tracker an interface is bound to. Rebinding is delete and create: creating
// the member again with another tracker name is refused.
class FlowTrackerIntfConfig : public Zub::Entity {
 public:
  FlowTrackerIntfConfig(const Nelo::IntfId& intfId, const Zub::Name& trackerName)
      : Entity(intfId.name()), intfId_(intfId), trackerName_(trackerName) {}
  const Nelo::IntfId& intfId() const { return intfId_; }
  const Zub::Name& trackerName() const { return trackerName_; }
  void checkReinstantiation(const Zub::Name& trackerName) const {
    Zub::checkCtorParam(*this, "trackerName", trackerName_, trackerName);
  }

 private:
  Nelo::IntfId intfId_;
  Zub::Name trackerName_;
};

class Config : public Zub::Entity {
 public:
  explicit Config(const Zub::Name& name) : Entity(name) {}
  ZUB_ATTR(bool, enabled, false)
  // Carried for the agent; no reactor reacts to it.
  ZUB_ATTR(bool, hwAccelEnabled, false)
  ZUB_ATTR(SampleRate, sampleRate)
  // Besides the standard options templates, announce the sampling rate and the interface
  // and VRF names also in the fixed-length layouts most collectors read.
  ZUB_ATTR(bool, compatibleOptions, true)
  ZUB_COLL(flowTrackerConfig, Zub::Collection<Zub::Name, Zub::Ptr<FlowTrackerConfig>>)
  ZUB_COLL(flowTrackerIntfConfig, Zub::Collection<Nelo::IntfId, Zub::Ptr<FlowTrackerIntfConfig>>)
};

// One match rule of a flow group; each matched field has a flag that switches it on.
class FlowMatch : public Zub::Entity {
 public:
  explicit FlowMatch(uint32_t seqno) : Entity(std::to_string(seqno)), seqno_(seqno) {}
  uint32_t seqno() const { return seqno_; }
  ZUB_ATTR(bool, matchIpVersion, false)
  ZUB_ATTR(Nelo::IpVersion, ipVersion, Nelo::IpVersion::ipUnknown)
  ZUB_ATTR(bool, matchSourceIp, false)
  ZUB_ATTR(Nelo::IpAddrWithFullMask, sourceIp)
  // The lower-case "d" is the command layer's name for it.
  ZUB_ATTR(bool, matchdestinationIp, false)
  ZUB_ATTR(Nelo::IpAddrWithFullMask, destinationIp)
  ZUB_ATTR(bool, matchIpProtocol, false)
  ZUB_ATTR(Nelo::IpProtocolNumber, ipProtocol, 0)
  ZUB_ATTR(bool, matchSrcPort, false)
  ZUB_ATTR(uint16_t, srcPort, 0)
  ZUB_ATTR(bool, matchDestPort, false)
  ZUB_ATTR(uint16_t, dstPort, 0)
  ZUB_ATTR(bool, matchSourceIp6, false)
  ZUB_ATTR(Nelo::Ip6AddrWithMask, sourceIp6)
  ZUB_ATTR(bool, matchDestinationIp6, false)
  ZUB_ATTR(Nelo::Ip6AddrWithMask, destinationIp6)
  ZUB_ATTR(bool, matchInnerSourceIp, false)
  ZUB_ATTR(Nelo::IpAddrWithFullMask, innerSource)
  ZUB_ATTR(bool, matchInnerDestinationIp, false)
  ZUB_ATTR(Nelo::IpAddrWithFullMask, innerDest)
  ZUB_ATTR(bool, matchInnerSourceIp6, false)
  ZUB_ATTR(Nelo::Ip6AddrWithMask, innerSource6)
  ZUB_ATTR(bool, matchInnerDestinationIp6, false)
  ZUB_ATTR(Nelo::Ip6AddrWithMask, innerDest6)

 private:
  uint32_t seqno_;
};

// One field of a flow group's records.
struct FlowParam {
  uint32_t seqno = 0;
  Ipfix::RecordType type = Ipfix::RecordType::byteCount;
  bool flowKey = false;

  friend bool operator==(const FlowParam&, const FlowParam&) = default;
  // "Value('FlowTracking::FlowParam', ** {'seqno': 1, 'type': srcIp, 'flowKey': true})"
  std::string stringValue() const;
  static std::optional<FlowParam> parse(std::string_view text);
};

// A group of flows within a tracker.
class FlowGroup : public Zub::Entity {
 public:
  FlowGroup(const Zub::Name& name, const Zub::Name& fgName, uint32_t seqno)
      : Entity(name), fgName_(fgName), seqno_(seqno) {}
  const Zub::Name& fgName() const { return fgName_; }
  uint32_t seqno() const { return seqno_; }
  ZUB_ATTR(Zub::String, flowDomain)
  ZUB_COLL(flowMatch, Zub::OrderedCollection<uint32_t, Zub::Ptr<FlowMatch>>)
  ZUB_COLL(flowParam, Zub::Collection<uint32_t, FlowParam>)
  void flowParamIs(const FlowParam& p) { flowParam_.set(p.seqno, p); }

 private:
  Zub::Name fgName_;
  uint32_t seqno_;
};

}  // namespace FlowTracking
