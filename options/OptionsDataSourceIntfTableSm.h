#pragma once
// The interface table: for every interface index that flow records carry, the
// interface's name. One options data record per interface of the IntfIndexMap, plus
// four reserved rows, published in the global source "InterfaceTable"; each changed row
// is also pushed at once through the global update.

#include <string_view>
#include <vector>

#include "options/OptionsDataExporter.h"
#include "platform/nelo/IntfId.h"
#include "platform/zub/PositionIndex.h"
#include "platform/zub/Signal.h"

namespace FlowTracking {

// Interface id <-> interface index as the hardware reports it in flow records; written
// by the hosting agent. A one-to-one map: giving an interface an index another one has
// takes the index from that one. Each interface is kept once, in a dense array found
// through two position indexes, so a switch with a million interface rows spends a few
// dozen bytes a row here.
class IntfIndexMap : public Zub::Entity {
 public:
  struct Entry {
    Nelo::IntfId intf;
    uint32_t index;
  };

  explicit IntfIndexMap(const Zub::Name& name = "intfIndexMap") : Entity(name) {}
  // Interface -> index (0 when absent).
  uint32_t intfIndex(const Nelo::IntfId& intf) const;
  bool intfIndexHas(const Nelo::IntfId& intf) const { return findIntf(intf) != kNone; }
  size_t intfIndexSize() const { return entries_.size(); }
  // Every entry, in no particular order.
  const std::vector<Entry>& intfIndexColl() const { return entries_; }
  // Raised with the interface whenever its index is added, changed or removed.
  Zub::Signal<Nelo::IntfId>& intfIndexSignal() { return signal_; }
  // Index -> interface (empty when absent).
  Nelo::IntfId intfId(uint32_t index) const;
  bool intfIdHas(uint32_t index) const { return findIndex(index) != kNone; }
  size_t intfIdSize() const { return entries_.size(); }

  // Sets both directions; the previous index of the interface is forgotten.
  void intfIs(const Nelo::IntfId& intf, uint32_t index);
  void intfDel(const Nelo::IntfId& intf);
  // The reserved rows every interface table holds besides the map's interfaces.
  static constexpr size_t numReservedIntfs() { return 4; }

 private:
  static constexpr uint32_t kNone = Zub::PositionIndex::kNone;
  static size_t hashIntf(const Nelo::IntfId& intf) { return intf.hash(); }
  static size_t hashIndex(uint32_t index) { return index; }
  uint32_t findIntf(const Nelo::IntfId& intf) const;
  uint32_t findIndex(uint32_t index) const;
  void erase(uint32_t pos);

  std::vector<Entry> entries_;
  Zub::PositionIndex byIntf_;
  Zub::PositionIndex byIndex_;
  Zub::Signal<Nelo::IntfId> signal_;
};

// The records an interface table publishes, found by the interface name each record
// carries (its bytes after the 4-byte index and the length byte): no name is stored a
// second time.
class IntfRecordMap {
 public:
  Zub::Ptr<const DataRecord> get(std::string_view name) const;
  size_t size() const { return records_.size(); }
  void clear() {
    records_.clear();
    index_.clear();
  }
  auto begin() const { return records_.begin(); }
  auto end() const { return records_.end(); }
  // Puts `record` (null: nothing) in the place of `name`'s; returns the previous one.
  Zub::Ptr<const DataRecord> exchange(std::string_view name,
                                      const Zub::Ptr<const DataRecord>& record);

  static std::string_view nameOf(const DataRecord& r) { return r.data().substr(5); }

 private:
  static size_t hash(std::string_view name) { return std::hash<std::string_view>()(name); }
  uint32_t find(std::string_view name) const;

  std::vector<Zub::Ptr<const DataRecord>> records_;
  Zub::PositionIndex index_;
};

inline Zub::Ptr<const DataRecord> exchangeRow(IntfRecordMap& rows, const Nelo::IntfId& intf,
                                              const Zub::Ptr<const DataRecord>& record) {
  return rows.exchange(intf.name(), record);
}

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
  const IntfRecordMap& dataRecord() const { return dataRecord_; }
  const Zub::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  const Zub::Ptr<IntfIndexMap>& intfIndexMap() const { return intfIndexMap_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsDataSource> dataSource_;
  Zub::Ptr<OptionsDataUpdate> update_;
  Zub::Ptr<IntfIndexMap> intfIndexMap_;
  IntfRecordMap dataRecord_;
  TemplateId setIdVal_;
  bool initialized_ = false;
};

}  // namespace FlowTracking
