#pragma once
// OptionsDataExporterSm sends one exporter's options data: the records of every source
// in its tracker's container, through the channel of every collector whose destination
// has the options templates, in three ways:
//   - a full transmission of all records at the tracker's active interval;
//   - a full transmission to one collector alone, right after its options templates;
//   - incremental updates that sources push, coalesced for up to a second or until a
//     message is full, then sent to all collectors.
// Full transmissions are encoded once into a cache of finished messages, reused until a
// source's version or the exporter's MTU changes.

#include <map>
#include <set>
#include <vector>

#include "export/CollectorChannel.h"
#include "export/ExportFamily.h"
#include "ipfix/MessageBuilder.h"
#include "options/OptionsDataExporter.h"
#include "platform/orrin/TaskScheduler.h"
#include "platform/zub/LinkQueue.h"

namespace FlowTracking {

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
  void handleSrc4();
  void handleSrc6();
  void handleCollector4(const Zub::String& name);
  void handleCollector6(const Zub::String& name);
  // Queues a full transmission to the collector alone.
  void handleCollector(const Zub::String& name);
  void processCollectorQueue();
  void handleUpdateData(OptionsDataScope scope);
  // Sends the queued updates; an urgent flush sends all of them now, without yielding.
  void flushUpdateQueue(bool urgent = false);
  void abortUpdates();
  void handleSourceChange();

  // The channels options data go to (their destination has the options templates), by
  // collector and per family; `collector` holds the collectors served in either.
  ZUB_COLL(collector, Zub::OrderedCollection<Zub::String, Zub::Ptr<CollectorChannel>>)
  ZUB_COLL(collector4, Zub::OrderedCollection<Zub::String, Zub::Ptr<CollectorChannel>>)
  ZUB_COLL(collector6, Zub::OrderedCollection<Zub::String, Zub::Ptr<CollectorChannel>>)
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

  Zub::Name expName_;
  Zub::Name ftName_;
  FtId ftId_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Zub::Ptr<ExporterInfo> expInfo_;
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

  // Per family, the destination each served collector got its full transmission at: a
  // collector that moves gets one again at its new destination.
  std::map<Zub::String, Stova::Ipfix::CollectorInfo> served_[2];
  Zub::KeyedSubscriptions<Zub::String> collInfoSubs_;
  Zub::KeyedSubscriptions<OptionsDataScope> updateSubs_;
};

}  // namespace FlowTracking
