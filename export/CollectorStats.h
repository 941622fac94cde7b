#pragma once
// Per-collector export statistics: fixed-size records (so that they can live in shared
// memory) keyed by collector, tracker and exporter, each with per-set counters in nine
// slots, and the table that holds them.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/nelo/Addr.h"
#include "platform/stova/Table.h"
#include "platform/zub/Bounded.h"

namespace Stova::Ipfix {

// One collector: address and UDP port. The default value is the empty collector.
struct CollectorInfo {
  Nelo::IpGenAddr addr;
  Nelo::Port port = 0;
  uint16_t pad_[1] = {};

  static CollectorInfo fromIpAndPort(const Nelo::IpAndPort& d);
  static CollectorInfo fromIp6AndPort(const Nelo::Ip6AndPort& d);
  bool operator!() const { return addr.isUnspecified() && port == 0; }
  // "10.0.0.1:4739", "[2001:db8::1]:4739"
  std::string stringValue() const;
  size_t hash() const { return Zub::hashMix(addr.hash(), port); }
  friend bool operator==(const CollectorInfo& a, const CollectorInfo& b) {
    return a.addr == b.addr && a.port == b.port;
  }
  friend bool operator<(const CollectorInfo& a, const CollectorInfo& b) {
    return a.addr < b.addr || (a.addr == b.addr && a.port < b.port);
  }
};

// Index into a fixed string storage, 0..127.
struct StringIndex : Zub::Bounded<StringIndex, uint8_t, 0, 127, 0> {
  using Bounded::Bounded;
  static constexpr uint8_t min() { return 0; }
  static constexpr uint8_t max() { return 127; }
  static constexpr const char* kRangeMessage =
      "StringIndex::value < StringIndex::min or > StringIndex::max not allowed";
};

struct CollectorStatisticsKey {
  static constexpr size_t kNameBytes = StringIndex::max() + 1;  // 128

  CollectorInfo collector;
  char trackerStorage[kNameBytes] = {};
  char exporterStorage[kNameBytes] = {};

  CollectorStatisticsKey() = default;
  CollectorStatisticsKey(const CollectorInfo& c, const std::string& tracker,
                         const std::string& exporter);
  // Value types of the framework can be made from their text form; this one cannot (its
  // names sit in fixed storage beside a collector), and asking for it is fatal.
  explicit CollectorStatisticsKey(const Zub::String& text);
  std::string tracker() const;
  std::string exporter() const;
  // Names are at most 128 bytes ("sz <= StringIndex::max() + 1").
  void trackerIs(const std::string& name);
  void exporterIs(const std::string& name);
  void trackerStorageDelAll() { std::memset(trackerStorage, 0, sizeof trackerStorage); }
  void exporterStorageDelAll() { std::memset(exporterStorage, 0, sizeof exporterStorage); }

  // "tracker exporter collector"
  std::string stovaString() const;
  size_t hash() const;
  friend bool operator==(const CollectorStatisticsKey& a, const CollectorStatisticsKey& b);
  friend bool operator<(const CollectorStatisticsKey& a, const CollectorStatisticsKey& b);
};

// An IPFIX set id as counted: 2 (templates), 3 (options templates) or 256..65535 (data);
// 0 marks a free slot. Anything else is a programming error.
struct SetId {
  uint16_t value = 0;
  SetId() = default;
  explicit SetId(uint16_t v);
  bool isFree() const { return value == 0; }
  friend bool operator==(SetId, SetId) = default;
};

// Index of a set slot, 0..8; 255 means "not found".
struct SetIndex {
  static constexpr uint8_t min() { return 0; }
  static constexpr uint8_t max() { return 8; }
  static constexpr uint8_t setIdNotFound = 255;
  static constexpr const char* kRangeMessage =
      "SetIndex::value < SetIndex::min or > SetIndex::max not allowed";
  uint8_t value = setIdNotFound;
  SetIndex() = default;
  explicit SetIndex(int v);
  bool found() const { return value != setIdNotFound; }
  friend bool operator==(SetIndex, SetIndex) = default;
};

struct CollectorSetStatisticsEntry {
  SetId setId;
  uint16_t pad_[3] = {};
  uint64_t exportedFlowRecordCount = 0;
  uint64_t exportedTemplateCount = 0;
};
static_assert(sizeof(CollectorSetStatisticsEntry) == 24);

struct CollectorStatisticsEntry {
  using Key = CollectorStatisticsKey;
  static constexpr size_t kSetSlots = SetIndex::max() + 1;  // 9

