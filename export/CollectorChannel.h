#pragma once
// A collector channel is one collector as one address family reaches it: one transport
// session, and the only way anything goes to the collector. Its clients (the template
// exporters, the options data exporter, the flow-record sender) hand it finished
// messages; the channel
//   - knows its destination (read from the exporter's configuration, so it is never
//     stale) and whether it can send now (a source address of its family, an open
//     endpoint, a destination);
//   - stamps each message with the export time and its sequence number, which every data
//     record it carries advances (templates do not), so all clients share one number;
//   - sends a run of messages in few system calls;
//   - counts what the kernel took in the collector's statistics row, by kind of set
//     (templates, flow records, options data), and what it refused as send errors;
//   - remembers where its data templates and options templates were last accepted, so
//     that records go only to a destination that can read them.
//
// SetRecord, MessageWrapper and BuilderWrapper are the message-building side: a message
// with its records counted per set, built by any client.

#include <string_view>
#include <vector>

#include "config/HwFlowTrackingConfig.h"
#include "export/CollectorStats.h"
#include "ipfix/Ipfix.h"
#include "ipfix/MessageBuilder.h"
#include "platform/nelo/UdpPam.h"
#include "platform/zub/LinkQueue.h"

namespace FlowTracking {

// What a data message carries; each kind is counted apart (template messages go through
// sendTemplates).
enum class SetKind : uint8_t { data, optionsData };

// How many records of one data set a message holds.
struct SetRecord {
  explicit SetRecord(TemplateId id) : setId(id) {}
  TemplateId setId;
  uint64_t count = 0;
};

// One finished message and its records per data set.
class MessageWrapper : public Zub::PtrInterface {
 public:
  const Zub::Ptr<Message>& msg() const { return msg_; }
  void msgIs(const Zub::Ptr<Message>& m) { msg_ = m; }
  // Empties the wrapper for another message and hands out the old one.
  Zub::Ptr<Message> reset() {
    setRecord_.clear();
    return std::move(msg_);
  }
  // In the order the sets first appear; a message rarely holds more than two.
  const std::vector<SetRecord>& setRecord() const { return setRecord_; }
  void setRecordInc(TemplateId id, uint64_t n = 1) {
    for (SetRecord& r : setRecord_) {
      if (r.setId == id) {
        r.count += n;
        return;
      }
    }
    setRecord_.emplace_back(id).count = n;
  }
  uint32_t recordCount() const { return msg_ ? msg_->recordCount() : 0; }
  size_t bytes() const { return msg_ ? msg_->bytes() : 0; }

 private:
  Zub::Ptr<Message> msg_;
  std::vector<SetRecord> setRecord_;
};

// A message builder and the wrapper of the message it is filling.
class BuilderWrapper {
 public:
  BuilderWrapper(uint16_t maxSize, uint32_t observationDomainId) {
    builderIs(maxSize, observationDomainId);
  }
  // Keeps the builder when both values are unchanged, makes a new one otherwise.
  void builderIs(uint16_t maxSize, uint32_t observationDomainId);
  void startMsg();
  // Messages of an earlier build to fill anew where nobody else holds them, instead of
  // allocating: rebuilding a large cache then allocates nothing.
  void recycleFrom(Zub::LinkQueue<Zub::Ptr<MessageWrapper>>* old) { recycle_ = old; }
  // Bytes consumed, 0 when the record does not fit the current message.
  uint32_t addSetRecord(TemplateId setId, const Zub::Ptr<const DataRecord>& record) {
    return addSetRecord(setId, record->data());
  }
  uint32_t addSetRecord(TemplateId setId, std::string_view bytes) {
    const uint32_t consumed = addSetRecordBytes(builder_.get(), setId.value(), bytes.data(),
                                                static_cast<uint32_t>(bytes.size()));
    if (consumed == 0) return 0;
    if (!(setId == runSetId_)) {
      countRun_();
      runSetId_ = setId;
    }
    ++runCount_;
    return consumed;
  }
  Zub::Ptr<MessageWrapper> finalizeMsg();
  bool hasRecords() const { return builder_->recordCount() > 0; }
  const Zub::Ptr<MessageBuilder>& builder() const { return builder_; }

 private:
  // Records are counted per run of one set id and handed to the wrapper when the set
  // changes or the message ends: no map look-up per record.
  void countRun_();

  Zub::Ptr<MessageBuilder> builder_;
  Zub::Ptr<MessageWrapper> msgWrap_;
  TemplateId runSetId_;
  uint64_t runCount_ = 0;
  Zub::LinkQueue<Zub::Ptr<MessageWrapper>>* recycle_ = nullptr;
};

class CollectorChannel : public Zub::Entity {
 public:
  // Named by the collector (its configured host text); statistics go to `stats` (may be
  // null) under the tracker's and exporter's names.
  CollectorChannel(const Zub::String& collector, bool ipv4,
                   const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                   Stova::Ipfix::CollectorStatistics* stats, const Zub::Name& ftName,
                   const Zub::Name& expName);

  bool ipv4() const { return ipv4_; }
  // The destination as the exporter's configuration has it now (unspecified when the
  // collector has no address of this family).
  Nelo::IpAndPort dst4() const;
  Nelo::Ip6AndPort dst6() const;
  Stova::Ipfix::CollectorInfo dst() const;
  bool hasDst() const;
  // The exporter's endpoint of this family (null while it has none); kept by the
  // endpoint reactor.
  ZUB_ATTR(Zub::Ptr<Nelo::UdpPam>, pam)
  // A source address of the family, an endpoint and a destination: it can send.
  bool ready() const;

  // The sequence number of the next message: the count of data records sent on this
  // channel so far (modulo 2^32).
  ZUB_COUNTER(Ipfix::IpfixMsgSeqNo, ipfixMsgSeqNo)
  void ipfixMsgSeqNoInc(uint32_t n) { ipfixMsgSeqNoInc(Ipfix::IpfixMsgSeqNo(n)); }
  // Where the kernel last took its data templates (options templates); unspecified
  // before that.
  ZUB_ATTR(Stova::Ipfix::CollectorInfo, templateDst)
  ZUB_ATTR(Stova::Ipfix::CollectorInfo, optTemplateDst)
  // The current destination has the data templates (options templates).
  bool templateSent() const { return hasDst() && templateDst() == dst(); }
  bool optTemplateSent() const { return hasDst() && optTemplateDst() == dst(); }

  // A template message of set `setId` (2 or 3) holding `templates` templates, stamped
  // with the export time `nowNs` and the sequence number (which templates leave as it
  // is). True when the kernel took it; that send is counted as a template message.
  bool sendTemplates(const Zub::Ptr<Nelo::Pkt>& pkt, uint16_t setId, uint16_t templates,
                     Zub::Nanoseconds nowNs);
  // One data message, or a run of them in order (few system calls; each carries this
  // channel's number). Only what the kernel took is counted as exported.
  void send(const MessageWrapper& msg, SetKind kind);
  void send(const Zub::LinkQueue<Zub::Ptr<MessageWrapper>>& msgs, SetKind kind);

  Stova::Ipfix::CollectorStatisticsKey statsKey() const;

 private:
  template <class F>
  size_t send_(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n);
  size_t sendPkts_(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n);
  void count_(const MessageWrapper* const* msgs, size_t n, SetKind kind);

  bool ipv4_;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Stova::Ipfix::CollectorStatistics* stats_;
  Zub::Name ftName_;
  Zub::Name expName_;
};

}  // namespace FlowTracking
