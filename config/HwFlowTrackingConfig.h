#pragma once
// The hardware flow-tracking configuration: written by the configuration reactors,
// read by the export side and the forwarding chip's driver.

#include "config/FlowTrackerConfig.h"

namespace HwFlowTracking {

using FlowTracking::FtId;
using FlowTracking::TemplateId;

// One flow group of an active tracker. `genId` moves with every change of the group's
// definition so that readers see each change as a new generation.
class FgConfig : public Zub::Entity {
 public:
  FgConfig(uint32_t seqno, const Zub::Name& fgName)
      : Entity(std::to_string(seqno)), seqno_(seqno), fgName_(fgName) {}
  uint32_t seqno() const { return seqno_; }
  const Zub::Name& fgName() const { return fgName_; }
  void checkReinstantiation(const Zub::Name& fgName) const {
    Zub::checkCtorParam(*this, "fgName", fgName_, fgName);
  }

  ZUB_COUNTER(uint32_t, genId, 0)
  ZUB_ATTR(uint32_t, sampleRate, 1048576)
  ZUB_ATTR(TemplateId, templateId)
  ZUB_ATTR(Zub::String, flowDomain)
  ZUB_COLL(flowParam, Zub::OrderedCollection<uint32_t, FlowTracking::FlowParam>)
  void flowParamIs(const FlowTracking::FlowParam& p) { flowParam_.set(p.seqno, p); }
  ZUB_COLL(flowMatch, Zub::OrderedCollection<uint32_t, Zub::Ptr<FlowTracking::FlowMatch>>)

 private:
  uint32_t seqno_;
  Zub::Name fgName_;
};

// One exporter as resolved for sending.
class ExporterConfig : public Zub::Entity {
 public:
  explicit ExporterConfig(const Zub::Name& name) : Entity(name) {}
  ZUB_ATTR(L3::VrfName, vrfName)
  // The device of the exporter's VRF its endpoints are bound to; empty: not bound.
  ZUB_ATTR(Zub::Name, vrfDevice)
  ZUB_ATTR(FlowTracking::IpfixMtu, ipfixMtu)
  static constexpr uint32_t ip6HdrSize_ = 40;
  static constexpr uint32_t udpHdrLen_ = 8;
  // The largest IPFIX message that fits one packet. Always less the IPv6 header, also
  // for IPv4: one conservative limit for both families.
  uint32_t ipfixMaxMsgSize() const { return ipfixMtu().value() - ip6HdrSize_ - udpHdrLen_; }
  ZUB_ATTR(Nelo::DscpValue, dscpValue)
  ZUB_ATTR(FlowTracking::IpfixVersion, ipfixVersion)
  ZUB_ATTR(FlowTracking::TemplateInterval, templateInterval)
  ZUB_ATTR(Nelo::IpAddr, srcIpAddr)
  ZUB_ATTR(Nelo::Ip6Addr, srcIp6Addr)
  // No local interface: the kernel's route picks the source of each packet (and follows
  // routing changes), so the exporter sends without a source address of its own.
  ZUB_ATTR(bool, routedSource, false)
  ZUB_COLL(collectorIpAndPort, Zub::Collection<Zub::String, Nelo::IpAndPort>)
  ZUB_COLL(collectorIp6AndPort, Zub::Collection<Zub::String, Nelo::Ip6AndPort>)
  ZUB_ATTR(bool, exporterReady, false)
};

// One active tracker.
class FtConfig : public Zub::Entity {
 public:
  FtConfig(const Zub::Name& name, FtId ftId) : Entity(name), ftId_(ftId) {}
  FtId ftId() const { return ftId_; }
  void checkReinstantiation(FtId ftId) const { Zub::checkCtorParam(*this, "ftId", ftId_, ftId); }
  ZUB_ATTR(FlowTracking::InactiveTimeout, inactiveTimeout)
  ZUB_ATTR(FlowTracking::ActiveInterval, activeInterval)
  ZUB_ATTR(FlowTracking::FlowCacheSize, flowCacheSize)
  ZUB_COLL(hwFgConfig, Zub::OrderedCollection<uint32_t, Zub::Ptr<FgConfig>>)
  ZUB_COLL(expConfig, Zub::Collection<Zub::Name, Zub::Ptr<ExporterConfig>>)

 private:
  FtId ftId_;
};

// An interface on which a tracker is active.
class IntfFtConfig : public Zub::Entity {
 public:
  IntfFtConfig(const Nelo::IntfId& intfId, const Zub::Ptr<FtConfig>& hwFtConfig)
      : Entity(intfId.name()), intfId_(intfId), hwFtConfig_(hwFtConfig) {}
  const Nelo::IntfId& intfId() const { return intfId_; }
  const Zub::Ptr<FtConfig>& hwFtConfig() const { return hwFtConfig_; }
  void checkReinstantiation(const Zub::Ptr<FtConfig>& hwFtConfig) const {
    Zub::checkCtorParam(*this, "hwFtConfig", hwFtConfig_, hwFtConfig);
  }

 private:
  Nelo::IntfId intfId_;
  Zub::Ptr<FtConfig> hwFtConfig_;
};

class Config : public Zub::Entity {
 public:
  explicit Config(const Zub::Name& name) : Entity(name) {}
  static constexpr uint32_t sampleRateDefault = 1048576;
  ZUB_ATTR(uint32_t, sampleRate, sampleRateDefault)
  // The compatible options templates and data are exported beside the standard ones.
  ZUB_ATTR(bool, compatibleOptions, true)
  ZUB_COLL(hwFtConfig, Zub::Collection<Zub::Name, Zub::Ptr<FtConfig>>)
  ZUB_COLL(hwIntfFtConfig, Zub::Collection<Nelo::IntfId, Zub::Ptr<IntfFtConfig>>)
};

}  // namespace HwFlowTracking
