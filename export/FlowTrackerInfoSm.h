#pragma once
// Run-time state of the export side, mirroring the hardware configuration: per exporter
// one IPv4 and one IPv6 UDP endpoint, and per collector its IPFIX sequence number and
// whether its options templates have been sent.
//
//   FlowTrackingInfoSm   one per agent: a FlowTrackerInfo per active tracker
//   FlowTrackerInfoSm    one per tracker: an ExporterInfo per exporter
//   ExporterInfoSm       one per exporter: endpoints and CollectorInfo entries

#include <functional>
#include <map>

#include "config/HwFlowTrackingConfig.h"
#include "ipfix/Ipfix.h"
#include "platform/nelo/UdpPam.h"
#include "platform/orrin/TaskScheduler.h"
#include "platform/zub/ChildMap.h"

namespace FlowTracking {

class CollectorInfo : public Zub::Entity {
 public:
  explicit CollectorInfo(const Zub::String& name) : Entity(name) {}
  // Sequence number of the next message to this collector: the count of data records
  // sent to it so far (modulo 2^32).
  ZUB_COUNTER(Ipfix::IpfixMsgSeqNo, ipfixMsgSeqNo)
  void ipfixMsgSeqNoInc(uint32_t n) { ipfixMsgSeqNoInc(Ipfix::IpfixMsgSeqNo(n)); }
  ZUB_ATTR(bool, optTemplateSent, false)
};

class ExporterInfo : public Zub::Entity {
 public:
  explicit ExporterInfo(const Zub::Name& name) : Entity(name) {}
  ZUB_COLL(collInfo, Zub::Collection<Zub::String, Zub::Ptr<CollectorInfo>>)
  ZUB_ATTR(Zub::Ptr<Nelo::UdpPam>, udpPam4)
  ZUB_ATTR(Zub::Ptr<Nelo::UdpPam>, udpPam6)
};

class FlowTrackerInfo : public Zub::Entity {
 public:
  explicit FlowTrackerInfo(const Zub::Name& name) : Entity(name) {}
  ZUB_COLL(expInfo, Zub::Collection<Zub::Name, Zub::Ptr<ExporterInfo>>)
};

class FlowTrackingInfo : public Zub::Entity {
 public:
  explicit FlowTrackingInfo(const Zub::Name& name = "flowTrackingInfo") : Entity(name) {}
  ZUB_COLL(ftInfo, Zub::Collection<Zub::Name, Zub::Ptr<FlowTrackerInfo>>)
};

// Makes an endpoint by name; the real UdpPam unless a test records instead.
using PamFactory = std::function<Zub::Ptr<Nelo::UdpPam>(const Zub::Name&)>;
PamFactory realPamFactory();

class ExporterInfoSm : public Zub::Reactor {
 public:
  static constexpr int kTaskPriority = 2;
  static constexpr Nelo::IpTrafficControl kTxPrio = 2;

  ExporterInfoSm(const Zub::Name& expName, const Zub::Name& ftName,
                 const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                 const Zub::Ptr<ExporterInfo>& expInfo, Orrin::TaskScheduler& scheduler,
                 PamFactory pamFactory);
  void handleInitialized() override;
  // The exporter is going away: endpoints off and dropped, collector entries deleted.
  void handleDestroyed() override;
  void handlePamManagementTask();
  void handleCollector();
  void handleCollector(const Zub::String& name);
  void handleVrfDevice();
  void createPam4();
  void createPam6();
  const Zub::Ptr<Orrin::TimerTask>& pamManagementTask() const { return pamManagementTask_; }
  // An endpoint that could not be opened is tried again after this long, doubling up
  // to kRetryMax while it keeps failing.
  static constexpr std::chrono::seconds kRetryMin{2};
  static constexpr std::chrono::seconds kRetryMax{60};
  const Zub::String& traceId() const { return traceId_; }

 private:
  void createPam_(bool v6);

  Zub::Name expName_;
  Zub::Name ftName_;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Zub::Ptr<ExporterInfo> expInfo_;
  Orrin::TaskScheduler& scheduler_;
  PamFactory pamFactory_;
  void closeUnusedPam_(bool v6);

  Zub::Ptr<Orrin::TimerTask> pamManagementTask_;
  std::chrono::seconds retry_ = kRetryMin;
  // Per family (IPv4, IPv6): its endpoint failed to open and was logged so.
  bool noEndpoint_[2] = {false, false};
  Zub::String traceId_;
};

class FlowTrackerInfoSm : public Zub::Reactor {
 public:
  FlowTrackerInfoSm(const Zub::Name& trackerName,
                    const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                    const Zub::Ptr<FlowTrackerInfo>& ftInfo, Orrin::TaskScheduler& scheduler,
                    PamFactory pamFactory);
  void handleInitialized() override;
  void handleHwExpConfig(const Zub::Name& name);
  const Zub::ChildMap<Zub::Name, ExporterInfoSm>& expInfoSm() const { return expInfoSm_; }

 private:
  Zub::Name trackerName_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<FlowTrackerInfo> ftInfo_;
  Orrin::TaskScheduler& scheduler_;
  PamFactory pamFactory_;
  Zub::ChildMap<Zub::Name, ExporterInfoSm> expInfoSm_{this};
};

class FlowTrackingInfoSm : public Zub::Reactor {
 public:
  FlowTrackingInfoSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                     const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                     Orrin::TaskScheduler& scheduler, PamFactory pamFactory);
  void handleInitialized() override;
  void handleHwFtConfig(const Zub::Name& name);
  const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo() const { return flowTrackingInfo_; }
  const Zub::ChildMap<Zub::Name, FlowTrackerInfoSm>& ftInfoSm() const { return ftInfoSm_; }

 private:
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<FlowTrackingInfo> flowTrackingInfo_;
  Orrin::TaskScheduler& scheduler_;
  PamFactory pamFactory_;
  Zub::ChildMap<Zub::Name, FlowTrackerInfoSm> ftInfoSm_{this};
};

Zub::Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo, Orrin::TaskScheduler& scheduler,
    PamFactory pamFactory = realPamFactory());

}  // namespace FlowTracking
