#include "options/OptionsDataExporterSm.h"

#include "export/Trace.h"
#include "platform/zub/Clock.h"

namespace FlowTracking {

#define TRACE_SM(level, handler) \
  GLINT(optionsTrace(), level) << "OptionsDataExporterSm::" << handler << " for " << traceId_ << " "

// ---- OptionsDataExporterSm ---------------------------------------------------------------

// The exporter's view of each family: its collectors and its texts.
struct OptionsDataExporterSm::V4 : Ipv4Family {
  static constexpr int kIndex = 0;
  static constexpr const char* kHandleCollector = "handleCollector4";
  static constexpr const char* kHandleSrc = "handleSrc4";
  static constexpr const char* kStale = "stale v4 collector ";
  static auto& coll(OptionsDataExporterSm& sm) { return sm.collector4_; }
  static const auto& coll(const OptionsDataExporterSm& sm) { return sm.collector4_; }
  static auto& other(OptionsDataExporterSm& sm) { return sm.collector6_; }
};

struct OptionsDataExporterSm::V6 : Ipv6Family {
  static constexpr int kIndex = 1;
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
    const Zub::Ptr<ExporterInfo>& expInfo, const Zub::Ptr<OptionsDataContainer>& container,
    Orrin::TaskScheduler& scheduler)
    : expName_(expName),
      ftName_(ftName),
      ftId_(ftId),
      hwFtConfig_(hwFtConfig),
      hwExpConfig_(hwExpConfig),
      expInfo_(expInfo),
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
  // A new period starts with a full transmission, at the end of this turn of the loop:
  // the other values a reload changes are in place by then.
  watch(hwFtConfig_->activeIntervalSignal(), [this] {
    if (txPeriodicTask_) txPeriodicTask_->scheduleTaskLowestDelay(std::chrono::nanoseconds(0));
  });
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
    watch(collInfoSubs_, name, info->channel4()->optTemplateDstSignal(),
          [this, name] { handleCollector4(name); });
    watch(collInfoSubs_, name, info->channel6()->optTemplateDstSignal(),
          [this, name] { handleCollector6(name); });
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
    for (const auto& [name, entry] : scoped->dataSourceEntColl()) {
      // Named: clang before 16 cannot capture a structured binding in a lambda.
      const Zub::Ptr<OptionsDataSource>& source = entry;
      uint32_t n = 0;
      // Each record of `bytes` goes into the current message, or the next one.
      auto add = [&](auto bytes) {
        if (b.addSetRecord(source->dataSetId(), bytes) == 0) {
          // Full: the next message. (A record too large for an empty one is fatal.)
          if (b.hasRecords()) {
            msgCache_.enq(b.finalizeMsg());
            b.startMsg();
          }
          const uint32_t consumed = b.addSetRecord(source->dataSetId(), bytes);
          ZUB_ASSERT_TEXT(consumed > 0, "consumed > 0");
        }
        ++n;
      };
      if (const auto& base = source->rowsOf()) {
        // Another table's rows at a fixed length, made here: they take no memory of their
        // own.
        char row[FixedNameRow::kBytes];
        for (const Zub::Ptr<const DataRecord>& record : base->dataRecordColl()) {
          FixedNameRow::write(record->data(), row);
          add(std::string_view(row, sizeof row));
        }
        continue;
      }
      const auto& records = source->dataRecordColl();
      // Records live wherever they were allocated: fetching a few ahead keeps the walk
      // from waiting on memory for each one.
      auto ahead = records.begin();
      for (int i = 0; i < kPrefetchAhead && ahead != records.end(); ++i) ++ahead;
      for (const Zub::Ptr<const DataRecord>& record : records) {
        if (ahead != records.end()) __builtin_prefetch((ahead++)->get());
        add(record);
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
  forEachReadyCollector_("sendDataTables",
                         [&](CollectorChannel& c) { c.send(msgCache_, SetKind::optionsData); });
  processing_ = false;
  maybeSchedulePeriodic();
}

void OptionsDataExporterSm::sendMessageToCollectors(const MessageWrapper& msg) {
  forEachReadyCollector_("sendMessageToCollectors",
                         [&](CollectorChannel& c) { c.send(msg, SetKind::optionsData); });
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

template <class F>
void OptionsDataExporterSm::handleCollector_(const Zub::String& name) {
  auto info = expInfo_->collInfo(name);
  const Zub::Ptr<CollectorChannel> channel = info ? info->channel(F::kIpv4) : nullptr;
  TRACE_SM(kEntry, F::kHandleCollector)
      << "collector " << name << ", collInfo: " << bool(info)
      << ", dst: " << (channel && channel->hasDst() ? channel->dst().stringValue() : "none")
      << ", templateSent: " << (channel && channel->optTemplateSent());
  auto& served = served_[F::kIndex];
  if (channel && channel->optTemplateSent()) {
    auto it = served.find(name);
    if (F::coll(*this).get(name) == channel && it != served.end() && it->second == channel->dst()) {
      return;  // served at this destination already
    }
    served[name] = channel->dst();
    F::coll(*this).insert(name, channel);
    collectorColl().insert(name, channel);
    handleCollector(name);
    return;
  }
  if (!F::coll(*this).has(name)) return;
  TRACE_SM(kState, F::kHandleCollector) << F::kStale << name;
  F::coll(*this).del(name);
  served.erase(name);
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
    auto sendAlone = [&](const Zub::Ptr<CollectorChannel>& c, bool ready) {
      if (!c || !ready) return;
      maybeBuildMsgCache();
      c->send(msgCache_, SetKind::optionsData);
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
  if (upd->urgent()) {
    // Sent now, with everything queued before it.
    TRACE_SM(kDiag, "handleUpdateData") << "urgent, updateQueueBytes: " << updateQueueBytes_;
    flushDeadline_ = scheduler_.now();
    flushUpdateQueue(true);
    return;
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
void OptionsDataExporterSm::flushUpdateQueue(bool urgent) {
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
      if (!urgent && scheduler_.shouldYield()) {
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
