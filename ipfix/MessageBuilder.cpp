#include "ipfix/MessageBuilder.h"

#include "platform/zub/Assert.h"
#include "platform/zub/Clock.h"

namespace FlowTracking {

using Nelo::IpfixConst;

const Zub::Ptr<Nelo::Pkt>& Message::pkt(uint32_t seqNo) {
  msgHdr_.exportTimeIs(static_cast<uint32_t>(Zub::System::clock().wallNs() / 1'000'000'000LL));
  msgHdr_.sequenceNumberIs(seqNo);
  return pkt_;
}

Zub::Ptr<Nelo::Pkt> MessageBuilder::newPkt() const {
  return Nelo::globalPktManager().newPkt(maxSize_);
}

void MessageBuilder::startMsg(Zub::Ptr<Message> reuse) {
  ZUB_ASSERT(!pkt());
  ZUB_ASSERT(offset() == 0);
  if (reuse && reuse->reusable(maxSize_)) {
    message_ = std::move(reuse);
    message_->recordCountIs(0);
    pkt_ = message_->pkt();
    pkt_->bytesIs(maxSize_);
  } else {
    pkt_ = newPkt();
    message_ = messageFactory(pkt_);
  }
  buf_ = pkt_->data();
  pktBufSize_ = pkt_->bytes();
  offset_ = Nelo::IpfixConst::messageHeaderLen();
}

void MessageBuilder::startSet_(uint16_t setId) {
  ZUB_ASSERT(pkt());
  ZUB_ASSERT(!setHdr());
  setHdr_.emplace(pkt_, offset_);
  setHdr_->setIdIs(setId);
  setLen_ = Nelo::IpfixConst::setHeaderLen();
  currentSetId_ = setId;
  offset_ += Nelo::IpfixConst::setHeaderLen();
}

void MessageBuilder::finalizeSet_() {
  ZUB_ASSERT(pkt());
  ZUB_ASSERT(setHdr());
  setHdr_->lengthIs(setLen_);
  setLen_ = 0;
  setHdr_.reset();
}

uint32_t MessageBuilder::addSlow_(uint16_t setId, const void* bytes, uint32_t len) {
  MessageBuilder* builder = this;
  ZUB_ASSERT(builder->pkt());
  ZUB_ASSERT_TEXT(len < Zub::maxU16(), "bytes < Zub::maxU16()");
  if (setHdr_ && currentSetId_ == setId) {
    if (offset_ + len > maxSize_) return 0;
    ++recordCount_;
  } else {
    // A new set: its header and the record must both fit. The sum is 16 bits wide.
    const uint16_t withHeader = static_cast<uint16_t>(len + Nelo::IpfixConst::setHeaderLen());
    if (offset_ + withHeader > maxSize_) return 0;
    ++recordCount_;
    if (setHdr_) finalizeSet_();
    startSet_(setId);
  }
  ZUB_ASSERT_TEXT(builder->offset() + len <= builder->pktBufSize(),
                  "builder->offset() + bytes <= builder->pktBufSize()");
  std::memcpy(buf_ + offset_, bytes, len);
  offset_ += len;
  setLen_ = static_cast<uint16_t>(setLen_ + len);
  return len;
}

uint32_t MessageBuilder::addSetRecord(uint16_t setId, const Zub::Ptr<const DataRecord>& record) {
  return addSetRecordBytes(this, setId, record->data().data(),
                           static_cast<uint32_t>(record->dataLen()));
}

uint32_t MessageBuilder::addSetRecordStr(uint16_t setId, const Zub::String& bytes) {
  return addSetRecordBytes(this, setId, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

Zub::Ptr<Message> MessageBuilder::finalizeMsg() {
  if (setHdr_) finalizeSet_();
  ZUB_ASSERT(pkt());
  ZUB_ASSERT(offset() > IpfixConst::messageHeaderLen());
  const uint32_t msgLen = offset_;
  Nelo::MessageHeader hdr(pkt_, 0);
  hdr.versionIs(Nelo::IpfixConst::version());
  hdr.lengthIs(static_cast<uint16_t>(msgLen));
  hdr.exportTimeIs(0);
  hdr.sequenceNumberIs(0);
  hdr.observationDomainIdIs(observationDomainId_);

  offset_ = 0;
  Zub::Ptr<Message> msg = std::move(message_);
  msg->recordCountIs(recordCount_);
  recordCount_ = 0;
  Zub::Ptr<Nelo::Pkt> _pkt = std::move(pkt_);
  buf_ = nullptr;

  ZUB_ASSERT(msgLen <= pktBufSize());
  _pkt->trim(msgLen);
  ZUB_ASSERT(_pkt->bytes() == msgLen);
  return msg;
}

Zub::Ptr<MessageBuilder> messageBuilderFactory(uint16_t maxSize, uint32_t observationDomainId) {
  return Zub::Ptr<MessageBuilder>(new MessageBuilder(maxSize, observationDomainId));
}

Zub::Ptr<Message> messageFactory(Zub::Ptr<Nelo::Pkt> pkt) {
  return Zub::Ptr<Message>(new Message(std::move(pkt)));
}

}  // namespace FlowTracking
