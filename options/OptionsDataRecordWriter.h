#pragma once
// Writes one options data record field by field into a buffer of exactly its length,
// checking the position before every field. The checks are the tables' own conditions,
// passed in with their texts: a record that would not come out exactly `max` bytes long
// is a programming error.

#include <cstring>
#include <string_view>

#include "ipfix/DataExporter.h"
#include "platform/nelo/IpfixHeaders.h"
#include "platform/zub/Assert.h"

namespace FlowTracking {

class RecordWriter {
 public:
  explicit RecordWriter(size_t max) : max_(max), record_(new DataRecord()) {}
  size_t pos() const { return record_->dataLen(); }
  size_t max() const { return max_; }

  void u8(uint8_t v) { put(&v, 1); }
  void u16(uint16_t v) {
    uint8_t b[2];
    Nelo::NetU16::write(b, v);
    put(b, sizeof b);
  }
  void u32(uint32_t v) {
    uint8_t b[4];
    Nelo::NetU32::write(b, v);
    put(b, sizeof b);
  }
  void u64(uint64_t v) {
    uint8_t b[8];
    Nelo::NetU64::write(b, v);
    put(b, sizeof b);
  }
  void bytes(std::string_view s) { put(s.data(), s.size()); }
  // The finished record; the caller has checked that the whole buffer is written.
  Zub::Ptr<const DataRecord> record() { return std::move(record_); }

 private:
  void put(const void* p, size_t n) {
    ZUB_ASSERT(pos() + n <= max_);
    record_->append(p, n);
  }
  size_t max_;
  Zub::Ptr<DataRecord> record_;
};

}  // namespace FlowTracking
