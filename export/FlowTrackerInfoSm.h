#pragma once
// Run-time state of the export side, mirroring the hardware configuration: per exporter
// one IPv4 and one IPv6 UDP endpoint (for the families it has collectors of), per
// collector its two channels (export/CollectorChannel.h), and per tracker the flow
// records on their way to its exporters.
//
//   FlowTrackingInfoSm   one per agent: a FlowTrackerInfo per active tracker
//   FlowTrackerInfoSm    one per tracker: an ExporterInfo per exporter
//   ExporterInfoSm       one per exporter: endpoints and CollectorInfo entries; sends the
//                        tracker's flow records through the collectors' channels

#include <functional>
#include <map>

#include "config/HwFlowTrackingConfig.h"
#include "export/CollectorChannel.h"
#include "export/FlowRecordBatch.h"
#include "ipfix/Ipfix.h"
#include "platform/nelo/UdpPam.h"
#include "platform/orrin/TaskScheduler.h"
#include "platform/zub/ChildMap.h"

namespace FlowTracking {

// One collector of an exporter: its IPv4 and its IPv6 channel, made with it and kept for
// its life. Each channel sends only while the collector has an address of its family.
class CollectorInfo : public Zub::Entity {
 public:
  CollectorInfo(const Zub::String& name,
                const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                Stova::Ipfix::CollectorStatistics* stats, const Zub::Name& ftName,
                const Zub::Name& expName)
      : Entity(name),
        channel4_(new CollectorChannel(name, true, hwExpConfig, stats, ftName, expName)),
        channel6_(new CollectorChannel(name, false, hwExpConfig, stats, ftName, expName)) {}
  void checkReinstantiation(const Zub::Ptr<HwFlowTracking::ExporterConfig>&,
                            Stova::Ipfix::CollectorStatistics*, const Zub::Name&,
                            const Zub::Name&) const {}
  const Zub::Ptr<CollectorChannel>& channel4() const { return channel4_; }
  const Zub::Ptr<CollectorChannel>& channel6() const { return channel6_; }
  const Zub::Ptr<CollectorChannel>& channel(bool ipv4) const {
    return ipv4 ? channel4_ : channel6_;
  }

 private:
  Zub::Ptr<CollectorChannel> channel4_;
  Zub::Ptr<CollectorChannel> channel6_;
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
  explicit FlowTrackerInfo(const Zub::Name& name)
      : Entity(name), flowRecords_(new FlowRecordBatch(name)) {}
  ZUB_COLL(expInfo, Zub::Collection<Zub::Name, Zub::Ptr<ExporterInfo>>)
  // The tracker's flow records, handed to its exporters (FlowRecordBatch).
  const Zub::Ptr<FlowRecordBatch>& flowRecords() const { return flowRecords_; }

 private:
  Zub::Ptr<FlowRecordBatch> flowRecords_;
};

class FlowTrackingInfo : public Zub::Entity {
 public:
  explicit FlowTrackingInfo(const Zub::Name& name = "flowTrackingInfo") : Entity(name) {}
  ZUB_COLL(ftInfo, Zub::Collection<Zub::Name, Zub::Ptr<FlowTrackerInfo>>)
};

// Makes an endpoint by name; the real UdpPam unless a test records instead.
using PamFactory = std::function<Zub::Ptr<Nelo::UdpPam>(const Zub::Name&)>;
PamFactory realPamFactory();

// What every endpoint reactor shares: the loop, how endpoints are made, and the
// statistics table (may be null) the channels count into.
struct ExportContext {
  Orrin::TaskScheduler& scheduler;
  PamFactory pamFactory;
  Stova::Ipfix::CollectorStatistics* stats = nullptr;
};

class ExporterInfoSm : public Zub::Reactor {
 public:
  static constexpr int kTaskPriority = 2;
  static constexpr Nelo::IpTrafficControl kTxPrio = 2;

  ExporterInfoSm(const Zub::Name& expName, const Zub::Name& ftName, FtId ftId,
                 const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                 const Zub::Ptr<ExporterInfo>& expInfo,
                 const Zub::Ptr<FlowRecordBatch>& flowRecords, const ExportContext& context);
  void handleInitialized() override;
  // The exporter is going away: endpoints off and dropped, collector entries deleted.
  void handleDestroyed() override;
  void handlePamManagementTask();
  void handleCollector();
  void handleCollector(const Zub::String& name);
  void handleVrfDevice();
  void createPam4();
  void createPam6();
  // The tracker's flow records, now, in as few messages as fit, to every channel that
  // can send and has the data templates; a collector without them misses these records.
  void handleFlowRecords();
  const Zub::Ptr<Orrin::TimerTask>& pamManagementTask() const { return pamManagementTask_; }
  // An endpoint that could not be opened is tried again after this long, doubling up
  // to kRetryMax while it keeps failing.
  static constexpr std::chrono::seconds kRetryMin{2};
  static constexpr std::chrono::seconds kRetryMax{60};
  const Zub::String& traceId() const { return traceId_; }

 private:
  void createPam_(bool v6);
  void closeUnusedPam_(bool v6);
  // The endpoint of a family: on the exporter's run-time state and on every channel of
  // that family (the channels first, so that whoever hears of the new endpoint finds
  // them ready).
  void pamIs_(bool v6, const Zub::Ptr<Nelo::UdpPam>& pam);

  Zub::Name expName_;
  Zub::Name ftName_;
  FtId ftId_;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Zub::Ptr<ExporterInfo> expInfo_;
  Zub::Ptr<FlowRecordBatch> flowRecords_;
  ExportContext context_;

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
                    const Zub::Ptr<FlowTrackerInfo>& ftInfo, const ExportContext& context);
  void handleInitialized() override;
  void handleHwExpConfig(const Zub::Name& name);
  const Zub::ChildMap<Zub::Name, ExporterInfoSm>& expInfoSm() const { return expInfoSm_; }

 private:
  Zub::Name trackerName_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<FlowTrackerInfo> ftInfo_;
  ExportContext context_;
  Zub::ChildMap<Zub::Name, ExporterInfoSm> expInfoSm_{this};
};

class FlowTrackingInfoSm : public Zub::Reactor {
 public:
  FlowTrackingInfoSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                     const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                     const ExportContext& context);
  void handleInitialized() override;
  void handleHwFtConfig(const Zub::Name& name);
  const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo() const { return flowTrackingInfo_; }
  const Zub::ChildMap<Zub::Name, FlowTrackerInfoSm>& ftInfoSm() const { return ftInfoSm_; }

 private:
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<FlowTrackingInfo> flowTrackingInfo_;
  ExportContext context_;
  Zub::ChildMap<Zub::Name, FlowTrackerInfoSm> ftInfoSm_{this};
};

Zub::Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo, Orrin::TaskScheduler& scheduler,
    Stova::Ipfix::CollectorStatistics* stats, PamFactory pamFactory = realPamFactory());

}  // namespace FlowTracking
