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

// One field of the data path's own flow records (templates 261 and 262): its element,
// its length in the catalogue and whether it is part of the flow key.
struct FlowTemplateField {
  Ipfix::RecordType type;
  uint16_t len;
  bool key;
};
// The layout of the data path's flow records of one family: the addresses, then the same
// fields for both. The software status publisher announces it as the chip's templates.
const std::vector<FlowTemplateField>& flowTemplateFields(bool ipv6);

class FlowRecordEncoder {
 public:
  struct Field {
    Ipfix::RecordType type;
    uint16_t len;
  };
  // A template of the data path's layout.
  static std::vector<Field> fieldsOf(const std::vector<FlowTemplateField>& layout);
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
