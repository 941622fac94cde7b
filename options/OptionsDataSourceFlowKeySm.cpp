#include "options/OptionsDataSourceFlowKeySm.h"

#include <cstdio>

#include "export/Trace.h"
#include "options/OptionsDataRecordWriter.h"

namespace FlowTracking {

FlowKeySm::FlowKeySm(const Zub::Ptr<OptionsDataSource>& dataSource,
                     const Zub::Ptr<OptionsDataUpdate>& update,
                     const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
                     Orrin::TaskScheduler& /*scheduler: the table needs no task*/)
    : dataSource_(dataSource), update_(update), hwFtStatus_(hwFtStatus), setIdVal_(setId()) {
  watch(hwFtStatus_->hwFgStatusSignal(), [this](const TemplateId& id) {
    watchGroup_(id);
    handleTemplate(id);
  });
}

TemplateId FlowKeySm::setId() {
  return Constants::reservedTemplateId(StaticTemplateId::optionsTemplateFlowKeys);
}

uint64_t FlowKeySm::flowKeyBit(uint32_t position) {
  // Kept bit for bit as collectors have always received it.
  const int32_t bit = static_cast<int32_t>(uint32_t{1} << (position % 32));
  return static_cast<uint64_t>(static_cast<int64_t>(bit));
}

void FlowKeySm::watchGroup_(TemplateId templateId) {
  groupSubs_.erase(templateId);
  if (auto fg = hwFtStatus_->hwFgStatus(templateId)) {
    watch(groupSubs_, templateId, fg->genIdSignal(),
          [this, templateId] { handleTemplate(templateId); });
  }
}

Zub::Ptr<const DataRecord> FlowKeySm::makeDataRecord(TemplateId templateId) const {
  auto fg = hwFtStatus_->hwFgStatus(templateId);
  if (!fg) {
    GLINT(optionsTrace(), kDiag) << "FlowKeySm::makeDataRecord templateId: " << templateId
                                 << ", not present";
    return nullptr;
  }
  enum class Family { unknown, ipv4, ipv6 } family = Family::unknown;
  uint64_t indicator = 0;
  for (const auto& [position, entry] : fg->templateEntryColl()) {
    const auto field = entry->fieldId();
    const bool v4 = field == Ipfix::RecordType::srcIp || field == Ipfix::RecordType::dstIp;
    const bool v6 = field == Ipfix::RecordType::srcIp6 || field == Ipfix::RecordType::dstIp6;
    if ((v4 && family == Family::ipv6) || (v6 && family == Family::ipv4)) {
      GLINT(optionsTrace(), kDiag)
          << "AF mismatch at field: TemplateId: " << templateId << ", Field: " << *entry;
      return nullptr;
    }
    if (v4) family = Family::ipv4;
    if (v6) family = Family::ipv6;
    if (entry->flowKey()) {
      GLINT(optionsTrace(), kDiag) << *entry << " is flowKey ";
      indicator |= flowKeyBit(position);
    }
  }
  if (fg->genId() == 0 || fg->templateEntrySize() == 0) {
    GLINT(optionsTrace(), kDiag) << "FlowKeySm::makeDataRecord templateId: " << templateId
                                 << ", NO record (incomplete template)";
    return nullptr;
  }
  RecordWriter w(sizeof(uint16_t) + sizeof(uint64_t));
  w.u16(templateId.value());
  w.u64(indicator);
  char hex[20];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(indicator));
  GLINT(optionsTrace(), kDiag) << "templateId: " << templateId << ", flowKey: 0x" << hex
                               << ", record len: " << w.max();
  return w.record();
}

void FlowKeySm::handleInitialized() {
  initialized_ = true;
  dataSource_->dataRecordDelAll();
  dataRecord_.clear();
  for (const TemplateId& id : hwFtStatus_->hwFgStatusColl().keys()) {
    watchGroup_(id);
    if (auto r = makeDataRecord(id)) {
      dataSource_->dataRecordIs(r);
      dataRecord_[id] = r;
    }
  }
  GLINT(optionsTrace(), kDiag) << "FlowKeySm::handleInitialized template count: "
                               << dataRecord_.size();
  ZUB_ASSERT_TEXT(dataRecords() == dataSource_->dataRecordSize(),
                  "dataRecords() == dataSource()->dataRecords()");
  dataSource_->versionInc(1);
}

void FlowKeySm::handleTemplate(TemplateId templateId) {
  replaceRow(*dataSource_, *update_, setIdVal_, dataRecord_, templateId,
             makeDataRecord(templateId));
}

}  // namespace FlowTracking
