#pragma once
// OptionsDataExporterSm sends one exporter's options data: the records of every source
// in its tracker's container, to every collector whose options templates have been
// sent, in three ways:
//   - a full transmission of all records at the tracker's active interval;
//   - a full transmission to one collector alone, right after its options templates;
//   - incremental updates that sources push, coalesced for up to a second or until a
//     message is full, then sent to all collectors.
// Full transmissions are encoded once into a cache of finished messages, reused until a
// source's version or the exporter's MTU changes. It is the one sender that advances a
// collector's sequence number: by the data records of each message it sends.

#include <map>
#include <set>
#include <vector>

#include "export/ExportFamily.h"
#include "ipfix/MessageBuilder.h"
#include "options/OptionsDataExporter.h"
#include "platform/orrin/TaskScheduler.h"
#include "platform/zub/LinkQueue.h"

namespace FlowTracking {

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

// The records of one data set waiting to be sent as an incremental update.
class UpdateSetQueue {
 public:
  explicit UpdateSetQueue(TemplateId setId) : setId_(setId) {}
  TemplateId setId() const { return setId_; }
  uint32_t recordEnq(Zub::Ptr<const DataRecord> r) { return record_.enq(std::move(r)); }
  Zub::Ptr<const DataRecord> recordDeq() { return record_.deq(); }
  const Zub::LinkQueue<Zub::Ptr<const DataRecord>>& record() const { return record_; }

 private:
  TemplateId setId_;
  Zub::LinkQueue<Zub::Ptr<const DataRecord>> record_;
};

// One collector as one address family reaches it.
class Collector : public Zub::Entity {
 public:
  // Statistics go to `stats` (may be null) under the tracker's and exporter's names.
  Collector(const Zub::String& name, const Zub::Ptr<CollectorInfo>& info,
            const Nelo::IpAndPort& dst4, const Nelo::Ip6AndPort& dst6, bool isIpv4,
            Stova::Ipfix::CollectorStatistics* stats, const Zub::String& ftName,
            const Zub::String& expName);
  const Zub::Ptr<CollectorInfo>& info() const { return info_; }
  const Nelo::IpAndPort& dst4() const { return dst4_; }
  const Nelo::Ip6AndPort& dst6() const { return dst6_; }
  bool isIpv4() const { return isIpv4_; }
  // Stamps the collector's sequence number (then advances it by the message's data
  // records), sends the message from the exporter's source and counts it.
  void sendMessage(const ExporterInfo& expInfo, const HwFlowTracking::ExporterConfig& hwExpConfig,
                   const MessageWrapper& msgWrap);
  // The same for every message of a full transmission, in order, batched into few system
  // calls (each message is its own packet, so each carries this collector's number).
  void sendMessages(const ExporterInfo& expInfo, const HwFlowTracking::ExporterConfig& hwExpConfig,
                    const Zub::LinkQueue<Zub::Ptr<MessageWrapper>>& msgs);
  void updateStats(const MessageWrapper& msgWrap);

 private:
  // Sends `n` messages; returns how many the kernel took (in order), the rest counted as
  // send errors.
  template <class F>
  size_t send_(const ExporterInfo& expInfo, const HwFlowTracking::ExporterConfig& hwExpConfig,
               const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const typename F::Dst& dst);

  Zub::Ptr<CollectorInfo> info_;
  Nelo::IpAndPort dst4_;
  Nelo::Ip6AndPort dst6_;
  bool isIpv4_;
  Stova::Ipfix::CollectorStatistics* stats_;
  Zub::String ftName_;
  Zub::String expName_;
};

class OptionsDataExporterSm : public Zub::Reactor {
 public:
  static constexpr int kTaskPriority = 2;

  // The sources of each scope, fixed at initialisation.
  class ScopedDataSource : public Zub::Entity {
   public:
    explicit ScopedDataSource(OptionsDataScope scope) : Entity(FlowTracking::stringValue(scope)) {}
    ZUB_COLL(dataSourceEnt, Zub::OrderedCollection<Zub::String, Zub::Ptr<OptionsDataSource>>)
  };

  // Named by the exporter, then the tracker: tasks read "<what>-<tracker>-<exporter>".
  OptionsDataExporterSm(const Zub::Name& expName, const Zub::Name& ftName, FtId ftId,
                        const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                        const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                        const Zub::Ptr<ExporterInfo>& expInfo,
                        Stova::Ipfix::CollectorStatistics* collStats,
                        const Zub::Ptr<OptionsDataContainer>& container,
                        Orrin::TaskScheduler& scheduler);
  void handleInitialized() override;
  void handleDestroyed() override;

  bool v4Ready() const;
  bool v6Ready() const;
  bool txReady() const { return v4Ready() || v6Ready(); }

