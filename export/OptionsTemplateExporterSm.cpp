#include "export/OptionsTemplateExporterSm.h"

#include <algorithm>
#include <vector>

#include "export/Trace.h"

namespace FlowTracking {

OptionsTemplateExporterSm::OptionsTemplateExporterSm(
    const Zub::Name& ftName, const Zub::Name& expName, FtId ftId,
    const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Zub::Ptr<ExporterInfo>& expInfo, Stova::Ipfix::CollectorStatistics* collStats,
    Orrin::TaskScheduler& scheduler, const Zub::Ptr<OptionsTemplateConfig>& optTemplateConfig)
    : TemplateExporterSmBase(ftName, expName, ftId, hwExpConfig, expInfo, collStats, scheduler),
      optTemplateConfig_(optTemplateConfig) {
  watch(optTemplateConfig_->versionSignal(), [this] { handleOptTemplateConfigVersion(); });
}

void OptionsTemplateExporterSm::handleInitialized() {
  GLINT(optionsTrace(), kEntry) << "OptionsTemplateExporterSm::handleInitialized for " << traceId();
  handleStartup();
  initialized_ = true;
  handleOptTemplateConfigVersion();
}

void OptionsTemplateExporterSm::handleOptTemplateConfigVersion() {
  if (!initialized_) {
    GLINT(optionsTrace(), kDiag) << "OptionsTemplateExporterSm::handleOptTemplateConfigVersion"
                                 << " for " << traceId() << " (skipped)";
    return;
  }
  GLINT(optionsTrace(), kEntry) << "OptionsTemplateExporterSm::handleOptTemplateConfigVersion"
                                << " for " << traceId() << ", version "
                                << optTemplateConfig_->version();
  scheduleTemplateCreation();
}

uint32_t OptionsTemplateExporterSm::getTemplateLength() const {
  uint32_t len = 0;
  bool shared = false;
  for (const auto& [name, t] : optTemplateConfig_->templateEntryColl()) {
    len += getTemplateEntryLength(*t) + (t->ownSet() ? Nelo::IpfixConst::setHeaderLen() : 0);
    shared = shared || !t->ownSet();
  }
  return len + (shared ? Nelo::IpfixConst::setHeaderLen() : 0);
}

uint32_t OptionsTemplateExporterSm::addTemplateFieldSpecifier(
    const Zub::Ptr<Nelo::Pkt>& pkt, uint32_t offset, const HwFlowTracking::FtTemplateEntry& entry) {
  return TemplateExporterSmBase::addTemplateFieldSpecifier(pkt, offset, entry);
}

void OptionsTemplateExporterSm::handleTemplateCreationTask() {
  if (!initialized_) {
    GLINT(optionsTrace(), kDiag) << "OptionsTemplateExporterSm::handleTemplateCreationTask for "
                                 << traceId() << " (skipped)";
    return;
  }
  templateLenDelAll();
  const uint32_t len = getTemplateLength();
  if (len == 0) {
    templatePktIs(nullptr);
    templateReadyIs(false);
    GLINT(optionsTrace(), kDiag) << "no options templates to send";
    return;
  }
  Zub::Ptr<Nelo::Pkt> pkt = getPkt(len);
  uint32_t offset = 0;
  uint16_t count = 0;
  auto writeTemplate = [&](const OptionsTemplate& t) {
    const uint32_t start = offset;
    Nelo::OptionsTemplateHeader header(pkt, offset);
    header.templateIdIs(t.templateId().value());
    header.fieldCountIs(static_cast<uint16_t>(t.scopeFields() + t.fields()));
    header.scopeFieldCountIs(static_cast<uint16_t>(t.scopeFields()));
    offset += sizeof(Nelo::Wire::OptionsTemplateHeader);
    for (const auto& [pos, f] : t.scopeFieldColl()) {
      GLINT(optionsTrace(), kDiag)
          << "Scope field: " << *f << ", fieldId: " << static_cast<uint32_t>(f->fieldId())
          << ", len: " << f->fieldLen() << ", enterprise: " << f->enterpriseIe();
      offset += addTemplateFieldSpecifier(pkt, offset, *f);
    }
    for (const auto& [pos, f] : t.fieldColl()) offset += addTemplateFieldSpecifier(pkt, offset, *f);
    templateLenIs(t.templateId(), offset - start);
    GLINT(optionsTrace(), kDiag) << "template " << t.templateId() << ", length: " << offset - start
                                 << ", offset: " << start;
    ++count;
  };
  // A set of options templates: its header, then the templates `in` takes.
  auto writeSet = [&](auto in) {
    const uint32_t start = offset;
    offset += Nelo::IpfixConst::setHeaderLen();
    for (const auto& [name, t] : optTemplateConfig_->templateEntryColl()) {
      if (in(*t)) writeTemplate(*t);
    }
    Nelo::SetHeader set(pkt, start);
    set.setIdIs(Nelo::IpfixConst::optionsTemplateSetId());
    set.lengthIs(static_cast<uint16_t>(offset - start));
  };
  // The templates of their own sets first, by id: a collector that reads one template
  // per set, or stops at the second of a set, has read them before it meets the shared
  // set.
  std::vector<const OptionsTemplate*> own;
  for (const auto& [name, t] : optTemplateConfig_->templateEntryColl()) {
    if (t->ownSet()) own.push_back(t.get());
  }
  std::sort(own.begin(), own.end(), [](const OptionsTemplate* a, const OptionsTemplate* b) {
    return a->templateId().value() < b->templateId().value();
  });
  for (const OptionsTemplate* t : own) {
    writeSet([&](const OptionsTemplate& x) { return &x == t; });
  }
  const auto& all = optTemplateConfig_->templateEntryColl();
  if (std::any_of(all.begin(), all.end(), [](const auto& e) { return !e.second->ownSet(); })) {
    writeSet([](const OptionsTemplate& x) { return !x.ownSet(); });
  }
  ZUB_ASSERT(offset == len);
  templatePktIs(pkt);
  templatePktTemplateCountIs(count);
  finishMessage();
}

void OptionsTemplateExporterSm::updateCollectorOnTx(CollectorChannel& channel) {
  channel.optTemplateDstIs(channel.dst());
}

}  // namespace FlowTracking
