#pragma once
// Flow records handed to export: data records of a tracker's data templates (ended
// flows of the software data path), for its exporters to send.

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "ipfix/FlowTrackingTypes.h"
#include "platform/zub/Entity.h"

namespace FlowTracking {

// Data records of several sets in order, each tagged with its set id.
class FlowRecords {
 public:
  struct Record {
    TemplateId setId;
    uint16_t len;
    uint32_t offset;  // in the batch's bytes
  };
  // Room for a record of `len` bytes of set `setId`, to be written at once: records lie
  // back to back in one buffer, so a batch that is reused allocates nothing per record.
  uint8_t* append(TemplateId setId, uint16_t len) {
    const size_t at = bytes_.size();
    bytes_.resize(at + len);
    records_.push_back({setId, len, static_cast<uint32_t>(at)});
    return reinterpret_cast<uint8_t*>(bytes_.data()) + at;
  }
  void append(TemplateId setId, std::string_view bytes) {
    std::memcpy(append(setId, static_cast<uint16_t>(bytes.size())), bytes.data(), bytes.size());
  }
  std::string_view bytes(const Record& r) const { return {bytes_.data() + r.offset, r.len}; }
  const std::vector<Record>& list() const { return records_; }
  size_t size() const { return records_.size(); }
  bool empty() const { return records_.empty(); }
  // Keeps the buffers' room.
  void clear() {
    records_.clear();
    bytes_.clear();
  }
  void swap(FlowRecords& o) noexcept {
    records_.swap(o.records_);
    bytes_.swap(o.bytes_);
  }

 private:
  std::vector<Record> records_;
  std::string bytes_;
};

// A tracker's flow records on their way out. The producer fills `records` and raises
// `version`; within that notification each exporter of the tracker sends them to its
// collectors that have the data templates, and says what became of them: `reached` when
// at least one collector got them, `oversized` for each record larger than a message of
// the exporter can carry. The producer reads both and empties the batch right after.
class FlowRecordBatch : public Zub::Entity {
 public:
  explicit FlowRecordBatch(const Zub::Name& ftName) : Entity(ftName) {}
  FlowRecords& records() { return records_; }
  const FlowRecords& records() const { return records_; }
  ZUB_COUNTER(uint32_t, version)
  bool reached() const { return reached_; }
  void reachedIs(bool r) { reached_ = r; }
  uint64_t oversized() const { return oversized_; }
  void oversizedInc() { ++oversized_; }
  // Before a hand-over: nothing reached, nothing oversized.
  void outcomeDel() {
    reached_ = false;
    oversized_ = 0;
  }

 private:
  FlowRecords records_;
  bool reached_ = false;
  uint64_t oversized_ = 0;
};

}  // namespace FlowTracking
