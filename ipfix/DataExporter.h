#pragma once
// DataRecord: one encoded record as it goes on the wire (the concatenated field values,
// no set header). Records are built by appending field encodings, then published as
// Zub::Ptr<const DataRecord> and never changed again.
//
// A record keeps up to kInlineBytes bytes inside itself (interface and VRF rows with
// names of up to 23 bytes, flow key rows), so a published table is one 48-byte block per
// row, the rows side by side; longer records keep their bytes on the heap.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/zub/BlockPool.h"
#include "platform/zub/Ptr.h"
#include "platform/zub/Types.h"

namespace FlowTracking {

class DataRecord : public Zub::PtrInterface {
 public:
  // With the reference count and the length, exactly one 48-byte block.
  static constexpr size_t kInlineBytes = 28;

  explicit DataRecord(std::string_view data = {}) { append(data.data(), data.size()); }
  DataRecord(const DataRecord&) = delete;
  DataRecord& operator=(const DataRecord&) = delete;
  ~DataRecord() override {
    if (onHeap()) delete[] heap();
  }
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

  // Records made one after another lie side by side (see BlockPool).
  static void* operator new(size_t n) { return Zub::BlockPool<48>::allocate(n); }
  static void operator delete(void* p, size_t n) noexcept { Zub::BlockPool<48>::release(p, n); }

 private:
  bool onHeap() const { return cap_ > kInlineBytes; }
  // A longer record keeps its bytes on the heap and the pointer to them inline.
  char* heap() const {
    char* p;
    std::memcpy(&p, inline_, sizeof p);
    return p;
  }
  const char* bytes() const { return onHeap() ? heap() : inline_; }

  uint32_t len_ = 0;
  uint32_t cap_ = kInlineBytes;
  char inline_[kInlineBytes];
};

Zub::Ptr<DataRecord> dataRecordFactory(std::string_view data = {});

}  // namespace FlowTracking
