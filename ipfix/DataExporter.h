#pragma once
// DataRecord: one encoded record as it goes on the wire (the concatenated field values,
// no set header). Records are built by appending field encodings, then published as
// Zub::Ptr<const DataRecord> and never changed again.

#include <cstddef>
#include <cstdint>

#include "platform/zub/Ptr.h"
#include "platform/zub/Types.h"

namespace FlowTracking {

class DataRecord : public Zub::PtrInterface {
 public:
  explicit DataRecord(Zub::String data = {}) : data_(std::move(data)) {}
  const Zub::String& data() const { return data_; }
  void dataIs(Zub::String d) { data_ = std::move(d); }
  size_t dataLen() const { return data_.size(); }
  void append(const void* bytes, size_t len) { data_.append(static_cast<const char*>(bytes), len); }
  // Big-endian field encodings.
  void appendU8(uint8_t v) { data_.push_back(static_cast<char>(v)); }
  void appendU16(uint16_t v);
  void appendU32(uint32_t v);
  void appendU64(uint64_t v);

 private:
  Zub::String data_;
};

Zub::Ptr<DataRecord> dataRecordFactory(Zub::String data = {});

}  // namespace FlowTracking
