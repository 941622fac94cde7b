#pragma once
// The VRF table: for every VRF identifier that flow records carry, the VRF's name. One
// options data record per VRF of the VRF identifier map, plus the reserved row 0xFFFFFF
// with an empty name, published in the global source "VrfTable"; each changed row is
// also pushed at once through the global update.

#include <map>

#include "options/OptionsDataExporter.h"
#include "platform/status/Ip.h"

namespace FlowTracking {

class VrfTableSm : public Zub::Reactor {
 public:
  static constexpr Vrf::VrfIdMap::VrfId kReservedVrfId = 0xFFFFFF;

  // `fixed` (may be null) sends the table's rows again at a fixed length while it is on.
  VrfTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
             const Zub::Ptr<OptionsDataUpdate>& update,
             const Zub::Ptr<Vrf::VrfIdMap::Status>& vrfIdMap,
             const Zub::Ptr<OptionsDataSource>& fixed = nullptr);
  static TemplateId setId();
  // One record: VRF id (4 bytes), name length (1), name; exactly 5 + n bytes.
  static Zub::Ptr<const DataRecord> makeDataRecord(Vrf::VrfIdMap::VrfId vrfId,
                                                   const std::string& name);

  void handleInitialized() override;
  void handleVrfIndexAll();
  void handleVrfIndex(Vrf::VrfIdMap::VrfId vrfId);

  size_t dataRecords() const { return dataRecord_.size(); }
  const Zub::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsDataSource> dataSource_;
  Zub::Ptr<OptionsDataUpdate> update_;
  Zub::Ptr<Vrf::VrfIdMap::Status> vrfIdMap_;
  Zub::Ptr<OptionsDataSource> fixed_;
  std::map<Vrf::VrfIdMap::VrfId, Zub::Ptr<const DataRecord>> dataRecord_;
  TemplateId setIdVal_;
  bool initialized_ = false;
};

}  // namespace FlowTracking
