#pragma once
// Big-endian field writers and the IPFIX (RFC 7011) header layouts, as overlays with
// compile-time size checks, and accessors that place a header at an offset of a packet.

#include <cstdint>
#include <cstring>

#include "platform/nelo/Pkt.h"

namespace Nelo {

// Unaligned big-endian integers of 2, 4 and 8 bytes.
struct NetU16 {
  uint8_t b[2];
  static void write(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
  }
  static uint16_t read(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
  NetU16& operator=(uint16_t v) {
    write(b, v);
    return *this;
  }
  operator uint16_t() const { return read(b); }
};
struct NetU32 {
  uint8_t b[4];
  static void write(uint8_t* p, uint32_t v) {
    NetU16::write(p, static_cast<uint16_t>(v >> 16));
    NetU16::write(p + 2, static_cast<uint16_t>(v));
  }
  static uint32_t read(const uint8_t* p) {
    return static_cast<uint32_t>(NetU16::read(p)) << 16 | NetU16::read(p + 2);
  }
  NetU32& operator=(uint32_t v) {
    write(b, v);
    return *this;
  }
  operator uint32_t() const { return read(b); }
};
struct NetU64 {
  uint8_t b[8];
  static void write(uint8_t* p, uint64_t v) {
    NetU32::write(p, static_cast<uint32_t>(v >> 32));
    NetU32::write(p + 4, static_cast<uint32_t>(v));
  }
  static uint64_t read(const uint8_t* p) {
    return static_cast<uint64_t>(NetU32::read(p)) << 32 | NetU32::read(p + 4);
  }
  NetU64& operator=(uint64_t v) {
    write(b, v);
    return *this;
  }
  operator uint64_t() const { return read(b); }
};
static_assert(sizeof(NetU16) == 2 && sizeof(NetU32) == 4 && sizeof(NetU64) == 8);

namespace Wire {
struct MessageHeader {
  NetU16 version;
  NetU16 length;
  NetU32 exportTime;
  NetU32 sequenceNumber;
  NetU32 observationDomainId;
};
struct SetHeader {
  NetU16 setId;
  NetU16 length;
};
struct TemplateHeader {
  NetU16 templateId;
  NetU16 fieldCount;
};
struct OptionsTemplateHeader {
  NetU16 templateId;
  NetU16 fieldCount;
  NetU16 scopeFieldCount;
};
struct FieldSpecifier {
  NetU16 id;  // bit 15: enterprise bit
  NetU16 length;
};
struct EnterpriseFieldSpecifier {
  NetU16 id;
  NetU16 length;
  NetU32 enterpriseNumber;
};
static_assert(sizeof(MessageHeader) == 16);
static_assert(sizeof(SetHeader) == 4);
static_assert(sizeof(TemplateHeader) == 4);
static_assert(sizeof(OptionsTemplateHeader) == 6);
static_assert(sizeof(FieldSpecifier) == 4);
static_assert(sizeof(EnterpriseFieldSpecifier) == 8);
}  // namespace Wire

struct IpfixConst {
  static constexpr uint16_t version() { return 10; }
  static constexpr uint32_t messageHeaderLen() { return sizeof(Wire::MessageHeader); }
  static constexpr uint32_t setHeaderLen() { return sizeof(Wire::SetHeader); }
  static constexpr uint16_t templateSetId() { return 2; }
  static constexpr uint16_t optionsTemplateSetId() { return 3; }
  static constexpr uint16_t enterpriseBit() { return 0x8000; }
};

// A header accessor: the header of type W at a byte offset of a packet's data region.
// It keeps the packet alive.
template <class W>
class HeaderAt {
 public:
  HeaderAt(Zub::Ptr<Pkt> pkt, size_t offset) : pkt_(std::move(pkt)), offset_(offset) {
    ZUB_ASSERT(offset_ + sizeof(W) <= pkt_->bytes());
  }
  W* operator->() const { return reinterpret_cast<W*>(pkt_->data() + offset_); }
  size_t offset() const { return offset_; }
  const Zub::Ptr<Pkt>& pkt() const { return pkt_; }

 private:
  Zub::Ptr<Pkt> pkt_;
  size_t offset_;
};

class MessageHeader : public HeaderAt<Wire::MessageHeader> {
 public:
  using HeaderAt::HeaderAt;
  void versionIs(uint16_t v) { (*this)->version = v; }
  void lengthIs(uint16_t v) { (*this)->length = v; }
  void exportTimeIs(uint32_t v) { (*this)->exportTime = v; }
  void sequenceNumberIs(uint32_t v) { (*this)->sequenceNumber = v; }
  void observationDomainIdIs(uint32_t v) { (*this)->observationDomainId = v; }
  uint16_t version() const { return (*this)->version; }
  uint16_t length() const { return (*this)->length; }
  uint32_t exportTime() const { return (*this)->exportTime; }
  uint32_t sequenceNumber() const { return (*this)->sequenceNumber; }
  uint32_t observationDomainId() const { return (*this)->observationDomainId; }
};

class SetHeader : public HeaderAt<Wire::SetHeader> {
 public:
  using HeaderAt::HeaderAt;
  void setIdIs(uint16_t v) { (*this)->setId = v; }
  void lengthIs(uint16_t v) { (*this)->length = v; }
  uint16_t setId() const { return (*this)->setId; }
  uint16_t length() const { return (*this)->length; }
};

class TemplateHeader : public HeaderAt<Wire::TemplateHeader> {
 public:
  using HeaderAt::HeaderAt;
  void templateIdIs(uint16_t v) { (*this)->templateId = v; }
  void fieldCountIs(uint16_t v) { (*this)->fieldCount = v; }
};

class OptionsTemplateHeader : public HeaderAt<Wire::OptionsTemplateHeader> {
 public:
  using HeaderAt::HeaderAt;
  void templateIdIs(uint16_t v) { (*this)->templateId = v; }
  void fieldCountIs(uint16_t v) { (*this)->fieldCount = v; }
  void scopeFieldCountIs(uint16_t v) { (*this)->scopeFieldCount = v; }
};

class FieldSpecifier : public HeaderAt<Wire::FieldSpecifier> {
 public:
  using HeaderAt::HeaderAt;
  void idIs(uint16_t v) { (*this)->id = v; }
  void lengthIs(uint16_t v) { (*this)->length = v; }
};

}  // namespace Nelo
