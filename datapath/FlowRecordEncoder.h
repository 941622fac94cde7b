#pragma once
// Ended flows as data records of a template: the template's fields in its order, each at
// the length the template gives (integers big-endian, cut to that length), as the chip
// writes its own records. Counts are the sampled packets and octets, not multiplied by
// the sample rate: collectors learn the rate from the flow tracker table.

#include <cstdint>
#include <vector>

#include "config/HwFlowTrackingStatus.h"
#include "datapath/FlowCache.h"

namespace FlowTracking {

class FlowRecordEncoder {
 public:
  struct Field {
    Ipfix::RecordType type;
    uint16_t len;
  };
  explicit FlowRecordEncoder(std::vector<Field> fields);
  // The fields of a published template.
  explicit FlowRecordEncoder(const HwFlowTracking::FgStatus& group);

  // Writes the record's `recordLength()` bytes at `out`.
  void encode(const FlowRecord& flow, FlowEndReason reason, uint8_t* out) const;
  size_t recordLength() const { return length_; }
  const std::vector<Field>& fields() const { return fields_; }

 private:
  std::vector<Field> fields_;
  size_t length_ = 0;
};

}  // namespace FlowTracking