  CollectorStatisticsKey key;
  // Totals over every kind of message: the messages, their data records (flow and
  // options data) and their bytes.
  uint64_t exportedMessageTotalCount = 0;
  uint64_t exportedFlowRecordTotalCount = 0;
  uint64_t exportedOctetTotalCount = 0;
  // The same by kind: template messages (data and options templates), messages of flow
  // records (data sets of the data templates) and messages of options data, and the
  // records of the two data kinds.
  uint64_t exportedTemplateMessageCount = 0;
  uint64_t exportedDataMessageCount = 0;
  uint64_t exportedOptionsDataMessageCount = 0;
  uint64_t exportedDataRecordCount = 0;
  uint64_t exportedOptionsDataRecordCount = 0;
  Zub::Seconds lastSentTime = 0;
  Zub::Seconds lastTemplateSentTime = 0;
  Zub::Seconds lastDataRecordSentTime = 0;
  Zub::Seconds lastOptionsDataSentTime = 0;
  Zub::Seconds lastClearedTime = 0;
  // Messages the kernel refused (they count nowhere else), the last refusal's errno and
  // time.
  uint64_t sendErrorCount = 0;
  Zub::Seconds lastSendErrorTime = 0;
  int32_t lastSendErrno = 0;
  uint32_t pad2_ = 0;
  SetIndex nextIdx;
  uint8_t setEntryCount = 0;  // slots in use (high-water mark)
  uint8_t pad_[6] = {};
  CollectorSetStatisticsEntry setEntryStorage[kSetSlots];

  CollectorStatisticsEntry() = default;
  explicit CollectorStatisticsEntry(const CollectorStatisticsKey& k) : key(k) {}
  // No text form to be made from either (it holds the set slots); fatal.
  explicit CollectorStatisticsEntry(const Zub::String& text);
  const Key& keyOf() const { return key; }

  // Per set id: the slot's content, or an all-zero entry.
  CollectorSetStatisticsEntry setEntry(SetId id) const;
  // Stores into the slot chosen for e.setId; raises the SetIndex range error for a tenth
  // distinct set id.
  void setEntryIs(const CollectorSetStatisticsEntry& e);
  // Clears the slot; returns its old content (all-zero when absent).
  CollectorSetStatisticsEntry setEntryDel(SetId id);
  SetIndex indexForSetId(SetId id) const;
  SetIndex maybeNewIndexForSetId(SetId id) const;

  std::string stovaString() const;
};
static_assert(sizeof(CollectorStatisticsEntry) % 8 == 0);

// The statistics table: the agent writes, other processes read.
class CollectorStatistics {
 public:
  static constexpr uint32_t kDefaultCapacity = 16384;
  static constexpr const char* kShmName = "/flowexport-collector-stats";

  // Over a POSIX shared-memory object (the daemon) or heap memory (tests).
  static std::unique_ptr<CollectorStatistics> createShared(const std::string& shmName,
                                                           uint32_t capacity = kDefaultCapacity);
  static std::unique_ptr<CollectorStatistics> createLocal(uint32_t capacity = kDefaultCapacity);

  // The entry, or a zero entry (empty key) when absent.
  CollectorStatisticsEntry stats(const CollectorStatisticsKey& key) const;
  bool statsHas(const CollectorStatisticsKey& key) const { return table_.get(key).has_value(); }
  void statsIs(const CollectorStatisticsEntry& e) { table_.set(e); }
  // Changes the entry of `key` in place (a new entry from the key when absent).
  template <class F>
  void statsUpdate(const CollectorStatisticsKey& key, F&& fn) {
    table_.update(key, std::forward<F>(fn));
  }
  void statsDel(const CollectorStatisticsKey& key) { table_.del(key); }
  // Counts a message to `key` that could not be sent (errno `error`, at `now`). A full
  // table loses the count, never the caller's work.
  void sendErrorIs(const CollectorStatisticsKey& key, int error, Zub::Seconds now,
                   uint64_t count = 1);
  void statsDelAll() { table_.delAll(); }
  std::vector<CollectorStatisticsEntry> statsAll() const { return table_.all(); }
  size_t statsSize() const { return table_.size(); }
  // Readers see every write through the generation; these make a change visible without
  // writing (after a batch of writes, say).
  void statsNotify(const CollectorStatisticsKey&) { table_.notify(); }
  void statsNotifyCollection() { table_.notify(); }
  uint64_t generation() const { return table_.generation(); }
  Segment& segment() const { return table_.segment(); }

 private:
  explicit CollectorStatistics(std::unique_ptr<Segment> seg, uint32_t capacity)
      : table_(std::move(seg), "Stova::Ipfix::CollectorStatistics", capacity) {}
  Table<CollectorStatisticsEntry> table_;
};

using CollectorStatisticsReader = TableReader<CollectorStatisticsEntry>;

}  // namespace Stova::Ipfix

namespace FlowTracking {
// `count` messages to a collector that the kernel refused: counted in the collector's row
// (not as exported) in one update and logged at operator level, at most once a minute.
void collectorSendFailed(Stova::Ipfix::CollectorStatistics* stats,
                         const Stova::Ipfix::CollectorStatisticsKey& key, int error,
                         uint64_t count = 1);
// A collector's statistics could not be kept (the table is full, or its row has no room
// for another set): logged at operator level, at most once a minute.
void collectorStatsLost(const Stova::Ipfix::CollectorStatisticsKey& key);
}  // namespace FlowTracking
