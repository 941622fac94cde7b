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
  explicit RecordWriter(size_t max) : max_(max), buf_(max, '\0') {}
  size_t pos() const { return pos_; }
  size_t max() const { return max_; }

  void u8(uint8_t v) { buf_[pos_++] = static_cast<char>(v); }
  void u16(uint16_t v) {
    Nelo::NetU16::write(at(2), v);
    pos_ += 2;
  }
  void u32(uint32_t v) {
    Nelo::NetU32::write(at(4), v);
    pos_ += 4;
  }
  void u64(uint64_t v) {
    Nelo::NetU64::write(at(8), v);
    pos_ += 8;
  }
  void bytes(std::string_view s) {
    if (!s.empty()) std::memcpy(at(s.size()), s.data(), s.size());
    pos_ += s.size();
  }
  // The finished record; the caller has checked that the whole buffer is written.
  Zub::Ptr<const DataRecord> record() { return Zub::make<DataRecord>(std::move(buf_)); }

 private:
  uint8_t* at(size_t n) {
    ZUB_ASSERT(pos_ + n <= max_);
    return reinterpret_cast<uint8_t*>(buf_.data()) + pos_;
  }
  size_t max_;
  size_t pos_ = 0;
  std::string buf_;
};

}  // namespace FlowTracking
