#pragma once
// DataRecord: one encoded record as it goes on the wire (the concatenated field values,
// no set header). Records are built by appending field encodings, then published as
// Zub::Ptr<const DataRecord> and never changed again.
//
// A record keeps up to kInlineBytes bytes inside itself (every interface, VRF and flow
// key row fits), so a published table is one allocation per row and reading a record
// touches one place in memory; longer records keep their bytes on the heap.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/zub/Ptr.h"
#include "platform/zub/Types.h"

namespace FlowTracking {

class DataRecord : public Zub::PtrInterface {
 public:
  static constexpr size_t kInlineBytes = 24;

  explicit DataRecord(std::string_view data = {}) { append(data.data(), data.size()); }
  std::string_view data() const { return {bytes(), len_}; }
  void dataIs(std::string_view d) {
    len_ = 0;
    append(d.data(), d.size());
  }
  size_t dataLen() const { return len_; }
  void append(const void* bytes, size_t len);
  // Big-endian field encodings.
  void appendU8(uint8_t v) { append(&v, 1); }
  void appendU16(uint16_t v);
  void appendU32(uint32_t v);
  void appendU64(uint64_t v);

 private:
  const char* bytes() const { return heap_ ? heap_.get() : inline_; }

  uint32_t len_ = 0;
  uint32_t cap_ = kInlineBytes;
  std::unique_ptr<char[]> heap_;
  char inline_[kInlineBytes];
};

Zub::Ptr<DataRecord> dataRecordFactory(std::string_view data = {});

}  // namespace FlowTracking
