#pragma once
// The interface table: for every interface index that flow records carry, the
// interface's name. One options data record per interface of the IntfIndexMap, plus
// four reserved rows, published in the global source "InterfaceTable"; each changed row
// is also pushed at once through the global update.

#include <string_view>
#include <vector>

#include "options/OptionsDataExporter.h"
#include "platform/nelo/IntfId.h"
#include "platform/status/IntfIndexMap.h"
#include "platform/zub/PositionIndex.h"
#include "platform/zub/Signal.h"

namespace FlowTracking {

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

  // `fixed` (may be null) sends the table's rows again at a fixed length while it is on:
  // each changed row is pushed in that form too.
  InterfaceTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                   const Zub::Ptr<OptionsDataUpdate>& update,
                   const Zub::Ptr<IntfIndexMap>& intfIndexMap,
                   const Zub::Ptr<OptionsDataSource>& fixed = nullptr);
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
  Zub::Ptr<OptionsDataSource> fixed_;
  IntfRecordMap dataRecord_;
  TemplateId setIdVal_;
  bool initialized_ = false;
};

}  // namespace FlowTracking
