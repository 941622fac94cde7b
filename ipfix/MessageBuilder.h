#pragma once
// MessageBuilder frames one IPFIX message (RFC 7011) at a time into a packet: the
// 16-byte message header, sets, and records copied in place. The finished Message owns
// the packet; the export time and the sequence number are stamped only when a sender
// takes the packet out (Message::pkt), so one message serves many collectors.
//
//   builder->startMsg();
//   while (addSetRecordBytes(builder, setId, rec, len) == 0) { ...finalise, start anew }
//   auto msg = builder->finalizeMsg();
//   for each collector: send(msg->pkt(seqNo));
//
// A record that does not fit returns 0 and leaves the message unchanged: the caller
// finalises and starts the next message. No padding is ever written.

#include <cstdint>
#include <cstring>
#include <optional>

#include "ipfix/DataExporter.h"
#include "platform/nelo/IpfixHeaders.h"
#include "platform/nelo/Pkt.h"

namespace FlowTracking {

class Message : public Zub::PtrInterface {
 public:
  explicit Message(Zub::Ptr<Nelo::Pkt> pkt) : pkt_(pkt), msgHdr_(pkt, 0) {}
  // Stamps the current UTC time (whole seconds) and `seqNo` into the header and
  // returns the packet. Every call stamps anew.
  const Zub::Ptr<Nelo::Pkt>& pkt(uint32_t seqNo);
  // The packet as it stands, without stamping.
  const Zub::Ptr<Nelo::Pkt>& pkt() const { return pkt_; }
  const Nelo::MessageHeader& msgHdr() const { return msgHdr_; }
  uint32_t recordCount() const { return recordCount_; }
  void recordCountIs(uint32_t n) { recordCount_ = n; }
  size_t bytes() const { return pkt_->bytes(); }
  // True when nothing but its one holder refers to this message or its packet (the
  // message and its header view each hold the packet once) and the packet can carry
  // `maxSize` bytes: then it may be filled anew.
  bool reusable(size_t maxSize) const {
    return references() == 1 && pkt_->references() == 2 &&
           pkt_->bufSize() - pkt_->headroom() >= maxSize;
  }

 private:
  Zub::Ptr<Nelo::Pkt> pkt_;
  Nelo::MessageHeader msgHdr_;
  uint32_t recordCount_ = 0;
};

class MessageBuilder : public Zub::PtrInterface {
 public:
  MessageBuilder(uint16_t maxSize, uint32_t observationDomainId)
      : maxSize_(maxSize), observationDomainId_(observationDomainId) {}

  // Bytes taken by the message header and n set headers.
  static constexpr uint32_t calcOverhead(uint32_t n) {
    return Nelo::IpfixConst::messageHeaderLen() + Nelo::IpfixConst::setHeaderLen() * n;
  }

  // Starts a message in a new buffer, or in `reuse` when it is reusable(maxSize()) (a
  // finished message nobody else holds any more; it is overwritten).
  void startMsg(Zub::Ptr<Message> reuse = nullptr);
  // Opens a set at the current offset; `setId` is 2, 3 or a template id.
  void startSet_(uint16_t setId);
  void finalizeSet_();
  // Adds one encoded record to set `setId` (opening it when needed); returns the
  // bytes added, 0 when the record does not fit.
  uint32_t addSetRecord(uint16_t setId, const Zub::Ptr<const DataRecord>& record);
  uint32_t addSetRecordStr(uint16_t setId, const Zub::String& bytes);
  // Closes the open set, writes the header and returns the finished message, trimmed
  // to its length. The builder is then ready for the next startMsg.
  Zub::Ptr<Message> finalizeMsg();
  // A buffer of maxSize bytes whose data region spans all of it.
  Zub::Ptr<Nelo::Pkt> newPkt() const;

  uint16_t maxSize() const { return maxSize_; }
  uint32_t observationDomainId() const { return observationDomainId_; }
  const Zub::Ptr<Nelo::Pkt>& pkt() const { return pkt_; }
  const Zub::Ptr<Message>& message() const { return message_; }
  const std::optional<Nelo::SetHeader>& setHdr() const { return setHdr_; }
  uint32_t offset() const { return offset_; }
  uint16_t setLen() const { return setLen_; }
  uint16_t currentSetId() const { return currentSetId_; }
  uint32_t recordCount() const { return recordCount_; }
  size_t pktBufSize() const { return pktBufSize_; }

 private:
  friend uint32_t addSetRecordBytes(MessageBuilder* builder, uint16_t setId, const void* bytes,
                                    uint32_t len);
  uint32_t addSlow_(uint16_t setId, const void* bytes, uint32_t len);

  uint16_t maxSize_;
  uint32_t observationDomainId_;
  Zub::Ptr<Nelo::Pkt> pkt_;
  uint8_t* buf_ = nullptr;  // pkt_'s data, cached for the record copy
  size_t pktBufSize_ = 0;
  Zub::Ptr<Message> message_;
  std::optional<Nelo::SetHeader> setHdr_;
  uint32_t offset_ = 0;
  uint16_t setLen_ = 0;
  uint16_t currentSetId_ = 65535;
  uint32_t recordCount_ = 0;
};

// The record-adding step, inline for its common case: the record goes into the set
// that is already open and fits.
inline uint32_t addSetRecordBytes(MessageBuilder* builder, uint16_t setId, const void* bytes,
                                  uint32_t len) {
  MessageBuilder& b = *builder;
  if (b.setHdr_ && b.currentSetId_ == setId && b.pkt_ && len < Zub::maxU16()) {
    if (b.offset_ + len > b.maxSize_) return 0;
    if (b.offset_ + len <= b.pktBufSize_) {
      ++b.recordCount_;
      std::memcpy(b.buf_ + b.offset_, bytes, len);
      b.offset_ += len;
      b.setLen_ = static_cast<uint16_t>(b.setLen_ + len);
      return len;
    }
  }
  return b.addSlow_(setId, bytes, len);
}

inline uint32_t addSetRecordBytes(const Zub::Ptr<MessageBuilder>& builder, uint16_t setId,
                                  const void* bytes, uint32_t len) {
  return addSetRecordBytes(builder.get(), setId, bytes, len);
}

Zub::Ptr<MessageBuilder> messageBuilderFactory(uint16_t maxSize, uint32_t observationDomainId);
Zub::Ptr<Message> messageFactory(Zub::Ptr<Nelo::Pkt> pkt);

}  // namespace FlowTracking
