#pragma once
// The options data manager wires options export together.
//
//   OptionsDataManagerSm    one per agent: the options data root, the interface and VRF
//                           tables (global sources), and an FtOptionsDataManagerSm per
//                           tracker that has hardware configuration, hardware status and
//                           export endpoints
//   FtOptionsDataManagerSm  one per such tracker: its flow key and flow tracker tables
//                           (its own sources), then an options data exporter per
//                           exporter that has hardware configuration and endpoints
//
// A tracker's sources always exist before its exporters: an exporter fixes its set of
// sources when it starts.

#include "options/OptionsDataExporterSm.h"
#include "options/OptionsDataSourceFlowKeySm.h"
#include "options/OptionsDataSourceFlowTrackerTableSm.h"
#include "options/OptionsDataSourceIntfTableSm.h"
#include "options/OptionsDataSourceVrfTableSm.h"
#include "platform/zub/ChildMap.h"

namespace FlowTracking {

class FtOptionsDataManagerSm : public Zub::Reactor {
 public:
  FtOptionsDataManagerSm(const Zub::String& ftName, FtId ftId,
                         const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                         const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                         const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
                         const Zub::Ptr<FlowTrackerInfo>& ftInfo,
                         const Zub::Ptr<OptionsDataContainer>& dataContainer,
                         Orrin::TaskScheduler& scheduler);
  void handleInitialized() override;
  void initFlowKeySm();
  void initFlowTrackerTableSm();
  void handleExpConfig(const Zub::Name& name);

  const Zub::Ptr<OptionsDataContainer>& dataContainer() const { return dataContainer_; }
  const Zub::Ptr<FlowTrackerInfo>& flowTrackerInfo() const { return ftInfo_; }
  const Zub::Ptr<FlowKeySm>& flowKeySm() const { return flowKeySm_; }
  const Zub::Ptr<FlowTrackerTableSm>& flowTrackerTableSm() const { return flowTrackerTableSm_; }
  const Zub::ChildMap<Zub::Name, OptionsDataExporterSm>& exporterSm() const { return exporterSm_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsDataSourceColl> trackerData_(const char* assertion) const;

  Zub::String ftName_;
  FtId ftId_;
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<HwFlowTracking::FtStatus> hwFtStatus_;
  Zub::Ptr<FlowTrackerInfo> ftInfo_;
  Zub::Ptr<OptionsDataContainer> dataContainer_;
  Orrin::TaskScheduler& scheduler_;
  // Declared before the exporters: the exporters go first at teardown.
  Zub::Ptr<FlowKeySm> flowKeySm_;
  Zub::Ptr<FlowTrackerTableSm> flowTrackerTableSm_;
  Zub::ChildMap<Zub::Name, OptionsDataExporterSm> exporterSm_{this};
  bool initialized_ = false;
};

class OptionsDataManagerSm : public Zub::Reactor {
 public:
  OptionsDataManagerSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                       const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                       const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                       const Zub::Ptr<IntfIndexMap>& intfIndexMap,
                       const Zub::Ptr<Vrf::VrfIdMap::Status>& vrfIdMap,
                       Orrin::TaskScheduler& scheduler);
  void handleInitialized() override;
  void handleDestroyed() override;
  void dataAllIs();
  void initIntfTableSm();
  void initVrfTableSm();
  void handleTracker(const Zub::Name& name);
  // The compatible layout switched on or off: the fixed-length name rows follow.
  void handleCompatibleOptions();

  const Zub::Ptr<OptionsDataAll>& dataAll() const { return dataAll_; }
  const std::map<Zub::Name, Zub::Ptr<OptionsDataContainer>>& dataContainer() const {
    return dataContainer_;
  }
  const Zub::ChildMap<Zub::String, FtOptionsDataManagerSm>& ftManagerSm() const {
    return ftManagerSm_;
  }
  const Zub::Ptr<InterfaceTableSm>& intfTableSm() const { return intfTableSm_; }
  const Zub::Ptr<VrfTableSm>& vrfTableSm() const { return vrfTableSm_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsDataContainer> dataContainerIs_(const Zub::Name& name);

  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::Status> hwStatus_;
  Zub::Ptr<FlowTrackingInfo> flowTrackingInfo_;
  Zub::Ptr<IntfIndexMap> intfIndexMap_;
  Zub::Ptr<Vrf::VrfIdMap::Status> vrfIdMap_;
  Orrin::TaskScheduler& scheduler_;
  Zub::Ptr<OptionsDataAll> dataAll_;
  std::map<Zub::Name, Zub::Ptr<OptionsDataContainer>> dataContainer_;
  Zub::Ptr<InterfaceTableSm> intfTableSm_;
  Zub::Ptr<VrfTableSm> vrfTableSm_;
  // The fixed-length name sources, each with the table whose rows it sends.
  std::vector<std::pair<Zub::Ptr<OptionsDataSource>, Zub::Ptr<OptionsDataSource>>> fixedNames_;
  Zub::ChildMap<Zub::String, FtOptionsDataManagerSm> ftManagerSm_{this};
  bool initialized_ = false;
};

Zub::Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
    const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo, const Zub::Ptr<IntfIndexMap>& intfIndexMap,
    const Zub::Ptr<Vrf::VrfIdMap::Status>& vrfIdMap, Orrin::TaskScheduler& scheduler);

Zub::Ptr<FtOptionsDataManagerSm> ftOptionsDataManagerSmFactory(
    const Zub::String& ftName, FtId ftId, const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
    const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus, const Zub::Ptr<FlowTrackerInfo>& ftInfo,
    const Zub::Ptr<OptionsDataContainer>& dataContainer, Orrin::TaskScheduler& scheduler);

}  // namespace FlowTracking
