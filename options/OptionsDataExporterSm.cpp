#include "options/OptionsDataExporterSm.h"

#include "options/Trace.h"
#include "platform/zub/Clock.h"

namespace FlowTracking {

#define TRACE_SM(level, handler) \
  GLINT(optionsTrace(), level) << "OptionsDataExporterSm::" << handler << " for " << traceId_ << " "

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

// ---- Collector ---------------------------------------------------------------------------

Collector::Collector(const Zub::String& name, const Zub::Ptr<CollectorInfo>& info,
                     const Nelo::IpAndPort& dst4, const Nelo::Ip6AndPort& dst6, bool isIpv4,
                     Stova::Ipfix::CollectorStatistics* stats, const Zub::String& ftName,
                     const Zub::String& expName)
    : Entity(name),
      info_(info),
      dst4_(dst4),
      dst6_(dst6),
      isIpv4_(isIpv4),
      stats_(stats),
      ftName_(ftName),
      expName_(expName) {}

namespace {
// What a collector's send says and checks per family.
template <class F>
struct CollectorFamily;
template <>
struct CollectorFamily<Ipv4Family> {
  static constexpr const char* kSrcAssert = "src != IpAddr::ipAddrZero()";
  static constexpr const char* kTx = " TX IPv4 ";
};
template <>
struct CollectorFamily<Ipv6Family> {
  static constexpr const char* kSrcAssert = "!src.isZero()";
  static constexpr const char* kTx = " TX IPv6 ";
};
}  // namespace

template <class F>
size_t Collector::send_(const ExporterInfo& expInfo,
                        const HwFlowTracking::ExporterConfig& hwExpConfig,
                        const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const typename F::Dst& dst) {
  const auto src = F::src(hwExpConfig);
  ZUB_ASSERT_TEXT(!src.isZero(), CollectorFamily<F>::kSrcAssert);
  ZUB_ASSERT_TEXT(F::pam(expInfo), "_pam");
  GLINT(optionsTrace(), kDiag) << "Collector::sendMessage " << name() << CollectorFamily<F>::kTx
                               << src << " => " << dst << " (" << n << " messages)";
  if (optionsTrace().enabled(kDump)) {
    for (size_t i = 0; i < n; ++i) GLINT(optionsTrace(), kDump) << pkts[i]->hexdump();
  }
  const size_t sent = n == 1 ? (F::send(pkts[0], hwExpConfig, expInfo, dst) ? 1 : 0)
                             : F::sendBatch(pkts, n, hwExpConfig, expInfo, dst);
  if (sent < n) {
    const Stova::Ipfix::CollectorStatisticsKey key(F::key(dst), ftName_, expName_);
    const int error = F::pam(expInfo)->lastErrno();
    collectorSendFailed(stats_, key, error, n - sent);
  }
  return sent;
}

void Collector::sendMessage(const ExporterInfo& expInfo,
                            const HwFlowTracking::ExporterConfig& hwExpConfig,
                            const MessageWrapper& msgWrap) {
  // The header carries the data records sent to this collector before this message.
  const uint32_t seqNo = info_->ipfixMsgSeqNo().value;
  info_->ipfixMsgSeqNoInc(msgWrap.recordCount());
  const Zub::Ptr<Nelo::Pkt> pkt = msgWrap.msg()->pkt(seqNo);
  const size_t sent = isIpv4_ ? send_<Ipv4Family>(expInfo, hwExpConfig, &pkt, 1, dst4_)
                              : send_<Ipv6Family>(expInfo, hwExpConfig, &pkt, 1, dst6_);
  if (sent) updateStats(msgWrap);
}

void Collector::sendMessages(const ExporterInfo& expInfo,
                             const HwFlowTracking::ExporterConfig& hwExpConfig,
                             const Zub::LinkQueue<Zub::Ptr<MessageWrapper>>& msgs) {
  constexpr size_t kBatch = 64;
  Zub::Ptr<Nelo::Pkt> pkts[kBatch];
  const MessageWrapper* wraps[kBatch];
  size_t n = 0;
  auto flush = [&] {
    if (n == 0) return;
    const size_t sent = isIpv4_ ? send_<Ipv4Family>(expInfo, hwExpConfig, pkts, n, dst4_)
                                : send_<Ipv6Family>(expInfo, hwExpConfig, pkts, n, dst6_);
    for (size_t i = 0; i < n; ++i) {
      if (i < sent) updateStats(*wraps[i]);  // only what the kernel took counts as exported
      pkts[i] = nullptr;
    }
    n = 0;
  };
  for (const Zub::Ptr<MessageWrapper>& msg : msgs) {
    // Each message is its own packet: stamping it for this collector leaves the others.
    const uint32_t seqNo = info_->ipfixMsgSeqNo().value;
    info_->ipfixMsgSeqNoInc(msg->recordCount());
    pkts[n] = msg->msg()->pkt(seqNo);
    wraps[n++] = msg.get();
    if (n == kBatch) flush();
  }
  flush();
}

void Collector::updateStats(const MessageWrapper& msgWrap) {
  if (!stats_) return;
  const Stova::Ipfix::CollectorStatisticsKey key(
      isIpv4_ ? Ipv4Family::key(dst4_) : Ipv6Family::key(dst6_), ftName_, expName_);
  const Zub::Seconds now = Zub::System::now();
  try {
    stats_->statsUpdate(key, [&](Stova::Ipfix::CollectorStatisticsEntry& entry) {
      // The set slots first: a tenth distinct set id is refused before anything changed.
      for (const SetRecord& rec : msgWrap.setRecord()) {
        const Stova::Ipfix::SetId setId(rec.setId.value());
        Stova::Ipfix::CollectorSetStatisticsEntry set = entry.setEntry(setId);
        if (!(set.setId == setId)) set = Stova::Ipfix::CollectorSetStatisticsEntry{setId};
        set.exportedFlowRecordCount += rec.count;
        entry.setEntryIs(set);
      }
      entry.exportedMessageTotalCount += 1;
      entry.exportedFlowRecordTotalCount += msgWrap.recordCount();
      entry.exportedOctetTotalCount += msgWrap.bytes();
      entry.lastSentTime = now;
      entry.lastOptionsDataSentTime = now;
      GLINT(optionsTrace(), kDiag)
          << "Collector::updateStats " << name() << " stats: " << entry.stovaString();
    });
  } catch (const Zub::RangeException& e) {
    // A full table loses this collector's statistics, not its export.
    GLINT(optionsTrace(), Zub::Glint::kError)
        << "statistics of " << key.stovaString() << " not kept: " << e.what();
    collectorStatsLost(key);
  }
}

// ---- OptionsDataExporterSm ---------------------------------------------------------------

// The exporter's view of each family: its collectors and its texts.
struct OptionsDataExporterSm::V4 : Ipv4Family {
  static constexpr const char* kHandleCollector = "handleCollector4";
  static constexpr const char* kHandleSrc = "handleSrc4";
  static constexpr const char* kStale = "stale v4 collector ";
  static auto& coll(OptionsDataExporterSm& sm) { return sm.collector4_; }
  static const auto& coll(const OptionsDataExporterSm& sm) { return sm.collector4_; }
  static auto& other(OptionsDataExporterSm& sm) { return sm.collector6_; }
};

struct OptionsDataExporterSm::V6 : Ipv6Family {
  static constexpr const char* kHandleCollector = "handleCollector6";
  static constexpr const char* kHandleSrc = "handleSrc6";
  static constexpr const char* kStale = "stale v6 collector ";
  static auto& coll(OptionsDataExporterSm& sm) { return sm.collector6_; }
  static const auto& coll(const OptionsDataExporterSm& sm) { return sm.collector6_; }
  static auto& other(OptionsDataExporterSm& sm) { return sm.collector4_; }
};

OptionsDataExporterSm::OptionsDataExporterSm(
    const Zub::Name& expName, const Zub::Name& ftName, FtId ftId,
    const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
    const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
    const Zub::Ptr<ExporterInfo>& expInfo, Stova::Ipfix::CollectorStatistics* collStats,
    const Zub::Ptr<OptionsDataContainer>& container, Orrin::TaskScheduler& scheduler)
    : expName_(expName),
      ftName_(ftName),
      ftId_(ftId),
      hwFtConfig_(hwFtConfig),
      hwExpConfig_(hwExpConfig),
      expInfo_(expInfo),
      collStats_(collStats),
      container_(container),
      scheduler_(scheduler),
      traceId_(ftName + "-" + expName) {
  watch(hwExpConfig_->ipfixMtuSignal(), [this] { msgCacheValid_ = false; });
  watch(hwExpConfig_->srcIpAddrSignal(), [this] { handleSrc4(); });
  watch(hwExpConfig_->srcIp6AddrSignal(), [this] { handleSrc6(); });
  watch(expInfo_->udpPam4Signal(), [this] { handleSrc4(); });
  watch(expInfo_->udpPam6Signal(), [this] { handleSrc6(); });
  watch(expInfo_->collInfoSignal(), [this](const Zub::String& n) { handleCollInfo_(n); });
  // A collector whose destination changes or goes is served anew or dropped.
  watch(Ipv4Family::collectorSignal(*hwExpConfig_), [this](const Zub::String& n) {
    handleCollector4(n);
    handleCollector6(n);
  });
  watch(Ipv6Family::collectorSignal(*hwExpConfig_), [this](const Zub::String& n) {
    handleCollector4(n);
    handleCollector6(n);
  });
  watch(hwFtConfig_->activeIntervalSignal(), [this] { maybeBeginPeriodicTransmission(); });
  watch(container_->dataSignal(), [this](const OptionsDataScope&) { handleSourceChange(); });
  watch(container_->updateSignal(), [this](const OptionsDataScope& s) { bindUpdate_(s); });
}

void OptionsDataExporterSm::handleInitialized() {
  TRACE_SM(kEntry, "handleInitialized");
  collectorUpdateTask_ =
      new Orrin::Task(scheduler_, "optionsDataExporterCollectorUpdate-" + ftName_ + "-" + expName_,
                      kTaskPriority, [this] {
                        if (taskRunning_(*collectorUpdateTask_, "collectorUpdateTask")) {
                          processCollectorQueue();
                        }
                      });
  updateTask_ = new Orrin::TimerTask(
      scheduler_, "optionsDataExporterUpdate-" + ftName_ + "-" + expName_, kTaskPriority, [this] {
        if (taskRunning_(*updateTask_, "updateTask")) {
          flushUpdateQueue();
        }
      });
  txPeriodicTask_ =
      new Orrin::TimerTask(scheduler_, "optionsDataExporterPeriodicTx-" + ftName_ + "-" + expName_,
                           kTaskPriority, [this] {
                             if (taskRunning_(*txPeriodicTask_, "txPeriodicTask"))
                               maybeBeginPeriodicTransmission();
                           });
  msgCacheValid_ = false;
  watch(container_->flowRecords()->versionSignal(), [this] { sendFlowRecords(); });
  for (const Zub::String& name : expInfo_->collInfoColl().keys()) handleCollInfo_(name);
  // The sources are fixed from here on: only their records change.
  for (const auto& [scope, coll] : container_->dataColl()) {
    auto scoped = scopedDataSourceColl().insert(scope, Zub::make<ScopedDataSource>(scope));
    for (const auto& [name, source] : coll->sourceColl()) {
      scoped->dataSourceEntColl().insert(name, source);
      watch(source->versionSignal(), [this] { msgCacheValid_ = false; });
    }
    watch(coll->sourceSignal(), [this](const Zub::String&) { handleSourceChange(); });
  }
  for (const OptionsDataScope scope : container_->updateColl().keys()) bindUpdate_(scope);
  initialized_ = true;
  if (txReady()) maybeBeginPeriodicTransmission();
}

void OptionsDataExporterSm::handleDestroyed() {
  TRACE_SM(kLife, "handleDestroyed");
  if (collectorUpdateTask_) collectorUpdateTask_->unschedule();
  if (updateTask_) updateTask_->unschedule();
  if (txPeriodicTask_) txPeriodicTask_->unschedule();
}

bool OptionsDataExporterSm::taskRunning_(const Orrin::Task& task, const char* taskName) const {
  if (task.running()) return true;
  TRACE_SM(kDiag, taskName) << "Returning because " << taskName << " not running.";
  return false;
}

uint16_t OptionsDataExporterSm::maxMsgSize_() const {
  return static_cast<uint16_t>(hwExpConfig_->ipfixMaxMsgSize());
}

void OptionsDataExporterSm::bindUpdate_(OptionsDataScope scope) {
  updateSubs_.erase(scope);
  updateDataEntDel(scope);
  auto upd = container_->update(scope);
  if (!upd) return;
  updateDataEntColl().insert(scope, upd);
  watch(updateSubs_, scope, upd->versionSignal(), [this, scope] { handleUpdateData(scope); });
}

void OptionsDataExporterSm::handleCollInfo_(const Zub::String& name) {
  collInfoSubs_.erase(name);
  collInfoDel(name);
  if (auto info = expInfo_->collInfo(name)) {
    collInfoColl().insert(name, info);
    watch(collInfoSubs_, name, info->optTemplateSentSignal(), [this, name] {
      handleCollector4(name);
      handleCollector6(name);
    });
  }
  handleCollector4(name);
  handleCollector6(name);
}

template <class F>
bool OptionsDataExporterSm::ready_() const {
  return F::pam(*expInfo_) && F::hasSource(*hwExpConfig_) && !F::coll(*this).empty();
}

bool OptionsDataExporterSm::v4Ready() const { return ready_<V4>(); }
bool OptionsDataExporterSm::v6Ready() const { return ready_<V6>(); }

void OptionsDataExporterSm::maybeSchedulePeriodic() {
  if (!txPeriodicTask_) return;
  if (!txReady()) {
    txPeriodicTask_->stopTimerTask();
    TRACE_SM(kDiag, "maybeSchedulePeriodic") << "unschedule periodic transmission";
    return;
  }
  const Zub::Seconds interval = hwFtConfig_->activeInterval().seconds();
  TRACE_SM(kDiag, "maybeSchedulePeriodic") << "schedule periodic transmission " << interval;
  txPeriodicTask_->scheduleTaskLowestDelay(std::chrono::seconds(static_cast<int64_t>(interval)));
}

void OptionsDataExporterSm::maybeBeginPeriodicTransmission() {
  if (processing_) {
    TRACE_SM(kDiag, "maybeBeginPeriodicTransmission")
        << "processing, do not start new periodic transmission";
    return;
  }
  if (!v4Ready() && !v6Ready()) {
    TRACE_SM(kDiag, "maybeBeginPeriodicTransmission")
        << "tx not ready, do not start new periodic transmission";
    maybeSchedulePeriodic();
    return;
  }
  TRACE_SM(kDiag, "maybeBeginPeriodicTransmission") << "starting new periodic transmission";
  maybeBuildMsgCache();
  abortUpdates();  // a full transmission supersedes every pending update
  processing_ = true;
  sendDataTables();
}

namespace {
constexpr int kPrefetchAhead = 32;
}

void OptionsDataExporterSm::maybeBuildMsgCache() {
  ZUB_ASSERT_TEXT(initialized_, "initialized()");
  ZUB_ASSERT_TEXT(!processing_, "!processing()");
  if (msgCacheValid_) return;
  Zub::LinkQueue<Zub::Ptr<MessageWrapper>> old;
  std::swap(old, msgCache_);
  ++msgCacheBuildCount_;
  BuilderWrapper b(maxMsgSize_(), ftId_.value());
  b.recycleFrom(&old);
  b.startMsg();
  for (const auto& [scope, scoped] : scopedDataSourceColl()) {
    for (const auto& [name, source] : scoped->dataSourceEntColl()) {
      uint32_t n = 0;
      const auto& records = source->dataRecordColl();
      // Records live wherever they were allocated: fetching a few ahead keeps the walk
      // from waiting on memory for each one.
      auto ahead = records.begin();
      for (int i = 0; i < kPrefetchAhead && ahead != records.end(); ++i) ++ahead;
      for (const Zub::Ptr<const DataRecord>& record : records) {
        if (ahead != records.end()) __builtin_prefetch((ahead++)->get());
        if (b.addSetRecord(source->dataSetId(), record) == 0) {
          // Full: the next message. (A record too large for an empty one is fatal.)
          if (b.hasRecords()) {
            msgCache_.enq(b.finalizeMsg());
            b.startMsg();
          }
          const uint32_t consumed = b.addSetRecord(source->dataSetId(), record);
          ZUB_ASSERT_TEXT(consumed > 0, "consumed > 0");
        }
        ++n;
      }
      TRACE_SM(kDiag, "maybeBuildMsgCache")
          << "added " << n << " records from " << name << ", setId: " << source->dataSetId();
    }
  }
  if (b.hasRecords()) msgCache_.enq(b.finalizeMsg());
  msgCacheValid_ = true;
  TRACE_SM(kDiag, "maybeBuildMsgCache")
      << "msgCacheValid: " << msgCacheValid_ << ", entries: " << msgCache_.size();
}

void OptionsDataExporterSm::sendDataTables() {
  if (!msgCacheValid_ || !processing_) return;
  TRACE_SM(kDiag, "sendDataTables") << "msgCache count: " << msgCache_.size();
  // Collector by collector, every cached message in queue order: each collector's
  // messages go out in batches.
  forEachReadyCollector_(
      "sendDataTables", [&](Collector& c) { c.sendMessages(*expInfo_, *hwExpConfig_, msgCache_); });
  processing_ = false;
  maybeSchedulePeriodic();
}

// The data path's records, now, in as few messages as fit: to the collectors that have
// their templates (the ready ones); a collector without them yet misses these records.
void OptionsDataExporterSm::sendFlowRecords() {
  const auto& records = container_->flowRecords()->records();
  TRACE_SM(kEntry, "sendFlowRecords") << "records: " << records.size();
  if (records.empty() || !txReady()) return;
  BuilderWrapper b(maxMsgSize_(), ftId_.value());
  b.startMsg();
  for (const FlowRecords::Record& r : records.list()) {
    const std::string_view record = records.bytes(r);
    if (b.addSetRecord(r.setId, record) > 0) continue;
    if (b.hasRecords()) {
      sendMessageToCollectors(*b.finalizeMsg());
      b.startMsg();
    }
    if (b.addSetRecord(r.setId, record) == 0) {
      // Larger than a message of this exporter's MTU can carry: cannot be sent.
      TRACE_SM(0, "sendFlowRecords")
          << "a record of " << record.size() << " bytes exceeds the message size " << maxMsgSize_();
    }
  }
  if (b.hasRecords()) sendMessageToCollectors(*b.finalizeMsg());
}

void OptionsDataExporterSm::sendMessageToCollectors(const MessageWrapper& msg) {
  forEachReadyCollector_("sendMessageToCollectors",
                         [&](Collector& c) { c.sendMessage(*expInfo_, *hwExpConfig_, msg); });
}

// Every collector of a family whose source is ready, IPv4 first.
template <class F>
void OptionsDataExporterSm::forEachReadyCollector_(const char* handler, F&& fn) {
  TRACE_SM(kDiag, handler) << "collectors: " << collectorSize() << " (IPv4: " << collector4Size()
                           << ", IPv6: " << collector6Size() << ")";
  auto each = [&](auto& coll) {
    for (const Zub::String& name : coll.keys()) {
      if (auto c = coll.get(name)) fn(*c);
    }
  };
  if (v4Ready()) each(collector4Coll());
  if (v6Ready()) each(collector6Coll());
}

void OptionsDataExporterSm::handleSrc4() { handleSrc_<V4>(); }
void OptionsDataExporterSm::handleSrc6() { handleSrc_<V6>(); }

template <class F>
void OptionsDataExporterSm::handleSrc_() {
  TRACE_SM(kEntry, F::kHandleSrc) << "src: " << F::src(*hwExpConfig_);
  if (!ready_<F>()) {
    maybeSchedulePeriodic();
    return;
  }
  for (const Zub::String& name : F::coll(*this).keys()) handleCollector(name);
  maybeSchedulePeriodic();
}

void OptionsDataExporterSm::handleCollector4(const Zub::String& name) {
  handleCollector_<V4>(name);
}
void OptionsDataExporterSm::handleCollector6(const Zub::String& name) {
  handleCollector_<V6>(name);
}

Zub::Ptr<Collector> OptionsDataExporterSm::makeCollector_(const Zub::String& name,
                                                          const Zub::Ptr<CollectorInfo>& info,
                                                          bool isIpv4) const {
  return Zub::make<Collector>(name, info, hwExpConfig_->collectorIpAndPort(name),
                              hwExpConfig_->collectorIp6AndPort(name), isIpv4, collStats_, ftName_,
                              expName_);
}

template <class F>
void OptionsDataExporterSm::handleCollector_(const Zub::String& name) {
  auto info = expInfo_->collInfo(name);
  const typename F::Dst* dst = F::collectors(*hwExpConfig_).find(name);
  TRACE_SM(kEntry, F::kHandleCollector) << "collector " << name << ", collInfo: " << bool(info)
                                        << ", dst: " << (dst ? dst->stringValue() : "none")
                                        << ", templateSent: " << (info && info->optTemplateSent());
  if (info && dst && !dst->addr.isZero() && info->optTemplateSent()) {
    auto existing = F::coll(*this).get(name);
    if (existing && existing->info() == info &&
        existing->dst4() == hwExpConfig_->collectorIpAndPort(name) &&
        existing->dst6() == hwExpConfig_->collectorIp6AndPort(name)) {
      return;
    }
    collector4Del(name);
    collector6Del(name);
    auto c = makeCollector_(name, info, F::kIpv4);
    F::coll(*this).insert(name, c);
    collectorColl().insert(name, c);
    handleCollector(name);
    return;
  }
  if (!F::coll(*this).has(name)) return;
  TRACE_SM(kState, F::kHandleCollector) << F::kStale << name;
  F::coll(*this).del(name);
  if (!F::other(*this).has(name)) collectorDel(name);
}

void OptionsDataExporterSm::handleCollector(const Zub::String& name) {
  if (!initialized_) return;
  collectorUpdate_.insert(name);
  collectorUpdateTask_->schedule();
}

void OptionsDataExporterSm::processCollectorQueue() {
  if (!initialized_) return;
  for (const Zub::String& name : collectorUpdate_) {
    TRACE_SM(kDiag, "processCollectorQueue")
        << "name: " << name << ", exists: " << collectorHas(name);
    auto sendAlone = [&](const Zub::Ptr<Collector>& c, bool ready) {
      if (!c || !ready) return;
      maybeBuildMsgCache();
      c->sendMessages(*expInfo_, *hwExpConfig_, msgCache_);
    };
    sendAlone(collector4(name), v4Ready());
    sendAlone(collector6(name), v6Ready());
  }
  collectorUpdate_.clear();
  maybeSchedulePeriodic();
}

void OptionsDataExporterSm::handleUpdateData(OptionsDataScope scope) {
  ZUB_ASSERT_TEXT(initialized_, "initialized()");
  auto upd = container_->update(scope);
  if (!upd) return;
  const auto& [setId, record] = upd->update();
  if (record) {
    // The first update of a burst fixes when the burst goes out at the latest.
    if (updateQueueBytes_ == 0) flushDeadline_ = scheduler_.now() + coalesceNs_();
    updateQueueBytes_ += static_cast<uint32_t>(record->dataLen());
    update_.try_emplace(setId, setId).first->second.recordEnq(record);
  }
  const uint32_t limit = maxMsgSize_();
  const uint32_t header = MessageBuilder::calcOverhead(static_cast<uint32_t>(update_.size()));
  if (header + updateQueueBytes_ < limit) {
    TRACE_SM(kDiag, "handleUpdateData") << "coalescing, updateQueueBytes: " << updateQueueBytes_;
    scheduleFlushAtDeadline_();
  } else {
    TRACE_SM(kDiag, "handleUpdateData")
        << "schedule immediate, updateQueueBytes: " << updateQueueBytes_ << ", hdrLen: " << header
        << ", IPFIX max msg size: " << limit;
    updateTask_->schedule();
  }
}

Zub::Nanoseconds OptionsDataExporterSm::coalesceNs_() const {
  return Zub::nsFromSeconds(updateDataCoalesceTime_);
}

void OptionsDataExporterSm::scheduleFlushAtDeadline_() {
  const Zub::Nanoseconds left = std::max<Zub::Nanoseconds>(0, flushDeadline_ - scheduler_.now());
  updateTask_->scheduleTaskLowestDelay(std::chrono::nanoseconds(left));
}

// Sends the queued updates. Before the burst's deadline only full messages go: a flush
// that the message limit triggered sends what fills messages and leaves the rest queued
// for the deadline, so a long burst costs one message per message's worth of records,
// plus one.
void OptionsDataExporterSm::flushUpdateQueue() {
  if (updateQueueBytes_ == 0) return;
  const uint32_t limit = maxMsgSize_();
  const bool due = scheduler_.now() >= flushDeadline_;
  auto fullMessageQueued = [&] {
    return MessageBuilder::calcOverhead(static_cast<uint32_t>(update_.size())) +
               updateQueueBytes_ >=
           limit;
  };
  if (!due && !fullMessageQueued()) {
    scheduleFlushAtDeadline_();
    return;
  }
  BuilderWrapper b(maxMsgSize_(), ftId_.value());
  b.startMsg();
  bool yielded = false, waiting = false;
  for (auto it = update_.begin(); it != update_.end() && !yielded && !waiting;) {
    UpdateSetQueue& queue = it->second;
    while (!queue.record().empty()) {
      const Zub::Ptr<const DataRecord> record = queue.record().front();
      uint32_t consumed = b.addSetRecord(queue.setId(), record);
      if (consumed == 0) {
        if (b.hasRecords()) {
          sendMessageToCollectors(*b.finalizeMsg());
          b.startMsg();
        }
        if (!due && !fullMessageQueued()) {
          waiting = true;  // the rest goes at the deadline
          break;
        }
        consumed = b.addSetRecord(queue.setId(), record);
        ZUB_ASSERT_TEXT(consumed > 0, "consumed > 0");
      }
      updateQueueBytes_ -= consumed;
      queue.recordDeq();
      if (scheduler_.shouldYield()) {
        yielded = true;  // the rest stays queued for the next run
        break;
      }
    }
    it = queue.record().empty() ? update_.erase(it) : std::next(it);
  }
  if (b.hasRecords()) sendMessageToCollectors(*b.finalizeMsg());
  TRACE_SM(kDiag, "flushUpdateQueue") << "updateQueueBytes: " << updateQueueBytes_;
  if (updateQueueBytes_ == 0) return;
  if (yielded) {
    updateTask_->schedule();
  } else {
    scheduleFlushAtDeadline_();
  }
}

void OptionsDataExporterSm::abortUpdates() {
  TRACE_SM(kDiag, "abortUpdates") << "queue bytes: " << updateQueueBytes_;
  if (updateTask_) updateTask_->stopTimerTask();
  update_.clear();
  updateQueueBytes_ = 0;
}

void OptionsDataExporterSm::handleSourceChange() {
  if (!initialized_) return;
  ZUB_FATAL("data source changed after init!");
}

}  // namespace FlowTracking
