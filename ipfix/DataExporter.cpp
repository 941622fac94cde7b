#include "ipfix/DataExporter.h"

#include "platform/nelo/IpfixHeaders.h"

#include <algorithm>
#include <cstring>

namespace FlowTracking {

static_assert(sizeof(DataRecord) == 48, "a record is one pool block");

void DataRecord::append(const void* bytes, size_t len) {
  if (len == 0) return;
  if (len_ + len > cap_) {
    const size_t cap = std::max<size_t>(len_ + len, 2 * size_t{cap_});
    char* grown = new char[cap];
    std::memcpy(grown, this->bytes(), len_);
    if (onHeap()) delete[] heap();
    std::memcpy(inline_, &grown, sizeof grown);
    cap_ = static_cast<uint32_t>(cap);
  }
  std::memcpy((onHeap() ? heap() : inline_) + len_, bytes, len);
  len_ += static_cast<uint32_t>(len);
}

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

Zub::Ptr<DataRecord> dataRecordFactory(std::string_view data) {
  return Zub::Ptr<DataRecord>(new DataRecord(data));
}

}  // namespace FlowTracking
