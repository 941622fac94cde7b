#pragma once
// Data templates: the hardware status lists, per tracker and flow group, the fields of
// the records the chip exports; these reactors turn the lists into IPFIX template
// records and hand them to the template exporter base.
//
//   TemplateSm      one per agent: an FtTemplateSm per tracker that has hardware
//                   configuration, hardware status and export endpoints; also processes
//                   clear-counters requests
//   FtTemplateSm    one per tracker: the template exporters of its exporters
//   FtExporterSm    one per exporter: the data template message (set id 2)

#include <map>

#include "config/HwFlowTrackingStatus.h"
#include "export/FlowTrackingConfigReq.h"
#include "export/TemplateSmBase.h"
#include "platform/nelo/IpfixHeaders.h"

namespace FlowTracking {

class FtExporterSm : public TemplateExporterSmBase {
 public:
  FtExporterSm(const Zub::Name& expName, const Zub::Name& ftName, FtId ftId,
               const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
               const Zub::Ptr<ExporterInfo>& expInfo, Stova::Ipfix::CollectorStatistics* collStats,
               Orrin::TaskScheduler& scheduler,
               const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus);
  ~FtExporterSm() override;

  Zub::String taskPrefix() const override { return "ftExporterSm"; }
  uint16_t headerSetId() const override { return Nelo::IpfixConst::templateSetId(); }
  void handleInitialized() override;
  void handleTemplateCreationTask();
  // A flow group status appeared, went away or took a new generation.
  void onHwFgStatus(TemplateId templateId);
  uint32_t getFtTemplateLength() const;
  // 4 bytes of record header plus 4 per field (8 for an enterprise field).
  static uint32_t getFgTemplateLength(const HwFlowTracking::FgStatus& fg);

  const Zub::Ptr<Orrin::Task>& templateCreationTask() const { return templateCreationTask_; }
  bool initialized() const { return initialized_; }

 private:
  // Follows one flow group's status: a new generation means a new template.
  class FgStatusSm : public Zub::Reactor {
   public:
    FgStatusSm(FtExporterSm* owner, const Zub::Ptr<HwFlowTracking::FgStatus>& fgStatus);
    void doCleanup();
    const Zub::Ptr<HwFlowTracking::FgStatus>& fgStatus() const { return fgStatus_; }

   private:
    FtExporterSm* owner_;
    Zub::Ptr<HwFlowTracking::FgStatus> fgStatus_;
  };

  Zub::Ptr<HwFlowTracking::FtStatus> hwFtStatus_;
  std::map<TemplateId, Zub::Ptr<FgStatusSm>> hwFgStatus_;
  Zub::Ptr<Orrin::Task> templateCreationTask_;
  bool initialized_ = false;
};

class FtTemplateSm : public Zub::Reactor {
 public:
  FtTemplateSm(const Zub::Name& ftName, const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
               const Zub::Ptr<FlowTrackerInfo>& ftInfo,
               const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
               Stova::Ipfix::CollectorStatistics* collStats, Orrin::TaskScheduler& scheduler);
  void handleInitialized() override;
  // An exporter gets its template exporters while it has both hardware configuration
  // and export endpoints.
  void handleExporters(const Zub::Name& name);
  const std::map<Zub::Name, Zub::Ptr<FtExporterSm>>& ftExporterSm() const { return ftExporterSm_; }

 private:
  Zub::Name ftName_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<FlowTrackerInfo> ftInfo_;
  Zub::Ptr<HwFlowTracking::FtStatus> hwFtStatus_;
  Stova::Ipfix::CollectorStatistics* collStats_;
  Orrin::TaskScheduler& scheduler_;
  std::map<Zub::Name, Zub::Ptr<FtExporterSm>> ftExporterSm_;
};

class TemplateSm : public Zub::Reactor {
 public:
  TemplateSm(const Zub::Ptr<Config>& flowTrackingConfig,
             const Zub::Ptr<ConfigReq>& flowTrackingConfigReq,
             const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
             const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
             const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
             Stova::Ipfix::CollectorStatistics* collStats, Orrin::TaskScheduler& scheduler);
  ~TemplateSm() override;
  void handleInitialized() override;
  // A tracker gets its FtTemplateSm while it has hardware configuration, hardware status
  // and run-time export state.
  void handleHwFtStatus(const Zub::Name& name);
  void clearCounters();

  const Zub::Ptr<Config>& flowTrackingConfig() const { return flowTrackingConfig_; }
  const std::map<Zub::Name, Zub::Ptr<FtTemplateSm>>& ftTemplateSm() const { return ftTemplateSm_; }

 private:
  Zub::Ptr<Config> flowTrackingConfig_;
  Zub::Ptr<ConfigReq> flowTrackingConfigReq_;
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::Status> hwStatus_;
  Zub::Ptr<FlowTrackingInfo> flowTrackingInfo_;
  Stova::Ipfix::CollectorStatistics* collStats_;
  Orrin::TaskScheduler& scheduler_;
  std::map<Zub::Name, Zub::Ptr<FtTemplateSm>> ftTemplateSm_;
};

Zub::Ptr<TemplateSm> templateSmFactory(const Zub::Ptr<Config>& flowTrackingConfig,
                                       const Zub::Ptr<ConfigReq>& flowTrackingConfigReq,
                                       const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                       const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                                       const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                                       Stova::Ipfix::CollectorStatistics* collStats,
                                       Orrin::TaskScheduler& scheduler);

}  // namespace FlowTracking
