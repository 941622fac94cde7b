#include "export/TemplateSmBase.h"

#include <algorithm>

#include "export/ExportFamily.h"
#include "export/Trace.h"
#include "platform/nelo/IpfixHeaders.h"
#include "platform/zub/Clock.h"

namespace FlowTracking {

namespace {
uint32_t nowU32() { return static_cast<uint32_t>(Zub::System::clock().wallNs() / 1'000'000'000LL); }
}  // namespace

// Every trace line of the base: "TemplateExporterSmBase::<handler> for <trace id>" and
// then what happened.
#define TRACE_BASE(level, handler) \
  GLINT(exportTrace(), level) << "TemplateExporterSmBase::" << handler << " for " << traceId_

// The base's view of each family: its own state and its handler names.
struct TemplateExporterSmBase::V4 : Ipv4Family {
  static constexpr const char* kMaybeTx = "maybeTxTemplate4_";
  static constexpr const char* kDoTx = "doTxTemplate4_";
  static constexpr const char* kHandleCollector = "handleCollectorIpAndPort";
  static FamilyState<Dst>& state(TemplateExporterSmBase& b) { return b.v4_; }
  static bool otherSending(const TemplateExporterSmBase& b) { return b.v6_.sending; }
};

struct TemplateExporterSmBase::V6 : Ipv6Family {
  static constexpr const char* kMaybeTx = "maybeTxTemplate6_";
  static constexpr const char* kDoTx = "doTxTemplate6_";
  static constexpr const char* kHandleCollector = "handleCollectorIp6AndPort";
  static FamilyState<Dst>& state(TemplateExporterSmBase& b) { return b.v6_; }
  static bool otherSending(const TemplateExporterSmBase& b) { return b.v4_.sending; }
};

TemplateExporterSmBase::TemplateExporterSmBase(
    const Zub::Name& ftName, const Zub::Name& expName, FtId ftId,
    const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Zub::Ptr<ExporterInfo>& expInfo, Stova::Ipfix::CollectorStatistics* collStats,
    Orrin::TaskScheduler& scheduler)
    : ftName_(ftName),
      expName_(expName),
      ftId_(ftId),
      hwExpConfig_(hwExpConfig),
      expInfo_(expInfo),
      collStats_(collStats),
      scheduler_(scheduler),
      traceId_(ftName + "-" + expName) {
  watch(hwExpConfig_->srcIpAddrSignal(), [this] { maybeTxTemplate4_(); });
  watch(expInfo_->udpPam4Signal(), [this] { maybeTxTemplate4_(); });
  watch(hwExpConfig_->srcIp6AddrSignal(), [this] { maybeTxTemplate6_(); });
  watch(expInfo_->udpPam6Signal(), [this] { maybeTxTemplate6_(); });
  watch(hwExpConfig_->exporterReadySignal(), [this] { maybeTxTemplate_(); });
  watch(hwExpConfig_->templateIntervalSignal(), [this] { handleTemplateInterval(); });
  watch(Ipv4Family::collectorSignal(*hwExpConfig_),
        [this](const Zub::String& n) { handleCollectorIpAndPort(n); });
  watch(Ipv6Family::collectorSignal(*hwExpConfig_),
        [this](const Zub::String& n) { handleCollectorIp6AndPort(n); });
  watch(expInfo_->collInfoSignal(), [this](const Zub::String& n) {
    handleCollectorIpAndPort(n);
    handleCollectorIp6AndPort(n);
  });
}

// The base's own versions abort: each derived class must override them. The texts are
// the ones operators' crash reports have always carried for this failure.
Zub::String TemplateExporterSmBase::taskPrefix() const { ZUB_FATAL("(!(\"taskPrefix\"))"); }
uint16_t TemplateExporterSmBase::headerSetId() const { ZUB_FATAL("(!(\"headerSetId\"))"); }
uint32_t TemplateExporterSmBase::getTemplateLength() const {
  ZUB_FATAL("(!(\"getTemplateLength\"))");
}
void TemplateExporterSmBase::handleTemplateCreationTask() {
  ZUB_FATAL("(!(\"handleTemplateCreationTask\"))");
}
void TemplateExporterSmBase::updateCollectorOnTx(CollectorChannel&) {}

uint32_t TemplateExporterSmBase::addTemplateFieldSpecifier(
    const Zub::Ptr<Nelo::Pkt>& pkt, uint32_t offset, const HwFlowTracking::FtTemplateEntry& entry) {
  const auto elementId = static_cast<uint16_t>(entry.fieldId());
  const bool enterprise = entry.enterpriseIe();
  const uint32_t len = enterprise ? sizeof(Nelo::Wire::EnterpriseFieldSpecifier)
                                  : sizeof(Nelo::Wire::FieldSpecifier);
  uint8_t* p = pkt->at(offset, len);  // the packet was sized for every specifier
  Nelo::NetU16::write(p, enterprise
                             ? static_cast<uint16_t>(elementId | Nelo::IpfixConst::enterpriseBit())
                             : elementId);
  Nelo::NetU16::write(p + 2, static_cast<uint16_t>(entry.fieldLen()));
  if (enterprise) Nelo::NetU32::write(p + 4, Ipfix::privateEnterpriseNumber());
  return len;
}

void TemplateExporterSmBase::periodicTemplateTxTaskIs(Orrin::TaskScheduler& scheduler, int priority,
                                                      const Zub::String& name) {
  periodicTemplateTxTask_ =
      new Orrin::TimerTask(scheduler, name, priority, [this] { handlePeriodicTemplateTx(); });
}

void TemplateExporterSmBase::periodicTemplateTxTaskDel() {
  if (periodicTemplateTxTask_) periodicTemplateTxTask_->stopTimerTask();
  periodicTemplateTxTask_ = nullptr;
}

void TemplateExporterSmBase::templateCreationTaskIs(Orrin::TaskScheduler& scheduler, int priority,
                                                    const Zub::String& name) {
  templateCreationTask_ =
      new Orrin::Task(scheduler, name, priority, [this] { runTemplateCreationTask_(); });
}

void TemplateExporterSmBase::templateCreationTaskDel() {
  if (templateCreationTask_) templateCreationTask_->unschedule();
  templateCreationTask_ = nullptr;
}

void TemplateExporterSmBase::handleStartup() {
  TRACE_BASE(kEntry, "handleStartup");
  templateReady_ = false;
  templateTxCount_ = 0;
  periodicTemplateTxTaskIs(scheduler_, kTaskPriority,
                           taskPrefix() + "-" + "PeriodicTxTask" + "-" + expName_ + "-" + ftName_);
  templateCreationTaskIs(
      scheduler_, kTaskPriority,
      taskPrefix() + "-" + "TemplateCreationTask" + "-" + ftName_ + "-" + expName_);
}

void TemplateExporterSmBase::handleDestroyed() {
  TRACE_BASE(kLife, "handleDestroyed");
  templateCreationTaskDel();
  periodicTemplateTxTaskDel();
  dropStaleStats_(false);  // the exporter (or its tracker) is gone: so are its rows
}

// Deletes the statistics rows of this exporter whose collector is no longer one of its
// destinations (all of them when `keepLive` is false), so that rows of collectors that
// left never pile up until the table is full. Rows that record a clearing stay.
void TemplateExporterSmBase::dropStaleStats_(bool keepLive) {
  if (!collStats_) return;
  std::vector<Stova::Ipfix::CollectorInfo> live;
  if (keepLive) {
    for (const auto& [name, dst] : hwExpConfig_->collectorIpAndPortColl()) {
      live.push_back(Ipv4Family::key(dst));
    }
    for (const auto& [name, dst] : hwExpConfig_->collectorIp6AndPortColl()) {
      live.push_back(Ipv6Family::key(dst));
    }
  }
  for (const auto& e : collStats_->statsAll()) {
    if (!e.key.collector || e.key.tracker() != ftName_ || e.key.exporter() != expName_) continue;
    if (std::find(live.begin(), live.end(), e.key.collector) == live.end()) {
      collStats_->statsDel(e.key);
    }
  }
}

void TemplateExporterSmBase::scheduleTemplateCreation() {
  if (templateCreationTask_) templateCreationTask_->schedule();
}

// The first check of each task handler: only the run the scheduler started counts.
bool TemplateExporterSmBase::taskRunning_(const Orrin::Task& task, const char* handler,
                                          const char* taskName) const {
  if (!task.running()) {
    TRACE_BASE(kDiag, handler) << " Returning because " << taskName << " not running.";
    return false;
  }
  TRACE_BASE(kEntry, handler);
  return true;
}

void TemplateExporterSmBase::runTemplateCreationTask_() {
  if (!taskRunning_(*templateCreationTask_, "handleTemplateCreationTask", "templateCreationTask")) {
    return;
  }
  handleTemplateCreationTask();
}

Zub::Ptr<Nelo::Pkt> TemplateExporterSmBase::getPkt(size_t recordBytes) {
  return Nelo::globalPktManager().newPkt(recordBytes, kHeaderBytes);
}

namespace {
// Writes the IPFIX message header (16 bytes) at the front of `pkt`.
void writeMessageHeader(const Zub::Ptr<Nelo::Pkt>& pkt, size_t bytes, FtId ftId) {
  Nelo::MessageHeader msg(pkt, 0);
  msg.versionIs(Nelo::IpfixConst::version());
  msg.lengthIs(static_cast<uint16_t>(bytes));
  msg.exportTimeIs(nowU32());
  msg.sequenceNumberIs(0);
  msg.observationDomainIdIs(ftId.value());
}
}  // namespace

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
  const size_t headers = writesOwnSets() ? Nelo::IpfixConst::messageHeaderLen() : kHeaderBytes;
  templatePkt_->prepend(headers);
  if (!writesOwnSets()) {
    Nelo::SetHeader set(templatePkt_, Nelo::IpfixConst::messageHeaderLen());
    set.setIdIs(static_cast<uint8_t>(headerSetId()));
    set.lengthIs(static_cast<uint16_t>(recordBytes + Nelo::IpfixConst::setHeaderLen()));
  }
  writeMessageHeader(templatePkt_, recordBytes + headers, ftId_);
  if (exportTrace().enabled(kDump)) {
    TRACE_BASE(kDump, "addIpfixHeaders_") << " Template pkt->hexdump: \n"
                                          << templatePkt_->hexdump();
  }
  templatePktMsgLen_ = static_cast<uint16_t>(recordBytes + headers);
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

void TemplateExporterSmBase::maybeTxTemplate4_() { maybeTx_<V4>(); }
void TemplateExporterSmBase::maybeTxTemplate6_() { maybeTx_<V6>(); }
void TemplateExporterSmBase::handleCollectorIpAndPort(const Zub::String& name) {
  handleCollector_<V4>(name);
}
void TemplateExporterSmBase::handleCollectorIp6AndPort(const Zub::String& name) {
  handleCollector_<V6>(name);
}

// A full pass over one family: every configured collector whose channel can send gets
// the packet.
template <class F>
void TemplateExporterSmBase::maybeTx_() {
  TRACE_BASE(kEntry, F::kMaybeTx);
  auto& st = F::state(*this);
  st.served.clear();
  bool sent = false;
  if (templateReady_ && hwExpConfig_->exporterReady()) {
    for (const Zub::String& name : F::collectors(*hwExpConfig_).keys()) {
      const typename F::Dst* dst = F::collectors(*hwExpConfig_).find(name);
      const auto info = expInfo_->collInfo(name);
      if (!dst || !info || !info->channel(F::kIpv4)->ready()) continue;
      doTx_<F>(typename F::Dst(*dst), *info->channel(F::kIpv4));
      TRACE_BASE(kDiag, F::kMaybeTx) << " Template sent to " << name;
      sent = true;
    }
  }
  st.sending = sent;
  if (!sent) {
    if (F::otherSending(*this)) return;  // the other family keeps the task alive
    stopPeriodicTemplateTx_();
  } else {
    schedulePeriodicTemplateTx_();
  }
}

template <class F>
void TemplateExporterSmBase::doTx_(const typename F::Dst& dst, CollectorChannel& channel) {
  const Zub::Nanoseconds nowNs = Zub::System::clock().wallNs();
  exportTimeU32_[channel.name()] = static_cast<uint32_t>(nowNs / 1'000'000'000LL);
  TRACE_BASE(kDiag, F::kDoTx) << ",  dst ip: " << dst.addr << ", dst port: " << dst.port
                              << ", src: " << F::src(*hwExpConfig_)
                              << ", tos :" << hwExpConfig_->dscpValue()
                              << ", seqNo: " << channel.ipfixMsgSeqNo();
  const bool taken =
      channel.sendTemplates(templatePkt_, headerSetId(), templatePktTemplateCount_, nowNs);
  F::state(*this).served[channel.name()] = dst;
  ++templateTxCount_;
  if (taken) updateCollectorOnTx(channel);
}

// One collector of a family was configured, changed, removed, or got or lost its
// collector information.
template <class F>
void TemplateExporterSmBase::handleCollector_(const Zub::String& name) {
  TRACE_BASE(kEntry, F::kHandleCollector) << ", collector " << name;
  auto& st = F::state(*this);
  const typename F::Dst* dst = F::collectors(*hwExpConfig_).find(name);
  if (!dst || !expInfo_->collInfoHas(name)) {
    // Removed, or its information has not arrived yet: nothing is sent and the family's
    // state stays; it is sent to when it comes back complete.
    if (st.served.erase(name) && !dst) dropStaleStats_(true);
    return;
  }
  auto served = st.served.find(name);
  if (served != st.served.end() && served->second == *dst) return;  // it has the packet
  if (served != st.served.end()) dropStaleStats_(true);             // it moved: the old row goes
  if (st.sending) {
    const auto& channel = expInfo_->collInfo(name)->channel(F::kIpv4);
    if (channel->ready() && templateReady_ && hwExpConfig_->exporterReady()) {
      doTx_<F>(typename F::Dst(*dst), *channel);
      schedulePeriodicTemplateTx_();
    }
  } else {
    maybeTx_<F>();
  }
}

void TemplateExporterSmBase::schedulePeriodicTemplateTx_() {
  if (!periodicTemplateTxTask_) return;
  if (periodicTemplateTxTask_->scheduled()) {
    TRACE_BASE(kDiag, "schedulePeriodicTemplateTx_")
        << " Periodic template Tx task already scheduled";
    return;
  }
  const uint32_t seconds = hwExpConfig_->templateInterval().value() / 1000;
  TRACE_BASE(kDiag, "schedulePeriodicTemplateTx_")
      << " Periodic template Tx task scheduled with interval: " << seconds << " seconds";
  periodicTemplateTxTask_->scheduleTaskLowestDelay(std::chrono::seconds(seconds));
}

void TemplateExporterSmBase::stopPeriodicTemplateTx_() {
  if (periodicTemplateTxTask_) periodicTemplateTxTask_->stopTimerTask();
}

void TemplateExporterSmBase::handlePeriodicTemplateTx() {
  if (!taskRunning_(*periodicTemplateTxTask_, "handlePeriodicTemplateTx",
                    "periodicTemplateTxTask")) {
    return;
  }
  maybeTxTemplate_();
}

void TemplateExporterSmBase::handleTemplateInterval() {
  TRACE_BASE(kEntry, "handleTemplateInterval");
  stopPeriodicTemplateTx_();
  maybeTxTemplate_();
}

}  // namespace FlowTracking
