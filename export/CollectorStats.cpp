#include "export/CollectorStats.h"

#include <cstring>

#include "platform/zub/Clock.h"
#include "platform/zub/LogHandle.h"

#include <algorithm>

#include <cstdio>

#include "platform/zub/Assert.h"

namespace Stova::Ipfix {

CollectorStatisticsKey::CollectorStatisticsKey(const Zub::String&) {
  ZUB_FATAL("No String constructor for CollectorStatisticsKey - has collection");
}

CollectorStatisticsEntry::CollectorStatisticsEntry(const Zub::String&) {
  ZUB_FATAL("No String constructor for CollectorStatisticsEntry - has collection");
}

CollectorInfo CollectorInfo::fromIpAndPort(const Nelo::IpAndPort& d) {
  CollectorInfo c;
  c.addr = Nelo::IpGenAddr(d.addr);
  c.port = d.port;
  return c;
}

CollectorInfo CollectorInfo::fromIp6AndPort(const Nelo::Ip6AndPort& d) {
  CollectorInfo c;
  c.addr = Nelo::IpGenAddr(d.addr);
  c.port = d.port;
  return c;
}

std::string CollectorInfo::stringValue() const {
  if (addr.family == Nelo::IpGenAddr::ipv6) return Zub::str("[", addr, "]:", port);
  return Zub::str(addr, ":", port);
}

// ---- key -------------------------------------------------------------------------------

namespace {
std::string fromStorage(const char* storage, size_t n) {
  return std::string(storage, strnlen(storage, n));
}
void toStorage(char* storage, size_t n, const std::string& s) {
  const size_t sz = s.size();
  ZUB_ASSERT(sz <= StringIndex::max() + 1);
  std::memset(storage, 0, n);
  std::memcpy(storage, s.data(), sz);
}
}  // namespace

CollectorStatisticsKey::CollectorStatisticsKey(const CollectorInfo& c, const std::string& tracker,
                                               const std::string& exporter)
    : collector(c) {
  trackerIs(tracker);
  exporterIs(exporter);
}

std::string CollectorStatisticsKey::tracker() const {
  return fromStorage(trackerStorage, sizeof trackerStorage);
}
std::string CollectorStatisticsKey::exporter() const {
  return fromStorage(exporterStorage, sizeof exporterStorage);
}
void CollectorStatisticsKey::trackerIs(const std::string& name) {
  toStorage(trackerStorage, sizeof trackerStorage, name);
}
void CollectorStatisticsKey::exporterIs(const std::string& name) {
  toStorage(exporterStorage, sizeof exporterStorage, name);
}

std::string CollectorStatisticsKey::stovaString() const {
  return Zub::str(tracker(), " ", exporter(), " ", collector);
}

size_t CollectorStatisticsKey::hash() const {
  size_t h = collector.hash();
  h = Zub::hashMix(h, std::hash<std::string_view>()(
                          std::string_view(trackerStorage, strnlen(trackerStorage, kNameBytes))));
  return Zub::hashMix(h, std::hash<std::string_view>()(std::string_view(
                             exporterStorage, strnlen(exporterStorage, kNameBytes))));
}

bool operator==(const CollectorStatisticsKey& a, const CollectorStatisticsKey& b) {
  return a.collector == b.collector &&
         std::memcmp(a.trackerStorage, b.trackerStorage, sizeof a.trackerStorage) == 0 &&
         std::memcmp(a.exporterStorage, b.exporterStorage, sizeof a.exporterStorage) == 0;
}

bool operator<(const CollectorStatisticsKey& a, const CollectorStatisticsKey& b) {
  if (a.collector < b.collector) return true;
  if (b.collector < a.collector) return false;
  int t = std::memcmp(a.trackerStorage, b.trackerStorage, sizeof a.trackerStorage);
  if (t != 0) return t < 0;
  return std::memcmp(a.exporterStorage, b.exporterStorage, sizeof a.exporterStorage) < 0;
}

// ---- set slots -------------------------------------------------------------------------

SetId::SetId(uint16_t v) : value(v) {
  ZUB_ASSERT_TEXT(v == 0 || v == 2 || v == 3 || v >= 256,
                  "setId == 2 || setId == 3 || setId >= 256");
}

SetIndex::SetIndex(int v) {
  if (v != setIdNotFound && (v < min() || v > max())) throw Zub::RangeException(kRangeMessage);
  value = static_cast<uint8_t>(v);
}

SetIndex CollectorStatisticsEntry::indexForSetId(SetId id) const {
  // The count may come from another process's memory: never past the array.
  const uint8_t slots = std::min<uint8_t>(setEntryCount, kSetSlots);
  for (uint8_t i = 0; i < slots; ++i) {
    if (setEntryStorage[i].setId == id) return SetIndex(i);
  }
  return SetIndex();
}

SetIndex CollectorStatisticsEntry::maybeNewIndexForSetId(SetId id) const {
  SetIndex found = indexForSetId(id);
  if (found.found()) return found;
  if (nextIdx.found() && nextIdx.value < kSetSlots &&
      setEntryStorage[nextIdx.value].setId.isFree()) {
    return nextIdx;
  }
  for (uint8_t i = 0; i < std::min<uint8_t>(setEntryCount, kSetSlots); ++i) {
    if (setEntryStorage[i].setId.isFree()) return SetIndex(i);
  }
  return SetIndex(setEntryCount);  // past the high-water mark; 9 raises the range error
}

CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntry(SetId id) const {
  SetIndex i = indexForSetId(id);
  return i.found() ? setEntryStorage[i.value] : CollectorSetStatisticsEntry();
}

void CollectorStatisticsEntry::setEntryIs(const CollectorSetStatisticsEntry& e) {
  SetIndex i = maybeNewIndexForSetId(e.setId);
  setEntryStorage[i.value] = e;
  if (i.value >= setEntryCount) setEntryCount = static_cast<uint8_t>(i.value + 1);
}

CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntryDel(SetId id) {
  SetIndex i = indexForSetId(id);
  if (!i.found()) return CollectorSetStatisticsEntry();
  CollectorSetStatisticsEntry old = setEntryStorage[i.value];
  setEntryStorage[i.value] = CollectorSetStatisticsEntry();
  nextIdx = i;
  while (setEntryCount > 0 && setEntryStorage[setEntryCount - 1].setId.isFree()) --setEntryCount;
  return old;
}

std::string CollectorStatisticsEntry::stovaString() const {
  auto fixed = [](double t) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.0f", t);
    return std::string(buf);
  };
  std::string s = Zub::str(
      "[", key.stovaString(), "] msgs: ", exportedMessageTotalCount,
      ", flows: ", exportedFlowRecordTotalCount, ", octets: ", exportedOctetTotalCount,
      ", messages by kind: (templates: ", exportedTemplateMessageCount,
      ", data: ", exportedDataMessageCount, ", options data: ", exportedOptionsDataMessageCount,
      "), records by kind: (data: ", exportedDataRecordCount,
      ", options data: ", exportedOptionsDataRecordCount, ")",
      ", last message: ", fixed(lastSentTime), ", template: ", fixed(lastTemplateSentTime),
      ", data: ", fixed(lastDataRecordSentTime), ", options data: ", fixed(lastOptionsDataSentTime),
      ", cleared: ", fixed(lastClearedTime));
  for (uint8_t i = 0; i < setEntryCount; ++i) {
    const auto& e = setEntryStorage[i];
    if (e.setId.isFree()) continue;
    s += Zub::str(", set ", e.setId.value, ": (flows: ", e.exportedFlowRecordCount,
                  ", templates: ", e.exportedTemplateCount, ")");
  }
  return s;
}

