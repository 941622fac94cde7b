#include "export/CollectorChannel.h"

#include "export/ExportFamily.h"
#include "export/Trace.h"
#include "platform/nelo/IpfixHeaders.h"
#include "platform/zub/Clock.h"

namespace FlowTracking {

// ---- BuilderWrapper ----------------------------------------------------------------------

void BuilderWrapper::builderIs(uint16_t maxSize, uint32_t observationDomainId) {
  if (builder_ && builder_->maxSize() == maxSize &&
      builder_->observationDomainId() == observationDomainId) {
    return;
  }
  builder_ = messageBuilderFactory(maxSize, observationDomainId);
}

void BuilderWrapper::startMsg() {
  if (recycle_ && !recycle_->empty()) {
    Zub::Ptr<MessageWrapper> old = recycle_->deq();
    if (old->references() == 1) {
      builder_->startMsg(old->reset());
      msgWrap_ = std::move(old);
      return;
    }
  }
  builder_->startMsg();
  msgWrap_ = Zub::make<MessageWrapper>();
}

void BuilderWrapper::countRun_() {
  if (runCount_ > 0) msgWrap_->setRecordInc(runSetId_, runCount_);
  runCount_ = 0;
}

Zub::Ptr<MessageWrapper> BuilderWrapper::finalizeMsg() {
  countRun_();
  msgWrap_->msgIs(builder_->finalizeMsg());
  return std::exchange(msgWrap_, nullptr);
}

// ---- CollectorChannel --------------------------------------------------------------------

namespace {
// What a channel's send says and checks per family.
template <class F>
struct ChannelFamily;
template <>
struct ChannelFamily<Ipv4Family> {
  static constexpr const char* kSrcAssert = "src != IpAddr::ipAddrZero()";
  static constexpr const char* kTx = " TX IPv4 ";
};
template <>
struct ChannelFamily<Ipv6Family> {
  static constexpr const char* kSrcAssert = "!src.isZero()";
  static constexpr const char* kTx = " TX IPv6 ";
};

template <class F>
typename F::Dst dstOf(const HwFlowTracking::ExporterConfig& hw, const Zub::String& name) {
  const typename F::Dst* d = F::collectors(hw).find(name);
  return d ? *d : typename F::Dst{};
}
}  // namespace

CollectorChannel::CollectorChannel(const Zub::String& collector, bool ipv4,
                                   const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                                   Stova::Ipfix::CollectorStatistics* stats,
                                   const Zub::Name& ftName, const Zub::Name& expName)
    : Entity(collector),
      ipv4_(ipv4),
      hwExpConfig_(hwExpConfig),
      stats_(stats),
      ftName_(ftName),
      expName_(expName) {}

Nelo::IpAndPort CollectorChannel::dst4() const {
  return ipv4_ ? dstOf<Ipv4Family>(*hwExpConfig_, name()) : Nelo::IpAndPort{};
}

Nelo::Ip6AndPort CollectorChannel::dst6() const {
  return ipv4_ ? Nelo::Ip6AndPort{} : dstOf<Ipv6Family>(*hwExpConfig_, name());
}

Stova::Ipfix::CollectorInfo CollectorChannel::dst() const {
  return ipv4_ ? Ipv4Family::key(dst4()) : Ipv6Family::key(dst6());
}

bool CollectorChannel::hasDst() const {
  return ipv4_ ? !dst4().addr.isZero() : !dst6().addr.isZero();
}

bool CollectorChannel::ready() const {
  const bool source =
      ipv4_ ? Ipv4Family::hasSource(*hwExpConfig_) : Ipv6Family::hasSource(*hwExpConfig_);
  return pam() && source && hasDst();
}

Stova::Ipfix::CollectorStatisticsKey CollectorChannel::statsKey() const {
  return Stova::Ipfix::CollectorStatisticsKey(dst(), ftName_, expName_);
}

template <class F>
size_t CollectorChannel::send_(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n) {
  const auto src = F::src(*hwExpConfig_);
  ZUB_ASSERT_TEXT(!src.isZero() || hwExpConfig_->routedSource(), ChannelFamily<F>::kSrcAssert);
  ZUB_ASSERT_TEXT(pam(), "_pam");
  const typename F::Dst dst = dstOf<F>(*hwExpConfig_, name());
  GLINT(exportTrace(), kDiag) << "CollectorChannel::send for " << name() << ChannelFamily<F>::kTx
                              << src << " => " << dst << " (" << n << " messages)";
  if (exportTrace().enabled(kDump)) {
    for (size_t i = 0; i < n; ++i) GLINT(exportTrace(), kDump) << pkts[i]->hexdump();
  }
  const size_t sent = F::send(pkts, n, pam(), *hwExpConfig_, dst);
  if (sent < n) collectorSendFailed(stats_, statsKey(), pam()->lastErrno(), n - sent);
  return sent;
}

size_t CollectorChannel::sendPkts_(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n) {
  return ipv4_ ? send_<Ipv4Family>(pkts, n) : send_<Ipv6Family>(pkts, n);
}

bool CollectorChannel::sendTemplates(const Zub::Ptr<Nelo::Pkt>& pkt, uint16_t setId,
                                     uint16_t templates, Zub::Nanoseconds nowNs) {
  Nelo::MessageHeader msg(pkt, 0);
  msg.exportTimeIs(static_cast<uint32_t>(nowNs / 1'000'000'000LL));
  // A template message carries no data record: the sequence number is the count of data
  // records so far, not advanced here.
  msg.sequenceNumberIs(ipfixMsgSeqNo().value);
  if (sendPkts_(&pkt, 1) == 0) return false;
  if (!stats_) return true;
  const Stova::Ipfix::CollectorStatisticsKey key = statsKey();
  const Zub::Seconds now = Zub::secondsFromNs(nowNs);
  const Stova::Ipfix::SetId set(setId);
  try {
    stats_->statsUpdate(key, [&](Stova::Ipfix::CollectorStatisticsEntry& entry) {
      // The set slot first: a tenth distinct set id is refused before anything changed.
      Stova::Ipfix::CollectorSetStatisticsEntry slot = entry.setEntry(set);
      if (!(slot.setId == set)) slot = Stova::Ipfix::CollectorSetStatisticsEntry{set};
      slot.exportedTemplateCount += templates;
      entry.setEntryIs(slot);
      entry.exportedMessageTotalCount += 1;
      entry.exportedTemplateMessageCount += 1;
      entry.exportedOctetTotalCount += pkt->bytes();
      entry.lastSentTime = now;
      entry.lastTemplateSentTime = now;
    });
  } catch (const Zub::RangeException& e) {
    // A full table loses this collector's statistics, not its export.
    GLINT(exportTrace(), Zub::Glint::kError)
        << "statistics of " << key.stovaString() << " not kept: " << e.what();
    collectorStatsLost(key);
  }
  return true;
}

void CollectorChannel::send(const MessageWrapper& msg, SetKind kind) {
  // The header carries the data records sent to this collector before this message.
  const uint32_t seqNo = ipfixMsgSeqNo().value;
  ipfixMsgSeqNoInc(msg.recordCount());
  const Zub::Ptr<Nelo::Pkt> pkt = msg.msg()->pkt(seqNo);
  const MessageWrapper* wrap = &msg;
  if (sendPkts_(&pkt, 1)) count_(&wrap, 1, kind);
}

void CollectorChannel::send(const Zub::LinkQueue<Zub::Ptr<MessageWrapper>>& msgs, SetKind kind) {
  constexpr size_t kBatch = 64;
  Zub::Ptr<Nelo::Pkt> pkts[kBatch];
  const MessageWrapper* wraps[kBatch];
  size_t n = 0;
  auto flush = [&] {
    if (n == 0) return;
    const size_t sent = sendPkts_(pkts, n);
    count_(wraps, sent, kind);  // only what the kernel took counts as exported
    for (size_t i = 0; i < n; ++i) pkts[i] = nullptr;
    n = 0;
  };
  for (const Zub::Ptr<MessageWrapper>& msg : msgs) {
    // Each message is its own packet: stamping it for this collector leaves the others.
    const uint32_t seqNo = ipfixMsgSeqNo().value;
    ipfixMsgSeqNoInc(msg->recordCount());
    pkts[n] = msg->msg()->pkt(seqNo);
    wraps[n++] = msg.get();
    if (n == kBatch) flush();
  }
  flush();
}

// Counts `n` messages the kernel took in one update of the collector's row.
void CollectorChannel::count_(const MessageWrapper* const* msgs, size_t n, SetKind kind) {
  if (!stats_ || n == 0) return;
  const Stova::Ipfix::CollectorStatisticsKey key = statsKey();
  const Zub::Seconds now = Zub::System::now();
  try {
    stats_->statsUpdate(key, [&](Stova::Ipfix::CollectorStatisticsEntry& entry) {
      for (size_t i = 0; i < n; ++i) {
        const MessageWrapper& msg = *msgs[i];
        // The set slots first: a tenth distinct set id is refused before anything changed.
        // The compatible layout's sets count in the totals only: a row's nine slots go to
        // the templates, the four tables and the flow records.
        for (const SetRecord& rec : msg.setRecord()) {
          if (CompatibleTemplate::is(rec.setId.value())) continue;
          const Stova::Ipfix::SetId setId(rec.setId.value());
          Stova::Ipfix::CollectorSetStatisticsEntry set = entry.setEntry(setId);
          if (!(set.setId == setId)) set = Stova::Ipfix::CollectorSetStatisticsEntry{setId};
          set.exportedFlowRecordCount += rec.count;
          entry.setEntryIs(set);
        }
        entry.exportedMessageTotalCount += 1;
        entry.exportedFlowRecordTotalCount += msg.recordCount();
        entry.exportedOctetTotalCount += msg.bytes();
        if (kind == SetKind::data) {
          entry.exportedDataMessageCount += 1;
          entry.exportedDataRecordCount += msg.recordCount();
        } else {
          entry.exportedOptionsDataMessageCount += 1;
          entry.exportedOptionsDataRecordCount += msg.recordCount();
        }
      }
      entry.lastSentTime = now;
      (kind == SetKind::data ? entry.lastDataRecordSentTime : entry.lastOptionsDataSentTime) = now;
      GLINT(exportTrace(), kDiag) << "CollectorChannel::count_ for " << name()
                                  << " stats: " << entry.stovaString();
    });
  } catch (const Zub::RangeException& e) {
    GLINT(exportTrace(), Zub::Glint::kError)
        << "statistics of " << key.stovaString() << " not kept: " << e.what();
    collectorStatsLost(key);
  }
}

}  // namespace FlowTracking
