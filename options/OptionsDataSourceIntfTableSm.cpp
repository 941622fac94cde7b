#include "options/OptionsDataSourceIntfTableSm.h"

#include "options/OptionsDataRecordWriter.h"
#include "options/Trace.h"

namespace FlowTracking {

void IntfIndexMap::intfIs(const Nelo::IntfId& intf, uint32_t index) {
  if (intfIndexHas(intf) && intfIndex(intf) == index) return;
  intfDel(intf);
  if (intfIdHas(index)) intfIndex_.del(intfId(index));  // the index moves to this interface
  intfId_.set(index, intf);
  intfIndex_.set(intf, index);
}

void IntfIndexMap::intfDel(const Nelo::IntfId& intf) {
  if (!intfIndexHas(intf)) return;
  const uint32_t index = intfIndex(intf);
  if (intfIdHas(index) && intfId(index) == intf) intfId_.del(index);
  intfIndex_.del(intf);
}

InterfaceTableSm::InterfaceTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                                   const Zub::Ptr<OptionsDataUpdate>& update,
                                   const Zub::Ptr<IntfIndexMap>& intfIndexMap)
    : dataSource_(dataSource), update_(update), intfIndexMap_(intfIndexMap), setIdVal_(setId()) {
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
    dataRecord_[intf] = r;
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
  replaceRow(*dataSource_, *update_, setIdVal_, dataRecord_, intfId, r);
}

}  // namespace FlowTracking
