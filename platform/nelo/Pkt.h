#pragma once
// A packet buffer: one heap allocation holding the packet's data region with room in
// front of it (headroom) for headers prepended later. Shared by reference count: a
// finished message is sent to every collector from the same buffer.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/zub/Assert.h"
#include "platform/zub/Ptr.h"

namespace Nelo {

class Pkt : public Zub::PtrInterface {
 public:
  // A data region of `bytes` bytes behind `headroom` bytes of room. The contents are
  // not initialised: writers fill every byte that they send.
  Pkt(size_t bytes, size_t headroom = 0)
      : buf_(new uint8_t[headroom + bytes]),
        size_(headroom + bytes),
        start_(headroom),
        bytes_(bytes) {}

  uint8_t* data() { return buf_.get() + start_; }
  const uint8_t* data() const { return buf_.get() + start_; }
  // Length of the data region.
  size_t bytes() const { return bytes_; }
  size_t headroom() const { return start_; }
  size_t bufSize() const { return size_; }

  // Grows the data region to the front by n bytes.
  void prepend(size_t n) {
    ZUB_ASSERT(n <= start_);
    start_ -= n;
    bytes_ += n;
  }
  // Drops everything of the data region behind its first `len` bytes.
  void trim(size_t len) {
    ZUB_ASSERT(len <= bytes_);
    bytes_ = len;
  }
  // Sets the data region's length anew, e.g. to reuse a trimmed buffer whole.
  void bytesIs(size_t len) {
    ZUB_ASSERT(start_ + len <= size_);
    bytes_ = len;
  }
  // Pointer to byte `offset` of the data region (offset + n must lie within it).
  uint8_t* at(size_t offset, size_t n = 0) {
    ZUB_ASSERT(offset + n <= bytes_);
    return data() + offset;
  }

  std::string bytesString() const {
    return std::string(reinterpret_cast<const char*>(data()), bytes_);
  }
  // "0000: 00 0a 00 20 ..." 16 bytes a line.
  std::string hexdump() const;

 private:
  std::unique_ptr<uint8_t[]> buf_;
  size_t size_;
  size_t start_;
  size_t bytes_;
};

class PktManager {
 public:
  Zub::Ptr<Pkt> newPkt(size_t bytes, size_t headroom = 0) {
    return Zub::Ptr<Pkt>(new Pkt(bytes, headroom));
  }
};
PktManager& globalPktManager();

}  // namespace Nelo
