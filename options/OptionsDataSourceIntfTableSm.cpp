#include "options/OptionsDataSourceIntfTableSm.h"

#include "export/Trace.h"
#include "options/OptionsDataRecordWriter.h"

namespace FlowTracking {

uint32_t IntfRecordMap::find(std::string_view name) const {
  return index_.find(hash(name), [&](uint32_t pos) { return nameOf(*records_[pos]) == name; });
}

Zub::Ptr<const DataRecord> IntfRecordMap::get(std::string_view name) const {
  const uint32_t pos = find(name);
  return pos == Zub::PositionIndex::kNone ? nullptr : records_[pos];
}

Zub::Ptr<const DataRecord> IntfRecordMap::exchange(std::string_view name,
                                                   const Zub::Ptr<const DataRecord>& record) {
  auto hashOf = [this](uint32_t p) { return hash(nameOf(*records_[p])); };
  Zub::Ptr<const DataRecord> old;
  const uint32_t pos = find(name);
  if (pos != Zub::PositionIndex::kNone) {
    old = records_[pos];
    index_.erase(hash(name), pos, hashOf);
    const uint32_t last = static_cast<uint32_t>(records_.size() - 1);
    if (pos != last) {
      index_.move(hash(nameOf(*records_[last])), last, pos);
      records_[pos] = std::move(records_[last]);
    }
    records_.pop_back();
  }
  if (record) {
    ZUB_ASSERT(nameOf(*record) == name);
    records_.push_back(record);
    index_.insert(hash(name), static_cast<uint32_t>(records_.size() - 1), hashOf);
  }
  return old;
}

InterfaceTableSm::InterfaceTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                                   const Zub::Ptr<OptionsDataUpdate>& update,
                                   const Zub::Ptr<IntfIndexMap>& intfIndexMap,
                                   const Zub::Ptr<OptionsDataSource>& fixed)
    : dataSource_(dataSource),
      update_(update),
      intfIndexMap_(intfIndexMap),
      fixed_(fixed),
      setIdVal_(setId()) {
  watch(intfIndexMap_->intfIndexSignal(), [this](const Nelo::IntfId& i) { handleIntfId(i); });
}

TemplateId InterfaceTableSm::setId() {
  return Constants::reservedTemplateId(StaticTemplateId::optionsTemplateIntfTable);
}

Zub::Ptr<const DataRecord> InterfaceTableSm::makeDataRecord(const std::string& name,
                                                            uint32_t index) {
  const size_t intfNameLen = name.size();
  ZUB_ASSERT_TEXT(intfNameLen < 255, "intfNameLen < 255");
  RecordWriter w(5 + intfNameLen);
  ZUB_ASSERT_TEXT(w.pos() + sizeof(uint32_t) < w.max(), "pos + sizeof( U32 ) < max");
  w.u32(index);
  ZUB_ASSERT_TEXT(w.pos() + sizeof(uint8_t) < w.max(), "pos + sizeof( U8 ) < max");
  w.u8(static_cast<uint8_t>(intfNameLen));
  ZUB_ASSERT_TEXT(w.pos() + intfNameLen == w.max(), "pos + intfNameLen == max");
  w.bytes(name);
  ZUB_ASSERT_TEXT(w.pos() == w.max(), "pos == max");
  return w.record();
}

void InterfaceTableSm::handleInitialized() {
  GLINT(optionsTrace(), kEntry) << "InterfaceTableSm::handleInitialized";
  initialized_ = true;
  dataSource_->dataRecordDelAll();
  dataRecord_.clear();
  for (const auto& [intf, index] : intfIndexMap_->intfIndexColl()) {
    auto r = makeDataRecord(intf.name(), index);
    dataSource_->dataRecordIs(r);
    dataRecord_.exchange(intf.name(), r);
  }
  for (const ReservedIntf& reserved : kReserved) {
    dataSource_->dataRecordIs(makeDataRecord(reserved.name, reserved.index));
  }
  ZUB_ASSERT_TEXT(
      dataRecords() + intfIndexMap_->numReservedIntfs() == dataSource_->dataRecordSize(),
      "( dataRecords() + intfIndexMap()->numReservedIntfs() ) == "
      "dataSource()->dataRecords()");
  dataSource_->versionInc(1);
}

void InterfaceTableSm::handleIntfId(const Nelo::IntfId& intfId) {
  Zub::Ptr<const DataRecord> r;
  if (intfIndexMap_->intfIndexHas(intfId)) {
    const uint32_t index = intfIndexMap_->intfIndex(intfId);
    r = makeDataRecord(intfId.name(), index);
    GLINT(optionsTrace(), kDiag) << "InterfaceTableSm::handleIntfId intfId: " << intfId
                                 << ", index: " << index << ", record len: " << r->dataLen();
  } else {
    GLINT(optionsTrace(), kDiag) << "InterfaceTableSm::handleIntfId intfId: " << intfId
                                 << ", index not present. ";
  }
  replaceRow(*dataSource_, *update_, setIdVal_, dataRecord_, intfId, r, fixed_.get());
}

}  // namespace FlowTracking