// ---- table -----------------------------------------------------------------------------

std::unique_ptr<CollectorStatistics> CollectorStatistics::createShared(const std::string& shmName,
                                                                       uint32_t capacity) {
  auto seg =
      Segment::create(shmName, RawTable::bytesFor(capacity, sizeof(CollectorStatisticsEntry)));
  return std::unique_ptr<CollectorStatistics>(new CollectorStatistics(std::move(seg), capacity));
}

std::unique_ptr<CollectorStatistics> CollectorStatistics::createLocal(uint32_t capacity) {
  auto seg = Segment::heap(RawTable::bytesFor(capacity, sizeof(CollectorStatisticsEntry)));
  return std::unique_ptr<CollectorStatistics>(new CollectorStatistics(std::move(seg), capacity));
}

CollectorStatisticsEntry CollectorStatistics::stats(const CollectorStatisticsKey& key) const {
  auto e = table_.get(key);
  return e ? *e : CollectorStatisticsEntry();
}

void CollectorStatistics::sendErrorIs(const CollectorStatisticsKey& key, int error,
                                      Zub::Seconds now, uint64_t count) {
  try {
    statsUpdate(key, [&](CollectorStatisticsEntry& e) {
      e.sendErrorCount += count;
      e.lastSendErrno = error;
      e.lastSendErrorTime = now;
    });
  } catch (const Zub::RangeException&) {
  }
}

}  // namespace Stova::Ipfix

namespace FlowTracking {

namespace {
const Zub::LogHandle FLOWTRACKING_COLLECTOR_SEND_FAILED(
    "FLOWTRACKING_COLLECTOR_SEND_FAILED", 4,
    "Sending to collector %s of exporter %s in flow tracker %s failed: %s.",
    "The kernel refused a message to the collector (no route, no buffer, ...); it is counted "
    "as a send error, not as exported.",
    "Check the route from the exporter's source address to the collector.", 60.0, 1.0,
    "FLOWTRACKING");
const Zub::LogHandle FLOWTRACKING_COLLECTOR_STATS_LOST(
    "FLOWTRACKING_COLLECTOR_STATS_LOST", 4,
    "Statistics of collector %s of exporter %s in flow tracker %s are not kept: the "
    "statistics table is full, or its row has no room for another set.",
    "Export goes on; flowexportctl does not show this collector's counters.",
    "Clear the counters (flowexportctl clear counters) to free the table.", 60.0, 1.0,
    "FLOWTRACKING");
}  // namespace

void collectorStatsLost(const Stova::Ipfix::CollectorStatisticsKey& key) {
  FLOWTRACKING_COLLECTOR_STATS_LOST.log(key.collector.stringValue(), key.exporter(), key.tracker());
}

void collectorSendFailed(Stova::Ipfix::CollectorStatistics* stats,
                         const Stova::Ipfix::CollectorStatisticsKey& key, int error,
                         uint64_t count) {
  if (stats) stats->sendErrorIs(key, error, Zub::System::now(), count);
  FLOWTRACKING_COLLECTOR_SEND_FAILED.log(key.collector.stringValue(), key.exporter(), key.tracker(),
                                         std::strerror(error));
}

}  // namespace FlowTracking
