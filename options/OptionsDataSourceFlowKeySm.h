#pragma once
// The flow key table of one tracker: for each data template the forwarding side uses,
// which of its fields form the flow key. One options data record per complete and
// consistent flow group status, published in the tracker's source "FlowKey"; each new
// record is also pushed through the tracker's update.

#include <map>

#include "config/HwFlowTrackingStatus.h"
#include "options/OptionsDataExporter.h"
#include "platform/orrin/TaskScheduler.h"

namespace FlowTracking {

class FlowKeySm : public Zub::Reactor {
 public:
  FlowKeySm(const Zub::Ptr<OptionsDataSource>& dataSource,
            const Zub::Ptr<OptionsDataUpdate>& update,
            const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus, Orrin::TaskScheduler& scheduler);
  static TemplateId setId();
  // The template's flow keys as one 10-byte record (template id, indicator), or null
  // when the group is absent, incomplete, or mixes IPv4 and IPv6 address fields.
  Zub::Ptr<const DataRecord> makeDataRecord(TemplateId templateId) const;
  // The indicator bit of a key field at `position`: a 32-bit signed one shifted by the
  // position modulo 32, sign-extended (position 31 sets bits 31..63).
  static uint64_t flowKeyBit(uint32_t position);

  void handleInitialized() override;
  void handleTemplate(TemplateId templateId);

  size_t dataRecords() const { return dataRecord_.size(); }
  const Zub::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  bool initialized() const { return initialized_; }

 private:
  void watchGroup_(TemplateId templateId);

  Zub::Ptr<OptionsDataSource> dataSource_;
  Zub::Ptr<OptionsDataUpdate> update_;
  Zub::Ptr<HwFlowTracking::FtStatus> hwFtStatus_;
  std::map<TemplateId, Zub::Ptr<const DataRecord>> dataRecord_;
  Zub::KeyedSubscriptions<TemplateId> groupSubs_;
  TemplateId setIdVal_;
  bool initialized_ = false;
};

}  // namespace FlowTracking
