#include "options/OptionsDataSourceVrfTableSm.h"

#include "export/Trace.h"
#include "options/OptionsDataRecordWriter.h"

namespace FlowTracking {

VrfTableSm::VrfTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                       const Zub::Ptr<OptionsDataUpdate>& update,
                       const Zub::Ptr<Vrf::VrfIdMap::Status>& vrfIdMap,
                       const Zub::Ptr<OptionsDataSource>& fixed)
    : dataSource_(dataSource),
      update_(update),
      vrfIdMap_(vrfIdMap),
      fixed_(fixed),
      setIdVal_(setId()) {
  watch(vrfIdMap_->vrfIdToNameSignal(),
        [this](const Vrf::VrfIdMap::VrfId& id) { handleVrfIndex(id); });
}

TemplateId VrfTableSm::setId() {
  return Constants::reservedTemplateId(StaticTemplateId::optionsTemplateVrfTable);
}

Zub::Ptr<const DataRecord> VrfTableSm::makeDataRecord(Vrf::VrfIdMap::VrfId vrfId,
                                                      const std::string& name) {
  const size_t vrfNameLen = name.size();
  ZUB_ASSERT_TEXT(vrfNameLen < 255, "vrfName.bytes() < 255");
  RecordWriter w(5 + vrfNameLen);
  ZUB_ASSERT_TEXT(w.pos() + sizeof(uint32_t) < w.max(), "pos + sizeof( U32 ) < max");
  w.u32(vrfId);
  ZUB_ASSERT_TEXT(w.pos() + sizeof(uint8_t) <= w.max(), "pos + sizeof( vrfNameLen ) <= max");
  w.u8(static_cast<uint8_t>(vrfNameLen));
  ZUB_ASSERT_TEXT(w.pos() + vrfNameLen == w.max(), "pos + vrfNameLen == max");
  w.bytes(name);
  ZUB_ASSERT_TEXT(w.pos() == w.max(), "pos == max");
  return w.record();
}

void VrfTableSm::handleInitialized() {
  GLINT(optionsTrace(), kEntry) << "VrfTableSm::handleInitialized";
  initialized_ = true;
  handleVrfIndexAll();
}

void VrfTableSm::handleVrfIndexAll() {
  ZUB_ASSERT_TEXT(initialized_, "initialized()");
  dataSource_->dataRecordDelAll();
  dataRecord_.clear();
  dataSource_->dataRecordIs(makeDataRecord(kReservedVrfId, ""));
  for (const auto& [id, name] : vrfIdMap_->vrfIdToNameColl()) {
    auto r = makeDataRecord(id, name.name());
    GLINT(optionsTrace(), kDiag) << "VrfTableSm::handleVrfIndexAll vrfIndex: " << id
                                 << ", name: " << name << ", record len: " << r->dataLen();
    dataSource_->dataRecordIs(r);
    dataRecord_[id] = r;
  }
  ZUB_ASSERT_TEXT(dataRecords() + 1 == dataSource_->dataRecordSize(),
                  "( dataRecords() + 1 ) == dataSource()->dataRecords()");
  dataSource_->versionInc(1);
}

void VrfTableSm::handleVrfIndex(Vrf::VrfIdMap::VrfId vrfId) {
  ZUB_ASSERT_TEXT(initialized_, "initialized()");
  Zub::Ptr<const DataRecord> r;
  if (vrfIdMap_->vrfIdToNameHas(vrfId)) {
    const L3::VrfName name = vrfIdMap_->vrfIdToName(vrfId);
    r = makeDataRecord(vrfId, name.name());
    GLINT(optionsTrace(), kDiag) << "VrfTableSm::handleVrfIndex vrfIndex: " << vrfId
                                 << ", name: " << name << ", record len: " << r->dataLen();
  } else {
    GLINT(optionsTrace(), kDiag) << "VrfTableSm::handleVrfIndex vrfIndex: " << vrfId
                                 << ", name not present. ";
  }
  replaceRow(*dataSource_, *update_, setIdVal_, dataRecord_, vrfId, r, fixed_.get());
}

}  // namespace FlowTracking
