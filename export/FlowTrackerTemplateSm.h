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
// and, beside each FtExporterSm, an OptionsTemplateExporterSm for the options template
// message (set id 3) built from the options template configuration that TemplateSm
// keeps.

#include <map>

#include "config/HwFlowTrackingStatus.h"
#include "export/FlowTrackingConfigReq.h"
#include "export/OptionsTemplateExporterSm.h"
#include "export/TemplateSmBase.h"
#include "platform/nelo/IpfixHeaders.h"

namespace FlowTracking {

class FtExporterSm : public TemplateExporterSmBase {
 public:
  FtExporterSm(const Zub::Name& ftName, const Zub::Name& expName, FtId ftId,
               const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
               const Zub::Ptr<ExporterInfo>& expInfo, Stova::Ipfix::CollectorStatistics* collStats,
               Orrin::TaskScheduler& scheduler,
               const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus);

  Zub::String taskPrefix() const override { return "ftExporterSm"; }
  uint16_t headerSetId() const override { return Nelo::IpfixConst::templateSetId(); }
  uint32_t getTemplateLength() const override { return getFtTemplateLength(); }
  void handleTemplateCreationTask() override;
  // The channel's destination has the data templates: flow records may follow.
  void updateCollectorOnTx(CollectorChannel& channel) override {
    channel.templateDstIs(channel.dst());
  }
  void handleInitialized() override;
  // A flow group status appeared, went away or was replaced.
  void onHwFgStatus(TemplateId templateId);
  uint32_t getFtTemplateLength() const;
  // 4 bytes of record header plus 4 per field (8 for an enterprise field).
  static uint32_t getFgTemplateLength(const HwFlowTracking::FgStatus& fg);

  bool initialized() const { return initialized_; }

 private:
  // A flow group's template changed: its length is stale, the templates are built anew.
  void fgTemplateChanged_(TemplateId templateId);

  Zub::Ptr<HwFlowTracking::FtStatus> hwFtStatus_;
  // The flow group statuses followed, each by its generation.
  std::map<TemplateId, Zub::Ptr<HwFlowTracking::FgStatus>> hwFgStatus_;
  Zub::KeyedSubscriptions<TemplateId> fgSubs_;
  bool initialized_ = false;
};

class FtTemplateSm : public Zub::Reactor {
 public:
  FtTemplateSm(const Zub::Name& ftName, const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
               const Zub::Ptr<FlowTrackerInfo>& ftInfo,
               const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
               Stova::Ipfix::CollectorStatistics* collStats, Orrin::TaskScheduler& scheduler,
               const Zub::Ptr<OptionsTemplateConfig>& optTemplateConfig);
  void handleInitialized() override;
  // An exporter gets its template exporters while it has both hardware configuration
  // and export endpoints.
  void handleExporters(const Zub::Name& name);
  const Zub::ChildMap<Zub::Name, FtExporterSm>& ftExporterSm() const { return ftExporterSm_; }
  const Zub::ChildMap<Zub::Name, OptionsTemplateExporterSm>& optTemplateExporterSm() const {
    return optTemplateExporterSm_;
  }

 private:
  Zub::Name ftName_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<FlowTrackerInfo> ftInfo_;
  Zub::Ptr<HwFlowTracking::FtStatus> hwFtStatus_;
  Stova::Ipfix::CollectorStatistics* collStats_;
  Orrin::TaskScheduler& scheduler_;
  Zub::Ptr<OptionsTemplateConfig> optTemplateConfig_;
  Zub::ChildMap<Zub::Name, FtExporterSm> ftExporterSm_{this};
  Zub::ChildMap<Zub::Name, OptionsTemplateExporterSm> optTemplateExporterSm_{this};
};

class TemplateSm : public Zub::Reactor {
 public:
  TemplateSm(const Zub::Ptr<Config>& flowTrackingConfig,
             const Zub::Ptr<ConfigReq>& flowTrackingConfigReq,
             const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
             const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
             const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
             Stova::Ipfix::CollectorStatistics* collStats, Orrin::TaskScheduler& scheduler);
  void handleInitialized() override;
  // A tracker gets its FtTemplateSm while it has hardware configuration, hardware status
  // and run-time export state.
  void handleHwFtStatus(const Zub::Name& name);
  void clearCounters();
  // Builds the options templates from the information element catalogue (the compatible
  // ones too unless the hardware configuration switches them off).
  void initOptTemplateConfig();

  const Zub::Ptr<Config>& flowTrackingConfig() const { return flowTrackingConfig_; }
  const Zub::ChildMap<Zub::Name, FtTemplateSm>& ftTemplateSm() const { return ftTemplateSm_; }
  const Zub::Ptr<OptionsTemplateConfig>& optTemplateConfig() const { return optTemplateConfig_; }

 private:
  Zub::Ptr<Config> flowTrackingConfig_;
  Zub::Ptr<ConfigReq> flowTrackingConfigReq_;
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::Status> hwStatus_;
  Zub::Ptr<FlowTrackingInfo> flowTrackingInfo_;
  Stova::Ipfix::CollectorStatistics* collStats_;
  Orrin::TaskScheduler& scheduler_;
  Zub::Ptr<OptionsTemplateConfig> optTemplateConfig_{new OptionsTemplateConfig()};
  Zub::Ptr<Ipfix::ElementIdColl> catalogue_;  // the elements the options templates use
  Zub::ChildMap<Zub::Name, FtTemplateSm> ftTemplateSm_{this};
};

Zub::Ptr<TemplateSm> templateSmFactory(const Zub::Ptr<Config>& flowTrackingConfig,
                                       const Zub::Ptr<ConfigReq>& flowTrackingConfigReq,
                                       const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                       const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                                       const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                                       Stova::Ipfix::CollectorStatistics* collStats,
                                       Orrin::TaskScheduler& scheduler);

}  // namespace FlowTracking
