#include "ipfix/DataExporter.h"

#include "platform/nelo/IpfixHeaders.h"

namespace FlowTracking {

void DataRecord::appendU16(uint16_t v) {
  uint8_t b[2];
  Nelo::NetU16::write(b, v);
  append(b, sizeof b);
}

void DataRecord::appendU32(uint32_t v) {
  uint8_t b[4];
  Nelo::NetU32::write(b, v);
  append(b, sizeof b);
}

void DataRecord::appendU64(uint64_t v) {
  uint8_t b[8];
  Nelo::NetU64::write(b, v);
  append(b, sizeof b);
}

Zub::Ptr<DataRecord> dataRecordFactory(Zub::String data) {
  return Zub::Ptr<DataRecord>(new DataRecord(std::move(data)));
}

}  // namespace FlowTracking
