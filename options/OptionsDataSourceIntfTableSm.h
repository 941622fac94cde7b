#pragma once
// The interface table: for every interface index that flow records carry, the
// interface's name. One options data record per interface of the IntfIndexMap, plus
// four reserved rows, published in the global source "InterfaceTable"; each changed row
// is also pushed at once through the global update.

#include <map>

#include "options/OptionsDataExporter.h"
#include "platform/nelo/IntfId.h"

namespace FlowTracking {

// Interface id <-> interface index as the hardware reports it in flow records; written
// by the hosting agent.
class IntfIndexMap : public Zub::Entity {
 public:
  explicit IntfIndexMap(const Zub::Name& name = "intfIndexMap") : Entity(name) {}
  ZUB_COLL(intfIndex, Zub::OrderedCollection<Nelo::IntfId, uint32_t>)
  ZUB_COLL(intfId, Zub::OrderedCollection<uint32_t, Nelo::IntfId>)
  // Sets both directions; the previous index of the interface is forgotten.
  void intfIs(const Nelo::IntfId& intf, uint32_t index);
  void intfDel(const Nelo::IntfId& intf);
  // The reserved rows every interface table holds besides the map's interfaces.
  static constexpr size_t numReservedIntfs() { return 4; }
};

class InterfaceTableSm : public Zub::Reactor {
 public:
  struct ReservedIntf {
    uint32_t index;
    const char* name;
  };
  // In the order the table inserts them.
  static constexpr ReservedIntf kReserved[] = {
      {0x80000000u, "multicast"}, {0x40000000u, "discard"}, {0x3FFFFFFFu, "CPU"}, {0, "unknown"}};

  InterfaceTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                   const Zub::Ptr<OptionsDataUpdate>& update,
                   const Zub::Ptr<IntfIndexMap>& intfIndexMap);
  static TemplateId setId();
  // One record: index (4 bytes), name length (1), name; exactly 5 + n bytes.
  static Zub::Ptr<const DataRecord> makeDataRecord(const std::string& name, uint32_t index);

  void handleInitialized() override;
  void handleIntfId(const Nelo::IntfId& intfId);

  size_t dataRecords() const { return dataRecord_.size(); }
  const std::map<Nelo::IntfId, Zub::Ptr<const DataRecord>>& dataRecord() const {
    return dataRecord_;
  }
  const Zub::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  const Zub::Ptr<IntfIndexMap>& intfIndexMap() const { return intfIndexMap_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsDataSource> dataSource_;
  Zub::Ptr<OptionsDataUpdate> update_;
  Zub::Ptr<IntfIndexMap> intfIndexMap_;
  std::map<Nelo::IntfId, Zub::Ptr<const DataRecord>> dataRecord_;
  TemplateId setIdVal_;
  bool initialized_ = false;
};

}  // namespace FlowTracking
