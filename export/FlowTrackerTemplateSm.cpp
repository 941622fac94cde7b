#include "export/FlowTrackerTemplateSm.h"

#include "export/Trace.h"
#include "platform/zub/Clock.h"

namespace FlowTracking {

// ---- FtExporterSm ----------------------------------------------------------------------

FtExporterSm::FtExporterSm(const Zub::Name& ftName, const Zub::Name& expName, FtId ftId,
                           const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                           const Zub::Ptr<ExporterInfo>& expInfo,
                           Stova::Ipfix::CollectorStatistics* collStats,
                           Orrin::TaskScheduler& scheduler,
                           const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus)
    : TemplateExporterSmBase(ftName, expName, ftId, hwExpConfig, expInfo, collStats, scheduler),
      hwFtStatus_(hwFtStatus) {
  watch(hwFtStatus_->hwFgStatusSignal(), [this](const TemplateId& id) { onHwFgStatus(id); });
  // The templates must fit one message of the exporter's size: build them again when it
  // changes.
  watch(hwExpConfig->ipfixMtuSignal(), [this] { scheduleTemplateCreation(); });
}

void FtExporterSm::handleInitialized() {
  GLINT(exportTrace(), kEntry) << "FtExporterSm::handleInitialized for " << traceId();
  handleStartup();
  for (const TemplateId& id : hwFtStatus_->hwFgStatusColl().keys()) onHwFgStatus(id);
  scheduleTemplateCreation();
  initialized_ = true;
}

void FtExporterSm::onHwFgStatus(TemplateId templateId) {
  GLINT(exportTrace(), kEntry) << "FtExporterSm::onHwFgStatus for " << traceId() << ", templateId "
                               << templateId;
  auto fg = hwFtStatus_->hwFgStatus(templateId);
  auto it = hwFgStatus_.find(templateId);
  if (it != hwFgStatus_.end()) {
    if (fg == it->second) return;
    fgSubs_.erase(templateId);
    hwFgStatus_.erase(it);
  }
  if (fg) {
    hwFgStatus_[templateId] = fg;
    watch(fgSubs_, templateId, fg->genIdSignal(),
          [this, templateId] { fgTemplateChanged_(templateId); });
  }
  fgTemplateChanged_(templateId);
}

void FtExporterSm::fgTemplateChanged_(TemplateId templateId) {
  templateLenDel(templateId);
  scheduleTemplateCreation();
}

uint32_t FtExporterSm::getFgTemplateLength(const HwFlowTracking::FgStatus& fg) {
  uint32_t len = sizeof(Nelo::Wire::TemplateHeader);
  for (const auto& [seq, entry] : fg.templateEntryColl()) {
    len += entry->enterpriseIe() ? sizeof(Nelo::Wire::EnterpriseFieldSpecifier)
                                 : sizeof(Nelo::Wire::FieldSpecifier);
  }
  return len;
}

uint32_t FtExporterSm::getFtTemplateLength() const {
  uint32_t len = 0;
  for (const auto& [id, fg] : hwFgStatus_) len += getFgTemplateLength(*fg);
  return len;
}

void FtExporterSm::handleTemplateCreationTask() {
  GLINT(exportTrace(), kEntry) << "FtExporterSm::handleTemplateCreationTask for " << traceId();
  templateLenDelAll();
  const uint32_t len = getTemplateLength();
  if (len == 0) {
    templateReadyIs(false);
    GLINT(exportTrace(), kDiag) << "Returning because no flow group configured.";
    return;
  }
  if (len + kHeaderBytes > hwExpConfig()->ipfixMaxMsgSize()) {
    // All templates travel in one message; the exporter's MTU is too small for them.
    templateReadyIs(false);
    GLINT(exportTrace(), Zub::Glint::kError)
        << "Returning because templates of " << len << " bytes exceed the maximum message size "
        << hwExpConfig()->ipfixMaxMsgSize() << " of " << traceId();
    return;
  }
  Zub::Ptr<Nelo::Pkt> pkt = getPkt(len);
  uint32_t offset = 0;
  uint16_t count = 0;
  for (const auto& [id, fgPtr] : hwFgStatus_) {
    const HwFlowTracking::FgStatus& fg = *fgPtr;
    const uint32_t fgLen = getFgTemplateLength(fg);
    templateLenIs(id, fgLen);
    GLINT(exportTrace(), kDiag) << "Template for " << id << " has length: " << fgLen
                                << ", and is at offset: " << offset;
    Nelo::TemplateHeader header(pkt, offset);
    header.templateIdIs(id.value());
    header.fieldCountIs(static_cast<uint16_t>(fg.templateEntrySize()));
    offset += sizeof(Nelo::Wire::TemplateHeader);
    for (const auto& [seq, entry] : fg.templateEntryColl()) {
      GLINT(exportTrace(), kDiag) << "Element: " << entry
                                  << ", elementId: " << static_cast<uint16_t>(entry->fieldId())
                                  << ", len: " << entry->fieldLen();
      offset += addTemplateFieldSpecifier(pkt, offset, *entry);
    }
    ++count;
  }
  ZUB_ASSERT(offset == len);
  templatePktIs(pkt);
  templatePktTemplateCountIs(count);
  finishMessage();
}

// ---- FtTemplateSm ----------------------------------------------------------------------

FtTemplateSm::FtTemplateSm(const Zub::Name& ftName,
                           const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                           const Zub::Ptr<FlowTrackerInfo>& ftInfo,
                           const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
                           Stova::Ipfix::CollectorStatistics* collStats,
                           Orrin::TaskScheduler& scheduler,
                           const Zub::Ptr<OptionsTemplateConfig>& optTemplateConfig)
    : ftName_(ftName),
      hwFtConfig_(hwFtConfig),
      ftInfo_(ftInfo),
      hwFtStatus_(hwFtStatus),
      collStats_(collStats),
      scheduler_(scheduler),
      optTemplateConfig_(optTemplateConfig) {
  watch(hwFtConfig_->expConfigSignal(), [this](const Zub::Name& n) { handleExporters(n); });
  watch(ftInfo_->expInfoSignal(), [this](const Zub::Name& n) { handleExporters(n); });
}

void FtTemplateSm::handleInitialized() {
  for (const Zub::Name& n : hwFtConfig_->expConfigColl().keys()) handleExporters(n);
}

void FtTemplateSm::handleExporters(const Zub::Name& name) {
  GLINT(exportTrace(), kEntry) << "FtTemplateSm::handleExporters for " << ftName_ << "-" << name;
  auto hwExp = hwFtConfig_->expConfig(name);
  auto expInfo = ftInfo_->expInfo(name);
  const bool wanted = hwExp && expInfo;
  const bool had = ftExporterSm_.has(name);
  // The data templates first: a new collector hears of them before the options templates.
  ftExporterSm_.reconcile(name, wanted, [&] {
    auto sm = Zub::makeReactor<FtExporterSm>(ftName_, name, hwFtConfig_->ftId(), hwExp, expInfo,
                                             collStats_, scheduler_, hwFtStatus_);
    GLINT(exportTrace(), kLife) << "Created FtExporterSm for " << name;
    return sm;
  });
  optTemplateExporterSm_.reconcile(name, wanted, [&] {
    auto sm = Zub::makeReactor<OptionsTemplateExporterSm>(ftName_, name, hwFtConfig_->ftId(), hwExp,
                                                          expInfo, collStats_, scheduler_,
                                                          optTemplateConfig_);
    GLINT(exportTrace(), kLife) << "Created OptionsTemplateExporterSm for " << name;
    return sm;
  });
  if (had && !wanted) {
    GLINT(exportTrace(), kLife) << "Deleted FtExporterSm for " << name;
    GLINT(exportTrace(), kLife) << "Deleted OptionsTemplateExporterSm for " << name;
  }
}

// ---- TemplateSm ------------------------------------------------------------------------

TemplateSm::TemplateSm(const Zub::Ptr<Config>& flowTrackingConfig,
                       const Zub::Ptr<ConfigReq>& flowTrackingConfigReq,
                       const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                       const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                       const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                       Stova::Ipfix::CollectorStatistics* collStats,
                       Orrin::TaskScheduler& scheduler)
    : flowTrackingConfig_(flowTrackingConfig),
      flowTrackingConfigReq_(flowTrackingConfigReq),
      hwConfig_(hwConfig),
      hwStatus_(hwStatus),
      flowTrackingInfo_(flowTrackingInfo),
      collStats_(collStats),
      scheduler_(scheduler) {
  watch(hwStatus_->hwFtStatusSignal(), [this](const Zub::Name& n) { handleHwFtStatus(n); });
  watch(hwConfig_->hwFtConfigSignal(), [this](const Zub::Name& n) { handleHwFtStatus(n); });
  watch(flowTrackingInfo_->ftInfoSignal(), [this](const Zub::Name& n) { handleHwFtStatus(n); });
  watch(flowTrackingConfigReq_->clearCountersSignal(), [this] { clearCounters(); });
  watch(hwConfig_->compatibleOptionsSignal(), [this] {
    if (catalogue_) {
      compatibleOptTemplatesIs(*catalogue_, *optTemplateConfig_, hwConfig_->compatibleOptions());
    }
  });
}

void TemplateSm::handleInitialized() {
  initOptTemplateConfig();
  for (const Zub::Name& n : hwStatus_->hwFtStatusColl().keys()) handleHwFtStatus(n);
}

void TemplateSm::handleHwFtStatus(const Zub::Name& name) {
  GLINT(exportTrace(), kEntry) << "TemplateSm::handleHwFtStatus for " << name;
  auto status = hwStatus_->hwFtStatus(name);
  auto hwFt = hwConfig_->hwFtConfig(name);
  auto ftInfo = flowTrackingInfo_->ftInfo(name);
  const bool had = ftTemplateSm_.has(name);
  ftTemplateSm_.reconcile(name, status && hwFt && ftInfo, [&] {
    auto sm = Zub::makeReactor<FtTemplateSm>(name, hwFt, ftInfo, status, collStats_, scheduler_,
                                             optTemplateConfig_);
    GLINT(exportTrace(), kLife) << "Created FtTemplateSm for " << name;
    return sm;
  });
  if (had && !ftTemplateSm_.has(name)) {
    GLINT(exportTrace(), kLife) << "Deleted FtTemplateSm for " << name;
  }
}

void TemplateSm::initOptTemplateConfig() {
  GLINT(exportTrace(), kEntry) << "TemplateSm::initOptTemplateConfig";
  catalogue_ = Zub::make<Ipfix::ElementIdColl>();
  catalogue_->doInitialize();
  FlowTracking::initOptTemplateConfig(*catalogue_, *optTemplateConfig_,
                                      hwConfig_->compatibleOptions());
}

void TemplateSm::clearCounters() {
  const ClearCountersReq req = flowTrackingConfigReq_->clearCounters();
#define TRACE_CLEAR                              \
  GLINT(exportTrace(), kState) << "TemplateSm::" \
                               << "clearCounters"
  if (req.reqTime == 0) {
    TRACE_CLEAR << " requestTime is zero";
    return;
  }
  TRACE_CLEAR << " tracker \"" << req.tracker << "\""
              << " exporter \"" << req.exporter << "\"";
  if (!collStats_) return;
  for (const auto& entry : collStats_->statsAll()) {
    const auto& key = entry.key;
    if ((!req.tracker.empty() && req.tracker != key.tracker()) ||
        (!req.exporter.empty() && req.exporter != key.exporter())) {
      TRACE_CLEAR << " did not match " << key.stovaString();
      continue;
    }
    if (key.exporter().empty() && !key.collector) {
      TRACE_CLEAR << " skip 'clear time' entry " << key.stovaString();
      continue;
    }
    TRACE_CLEAR << " clear counters " << key.stovaString();
    collStats_->statsDel(key);
    Stova::Ipfix::CollectorStatisticsEntry marker(
        Stova::Ipfix::CollectorStatisticsKey(Stova::Ipfix::CollectorInfo(), key.tracker(), ""));
    marker.lastClearedTime = Zub::System::now();
    collStats_->statsIs(marker);
  }
#undef TRACE_CLEAR
}

Zub::Ptr<TemplateSm> templateSmFactory(const Zub::Ptr<Config>& flowTrackingConfig,
                                       const Zub::Ptr<ConfigReq>& flowTrackingConfigReq,
                                       const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                       const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                                       const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                                       Stova::Ipfix::CollectorStatistics* collStats,
                                       Orrin::TaskScheduler& scheduler) {
  return Zub::makeReactor<TemplateSm>(flowTrackingConfig, flowTrackingConfigReq, hwConfig, hwStatus,
                                      flowTrackingInfo, collStats, scheduler);
}

}  // namespace FlowTracking
