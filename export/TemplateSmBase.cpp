#include "export/TemplateSmBase.h"

#include "export/Trace.h"
#include "ipfix/FlowTrackerPktTxUtil.h"
#include "platform/nelo/IpfixHeaders.h"
#include "platform/zub/Clock.h"

namespace FlowTracking {

namespace {
uint32_t nowU32() { return static_cast<uint32_t>(Zub::System::clock().wallNs() / 1'000'000'000LL); }
}  // namespace

#define TRACE_BASE(level, handler) \
  GLINT(exportTrace(), level) << "TemplateExporterSmBase::" << handler << " for " << traceId_
TemplateExporterSmBase::TemplateExporterSmBase(
    const Zub::Name& name1, const Zub::Name& name2, FtId ftId,
    const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Zub::Ptr<ExporterInfo>& expInfo, Stova::Ipfix::CollectorStatistics* collStats,
    Orrin::TaskScheduler& scheduler)
    : name1_(name1),
      name2_(name2),
      ftId_(ftId),
      hwExpConfig_(hwExpConfig),
      expInfo_(expInfo),
      collStats_(collStats),
      scheduler_(scheduler),
      traceId_(name2 + "-" + name1) {
  watch(hwExpConfig_->srcIpAddrSignal(), [this] { maybeTxTemplate4_(); });
  watch(expInfo_->udpPam4Signal(), [this] { maybeTxTemplate4_(); });
  watch(hwExpConfig_->srcIp6AddrSignal(), [this] { maybeTxTemplate6_(); });
  watch(expInfo_->udpPam6Signal(), [this] { maybeTxTemplate6_(); });
  watch(hwExpConfig_->exporterReadySignal(), [this] { maybeTxTemplate_(); });
  watch(hwExpConfig_->templateIntervalSignal(), [this] { handleTemplateInterval(); });
  watch(hwExpConfig_->collectorIpAndPortSignal(),
        [this](const Zub::String& n) { handleCollectorIpAndPort(n); });
  watch(hwExpConfig_->collectorIp6AndPortSignal(),
        [this](const Zub::String& n) { handleCollectorIp6AndPort(n); });
  watch(expInfo_->collInfoSignal(), [this](const Zub::String& n) {
    handleCollectorIpAndPort(n);
    handleCollectorIp6AndPort(n);
  });
}

TemplateExporterSmBase::~TemplateExporterSmBase() { periodicTemplateTxTaskDel(); }

Zub::String TemplateExporterSmBase::taskPrefix() const { ZUB_FATAL("(!(\"taskPrefix\"))"); }
uint16_t TemplateExporterSmBase::headerSetId() const { ZUB_FATAL("(!(\"headerSetId\"))"); }
void TemplateExporterSmBase::updateCollectorOnTx(const Zub::String&) {}

void TemplateExporterSmBase::periodicTemplateTxTaskIs(Orrin::TaskScheduler& scheduler, int priority,
                                                      const Zub::String& name) {
  periodicTemplateTxTask_ =
      new Orrin::TimerTask(scheduler, name, priority, [this] { handlePeriodicTemplateTx(); });
}

void TemplateExporterSmBase::periodicTemplateTxTaskDel() {
  if (periodicTemplateTxTask_) periodicTemplateTxTask_->stopTimerTask();
  periodicTemplateTxTask_ = nullptr;
}

void TemplateExporterSmBase::handleStartup() {
  TRACE_BASE(kEntry, "handleStartup");
  templateReady_ = false;
  templateTxCount_ = 0;
  periodicTemplateTxTaskIs(scheduler_, kTaskPriority,
                           taskPrefix() + "-" + "PeriodicTxTask" + "-" + name2_ + "-" + name1_);
}

Zub::Ptr<Nelo::Pkt> TemplateExporterSmBase::getPkt(size_t recordBytes) {
  return Nelo::globalPktManager().newPkt(recordBytes, kHeaderBytes);
}

void TemplateExporterSmBase::templateReadyIs(bool ready) {
  if (ready == templateReady_) return;
  templateReady_ = ready;
  handleTemplateReady();
}

void TemplateExporterSmBase::finishMessage() {
  addIpfixHeaders_();
  maybeTxTemplate_();
}

void TemplateExporterSmBase::addIpfixHeaders_() {
  ZUB_ASSERT(templatePkt_);
  const size_t recordBytes = templatePkt_->bytes();
  templatePkt_->prepend(kHeaderBytes);
  Nelo::SetHeader set(templatePkt_, Nelo::IpfixConst::messageHeaderLen());
  set.setIdIs(static_cast<uint8_t>(headerSetId()));
  set.lengthIs(static_cast<uint16_t>(recordBytes + Nelo::IpfixConst::setHeaderLen()));
  Nelo::MessageHeader msg(templatePkt_, 0);
  msg.versionIs(Nelo::IpfixConst::version());
  msg.lengthIs(static_cast<uint16_t>(recordBytes + kHeaderBytes));
  msg.exportTimeIs(nowU32());
  msg.sequenceNumberIs(0);
  msg.observationDomainIdIs(ftId_.value());
  if (exportTrace().enabled(kDump)) {
    GLINT(exportTrace(), kDump) << "Template pkt->hexdump: \n" << templatePkt_->hexdump();
  }
  templatePktMsgLen_ = static_cast<uint16_t>(recordBytes + kHeaderBytes);
  ++templateGen_;
  templateReadyIs(true);
}

void TemplateExporterSmBase::handleTemplateReady() {
  TRACE_BASE(kEntry, "handleTemplateReady") << ", templateReady " << templateReady_;
  if (templateReady_) return;  // sending starts from finishMessage
  templatePktMsgLen_ = 0;
  templatePktTemplateCount_ = 0;
  stopPeriodicTemplateTx_();
}

void TemplateExporterSmBase::maybeTxTemplate_() {
  maybeTxTemplate4_();
  maybeTxTemplate6_();
}

void TemplateExporterSmBase::maybeTxTemplate4_() {
  TRACE_BASE(kEntry, "maybeTxTemplate4_");
  bool sent = false;
  if (templateReady_ && hwExpConfig_->exporterReady() && !hwExpConfig_->srcIpAddr().isZero() &&
      expInfo_->udpPam4()) {
    for (const Zub::String& name : hwExpConfig_->collectorIpAndPortColl().keys()) {
      if (!expInfo_->collInfoHas(name) || !hwExpConfig_->collectorIpAndPortHas(name)) continue;
      doTxTemplate4_(hwExpConfig_->collectorIpAndPort(name), name);
      GLINT(exportTrace(), kDiag) << "Template sent to " << name;
      sent = true;
    }
  }
  sending4_ = sent;
  if (!sent) {
    if (sending6_) return;  // the other family keeps the task alive
    stopPeriodicTemplateTx_();
  } else {
    schedulePeriodicTemplateTx_();
  }
}

void TemplateExporterSmBase::maybeTxTemplate6_() {
  TRACE_BASE(kEntry, "maybeTxTemplate6_");
  bool sent = false;
  if (templateReady_ && hwExpConfig_->exporterReady() && !hwExpConfig_->srcIp6Addr().isZero() &&
      expInfo_->udpPam6()) {
    for (const Zub::String& name : hwExpConfig_->collectorIp6AndPortColl().keys()) {
      if (!expInfo_->collInfoHas(name) || !hwExpConfig_->collectorIp6AndPortHas(name)) continue;
      doTxTemplate6_(hwExpConfig_->collectorIp6AndPort(name), name);
      GLINT(exportTrace(), kDiag) << "Template sent to " << name;
      sent = true;
    }
  }
  sending6_ = sent;
  if (!sent) {
    if (sending4_) return;
    stopPeriodicTemplateTx_();
  } else {
    schedulePeriodicTemplateTx_();
  }
}

void TemplateExporterSmBase::doTxTemplate4_(const Nelo::IpAndPort& dst, const Zub::String& name) {
  const Zub::Nanoseconds nowNs = Zub::System::clock().wallNs();
  updateMsgHeader_(name, nowNs);
  TRACE_BASE(kDiag, "doTxTemplate4_")
      << ",  dst ip: " << dst.addr << ", dst port: " << dst.port
      << ", src: " << hwExpConfig_->srcIpAddr() << ", tos :" << hwExpConfig_->dscpValue();
  sendPkt4(templatePkt_, expInfo_->udpPam4(), hwExpConfig_->srcIpAddr(), dst,
           hwExpConfig_->dscpValue());
  updateStats(Stova::Ipfix::CollectorInfo::fromIpAndPort(dst), nowNs);
  delivered4_[name] = {dst, templateGen_};
  ++templateTxCount_;
  updateCollectorOnTx(name);
}

void TemplateExporterSmBase::doTxTemplate6_(const Nelo::Ip6AndPort& dst, const Zub::String& name) {
  const Zub::Nanoseconds nowNs = Zub::System::clock().wallNs();
  updateMsgHeader_(name, nowNs);
  TRACE_BASE(kDiag, "doTxTemplate6_")
      << ",  dst ip: " << dst.addr << ", dst port: " << dst.port
      << ", src: " << hwExpConfig_->srcIp6Addr() << ", tos :" << hwExpConfig_->dscpValue();
  sendPkt6(templatePkt_, expInfo_->udpPam6(), hwExpConfig_->srcIp6Addr(), dst,
           hwExpConfig_->dscpValue());
  updateStats(Stova::Ipfix::CollectorInfo::fromIp6AndPort(dst), nowNs);
  delivered6_[name] = {dst, templateGen_};
  ++templateTxCount_;
  updateCollectorOnTx(name);
}

void TemplateExporterSmBase::updateMsgHeader_(const Zub::String& name, Zub::Nanoseconds nowNs) {
  const auto now = static_cast<uint32_t>(nowNs / 1'000'000'000LL);
  exportTimeU32_[name] = now;
  Nelo::MessageHeader msg(templatePkt_, 0);
  msg.exportTimeIs(now);
  // A template message carries no data record: the sequence number is the collector's
  // count of data records, not advanced here.
  const uint32_t seqNo = expInfo_->collInfo(name)->ipfixMsgSeqNo().value;
  GLINT(exportTrace(), kDiag) << "Collector " << name << " has seqNo " << seqNo;
  msg.sequenceNumberIs(seqNo);
}

void TemplateExporterSmBase::updateStats(const Stova::Ipfix::CollectorInfo& collector,
                                         Zub::Nanoseconds nowNs) {
  if (!collStats_) return;
  const Stova::Ipfix::CollectorStatisticsKey key(collector, name2_, name1_);
  const Zub::Seconds now = Zub::secondsFromNs(nowNs);
  const Stova::Ipfix::SetId setId(headerSetId());
  try {
    collStats_->statsUpdate(key, [&](Stova::Ipfix::CollectorStatisticsEntry& entry) {
      // The set slot first: a tenth distinct set id is refused before anything changed.
      Stova::Ipfix::CollectorSetStatisticsEntry set = entry.setEntry(setId);
      if (!(set.setId == setId)) set = Stova::Ipfix::CollectorSetStatisticsEntry{setId};
      set.exportedTemplateCount += templatePktTemplateCount_;
      entry.setEntryIs(set);
      entry.exportedMessageTotalCount += 1;
      entry.exportedOctetTotalCount += templatePktMsgLen_;
      entry.lastSentTime = now;
      entry.lastTemplateSentTime = now;
      GLINT(exportTrace(), kDiag) << ", stats: " << entry.stovaString();
    });
  } catch (const Zub::RangeException& e) {
    // A full table loses this collector's statistics, not its export.
    GLINT(exportTrace(), Zub::Glint::kError)
        << "statistics of " << key.stovaString() << " not kept: " << e.what();
  }
}

void TemplateExporterSmBase::handleCollectorIpAndPort(const Zub::String& name) {
  TRACE_BASE(kEntry, "handleCollectorIpAndPort") << ", collector " << name;
  if (!hwExpConfig_->collectorIpAndPortHas(name) || !expInfo_->collInfoHas(name)) {
    delivered4_.erase(name);
    return;
  }
  auto last = delivered4_.find(name);
  if (last != delivered4_.end() && last->second.first == hwExpConfig_->collectorIpAndPort(name) &&
      last->second.second == templateGen_) {
    return;  // it has this template already
  }
  if (sending4_) {
    doTxTemplate4_(hwExpConfig_->collectorIpAndPort(name), name);
    schedulePeriodicTemplateTx_();
  } else {
    maybeTxTemplate4_();
  }
}

void TemplateExporterSmBase::handleCollectorIp6AndPort(const Zub::String& name) {
  TRACE_BASE(kEntry, "handleCollectorIp6AndPort") << ", collector " << name;
  if (!hwExpConfig_->collectorIp6AndPortHas(name) || !expInfo_->collInfoHas(name)) {
    delivered6_.erase(name);
    return;
  }
  auto last = delivered6_.find(name);
  if (last != delivered6_.end() && last->second.first == hwExpConfig_->collectorIp6AndPort(name) &&
      last->second.second == templateGen_) {
    return;  // it has this template already
  }
  if (sending6_) {
    doTxTemplate6_(hwExpConfig_->collectorIp6AndPort(name), name);
    schedulePeriodicTemplateTx_();
  } else {
    maybeTxTemplate6_();
  }
}

void TemplateExporterSmBase::schedulePeriodicTemplateTx_() {
  if (!periodicTemplateTxTask_) return;
  if (periodicTemplateTxTask_->scheduled()) {
    GLINT(exportTrace(), kDiag) << "Periodic template Tx task already scheduled";
    return;
  }
  const uint32_t seconds = hwExpConfig_->templateInterval().value() / 1000;
  GLINT(exportTrace(), kDiag) << "Periodic template Tx task scheduled with interval: " << seconds
                              << " seconds";
  periodicTemplateTxTask_->scheduleTaskLowestDelay(std::chrono::seconds(seconds));
}

void TemplateExporterSmBase::stopPeriodicTemplateTx_() {
  if (periodicTemplateTxTask_) periodicTemplateTxTask_->stopTimerTask();
}

void TemplateExporterSmBase::handlePeriodicTemplateTx() {
  if (!periodicTemplateTxTask_->running()) {
    GLINT(exportTrace(), kDiag) << "Returning because periodicTemplateTxTask not running.";
    return;
  }
  TRACE_BASE(kEntry, "handlePeriodicTemplateTx");
  maybeTxTemplate_();
}

void TemplateExporterSmBase::handleTemplateInterval() {
  TRACE_BASE(kEntry, "handleTemplateInterval");
  stopPeriodicTemplateTx_();
  maybeTxTemplate_();
}

}  // namespace FlowTracking
