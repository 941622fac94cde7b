#pragma once
// The interface index map: which interface index the flow records carry for each
// interface. Platform status, read by the interface table and the software data path.

#include <vector>

#include "platform/nelo/IntfId.h"
#include "platform/zub/Entity.h"
#include "platform/zub/PositionIndex.h"
#include "platform/zub/Signal.h"

namespace FlowTracking {

// Interface id <-> interface index as the hardware reports it in flow records; written
// by the platform applier (from the configuration file's platform section, or from the
// kernel). A one-to-one map: giving an interface an index another one has takes the
// index from that one. Each interface is kept once, in a dense array found
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

}  // namespace FlowTracking
