#pragma once
// OptionsTemplateExporterSm: one exporter's options template message (set id 3), built
// from the options template configuration on each of its versions and delivered by the
// template exporter base. After each send to a collector that the kernel took, it marks
// the channel's destination as having the options templates, which lets the options data
// follow.

#include "export/OptionsTemplate.h"
#include "export/TemplateSmBase.h"
#include "platform/nelo/IpfixHeaders.h"

namespace FlowTracking {

class OptionsTemplateExporterSm : public TemplateExporterSmBase {
 public:
  OptionsTemplateExporterSm(const Zub::Name& ftName, const Zub::Name& expName, FtId ftId,
                            const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                            const Zub::Ptr<ExporterInfo>& expInfo,
                            Stova::Ipfix::CollectorStatistics* collStats,
                            Orrin::TaskScheduler& scheduler,
                            const Zub::Ptr<OptionsTemplateConfig>& optTemplateConfig);

  Zub::String taskPrefix() const override { return "optionsTemplateExporterSm"; }
  uint16_t headerSetId() const override { return Nelo::IpfixConst::optionsTemplateSetId(); }
  // The templates with their set headers: one set for each template of its own, one for
  // the others.
  uint32_t getTemplateLength() const override;
  bool writesOwnSets() const override { return true; }
  uint32_t addTemplateFieldSpecifier(const Zub::Ptr<Nelo::Pkt>& pkt, uint32_t offset,
                                     const HwFlowTracking::FtTemplateEntry& entry) override;
  void handleTemplateCreationTask() override;
  void updateCollectorOnTx(CollectorChannel& channel) override;
  void handleInitialized() override;
  void handleOptTemplateConfigVersion();

  const Zub::Ptr<OptionsTemplateConfig>& optTemplateConfig() const { return optTemplateConfig_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsTemplateConfig> optTemplateConfig_;
  bool initialized_ = false;
};

}  // namespace FlowTracking