  void maybeSchedulePeriodic();
  void maybeBeginPeriodicTransmission();
  void maybeBuildMsgCache();
  void sendDataTables();
  void sendMessageToCollectors(const MessageWrapper& msg);
  void sendFlowRecords();
  void handleSrc4();
  void handleSrc6();
  void handleCollector4(const Zub::String& name);
  void handleCollector6(const Zub::String& name);
  // Queues a full transmission to the collector alone.
  void handleCollector(const Zub::String& name);
  void processCollectorQueue();
  void handleUpdateData(OptionsDataScope scope);
  void flushUpdateQueue();
  void abortUpdates();
  void handleSourceChange();

  ZUB_COLL(collector, Zub::OrderedCollection<Zub::String, Zub::Ptr<Collector>>)
  ZUB_COLL(collector4, Zub::OrderedCollection<Zub::String, Zub::Ptr<Collector>>)
  ZUB_COLL(collector6, Zub::OrderedCollection<Zub::String, Zub::Ptr<Collector>>)
  ZUB_COLL(collInfo, Zub::OrderedCollection<Zub::String, Zub::Ptr<CollectorInfo>>)
  ZUB_COLL(updateDataEnt, Zub::OrderedCollection<OptionsDataScope, Zub::Ptr<OptionsDataUpdate>>)
  ZUB_COLL(scopedDataSource, Zub::OrderedCollection<OptionsDataScope, Zub::Ptr<ScopedDataSource>>)

  const std::set<Zub::String>& collectorUpdate() const { return collectorUpdate_; }
  const std::map<TemplateId, UpdateSetQueue>& update() const { return update_; }
  uint32_t updateQueueBytes() const { return updateQueueBytes_; }
  double updateDataCoalesceTime() const { return updateDataCoalesceTime_; }
  void updateDataCoalesceTimeIs(double seconds) { updateDataCoalesceTime_ = seconds; }
  const Zub::LinkQueue<Zub::Ptr<MessageWrapper>>& msgCache() const { return msgCache_; }
  bool msgCacheValid() const { return msgCacheValid_; }
  uint32_t msgCacheBuildCount() const { return msgCacheBuildCount_; }
  bool processing() const { return processing_; }
  bool initialized() const { return initialized_; }
  const Zub::Ptr<Orrin::Task>& collectorUpdateTask() const { return collectorUpdateTask_; }
  const Zub::Ptr<Orrin::TimerTask>& updateTask() const { return updateTask_; }
  const Zub::Ptr<Orrin::TimerTask>& txPeriodicTask() const { return txPeriodicTask_; }
  const Zub::String& traceId() const { return traceId_; }

 private:
  struct V4;
  struct V6;
  template <class F>
  bool ready_() const;
  template <class F>
  void handleSrc_();
  template <class F>
  void handleCollector_(const Zub::String& name);
  template <class F>
  void forEachReadyCollector_(const char* handler, F&& fn);
  void handleCollInfo_(const Zub::String& name);
  void bindUpdate_(OptionsDataScope scope);
  bool taskRunning_(const Orrin::Task& task, const char* taskName) const;
  Zub::Nanoseconds coalesceNs_() const;
  void scheduleFlushAtDeadline_();
  uint16_t maxMsgSize_() const;
  Zub::Ptr<Collector> makeCollector_(const Zub::String& name, const Zub::Ptr<CollectorInfo>& info,
                                     bool isIpv4) const;

  Zub::Name expName_;
  Zub::Name ftName_;
  FtId ftId_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Zub::Ptr<ExporterInfo> expInfo_;
  Stova::Ipfix::CollectorStatistics* collStats_;
  Zub::Ptr<OptionsDataContainer> container_;
  Orrin::TaskScheduler& scheduler_;
  Zub::String traceId_;

  std::set<Zub::String> collectorUpdate_;
  Zub::Ptr<Orrin::Task> collectorUpdateTask_;
  std::map<TemplateId, UpdateSetQueue> update_;
  uint32_t updateQueueBytes_ = 0;
  double updateDataCoalesceTime_ = 1.0;
  Zub::Nanoseconds flushDeadline_ = 0;  // scheduler time by which queued updates go
  Zub::Ptr<Orrin::TimerTask> updateTask_;
  Zub::LinkQueue<Zub::Ptr<MessageWrapper>> msgCache_;
  bool msgCacheValid_ = false;
  uint32_t msgCacheBuildCount_ = 0;
  bool processing_ = false;
  Zub::Ptr<Orrin::TimerTask> txPeriodicTask_;
  bool initialized_ = false;

  Zub::KeyedSubscriptions<Zub::String> collInfoSubs_;
  Zub::KeyedSubscriptions<OptionsDataScope> updateSubs_;
};

}  // namespace FlowTracking
