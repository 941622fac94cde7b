#pragma once
// TemplateExporterSmBase owns one exporter's template message and delivers it: once
// when it is finished, to each collector that arrives later, and again every template
// interval. A derived class (data templates, options templates) says how long its
// templates are and writes their records into a packet from its template creation task
// (getPkt, addTemplateFieldSpecifier, finishMessage); the base prepends the message and
// set headers and hands the packet to the channel of every IPv4 then every IPv6
// collector, which stamps it, sends it and counts it (CollectorChannel.h).
//
// Which collectors get the packet when: a family (IPv4 or IPv6) is "sending" while the
// last full pass over it found at least one collector whose channel can send, and the
// base remembers each collector it serves with the destination it sent to. A collector is sent the
// current packet when it starts being served (it is configured and has collector information, in
// whichever order the two notifications arrive) or when its destination changes; a notification
// about a collector already served at its destination sends nothing. So each collector receives the
// templates exactly once when it is added, whichever reactor subscribed first; the periodic task
// and every full pass send to all.

#include <map>
#include <unordered_map>

#include "config/HwFlowTrackingStatus.h"
#include "export/CollectorStats.h"
#include "export/FlowTrackerInfoSm.h"
#include "platform/orrin/TaskScheduler.h"

namespace FlowTracking {

class TemplateExporterSmBase : public Zub::Reactor {
 public:
  static constexpr int kTaskPriority = 2;
  static constexpr size_t kHeaderBytes = 20;  // message header + one set header

  // The exporter is named by its tracker's name and its own: the periodic task is
  // "<prefix>-PeriodicTxTask-<exporter>-<tracker>", the creation task
  // "<prefix>-TemplateCreationTask-<tracker>-<exporter>".
  TemplateExporterSmBase(const Zub::Name& ftName, const Zub::Name& expName, FtId ftId,
                         const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                         const Zub::Ptr<ExporterInfo>& expInfo,
                         Stova::Ipfix::CollectorStatistics* collStats,
                         Orrin::TaskScheduler& scheduler);

  // The slots of a template exporter; every derived class overrides the first two.
  virtual Zub::String taskPrefix() const;
  virtual uint16_t headerSetId() const;
  // After each send to one collector that the kernel took.
  virtual void updateCollectorOnTx(CollectorChannel& channel);
  // Bytes of all template records the derived class would write now.
  virtual uint32_t getTemplateLength() const;
  // Writes one field specifier at `offset` of the packet's data region: identifier
  // (bit 15 the enterprise bit), length and, for an enterprise element, the private
  // enterprise number. Returns the bytes written (4 or 8); the packet must have room.
  virtual uint32_t addTemplateFieldSpecifier(const Zub::Ptr<Nelo::Pkt>& pkt, uint32_t offset,
                                             const HwFlowTracking::FtTemplateEntry& entry);
  // Builds the template packet; run by the template creation task.
  virtual void handleTemplateCreationTask();
  // The derived class writes its records with their set headers (several sets in one
  // message); otherwise the base puts one set header of headerSetId() in front of them.
  virtual bool writesOwnSets() const { return false; }

  // Resets the state and creates the periodic and the template creation tasks.
  void handleStartup();
  void handleDestroyed() override;
  // Asks for the templates to be built again (the creation task runs soon).
  void scheduleTemplateCreation();
  // A fresh packet with room for the headers in front of `recordBytes` bytes of data.
  Zub::Ptr<Nelo::Pkt> getPkt(size_t recordBytes);
  // The records are written: add the headers and send.
  void finishMessage();

  void maybeTxTemplate_();
  void maybeTxTemplate4_();
  void maybeTxTemplate6_();
  void handleCollectorIpAndPort(const Zub::String& name);
  void handleCollectorIp6AndPort(const Zub::String& name);
  void handleTemplateInterval();
  void handleTemplateReady();
  void handlePeriodicTemplateTx();

  FtId ftId() const { return ftId_; }
  const Zub::Name& ftName() const { return ftName_; }
  const Zub::Name& expName() const { return expName_; }
  const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig() const { return hwExpConfig_; }
  const Zub::Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
  const Zub::Ptr<Nelo::Pkt>& templatePkt() const { return templatePkt_; }
  void templatePktIs(const Zub::Ptr<Nelo::Pkt>& p) { templatePkt_ = p; }
  uint16_t templatePktMsgLen() const { return templatePktMsgLen_; }
  uint16_t templatePktTemplateCount() const { return templatePktTemplateCount_; }
  void templatePktTemplateCountIs(uint16_t n) { templatePktTemplateCount_ = n; }
  bool templateReady() const { return templateReady_; }
  void templateReadyIs(bool ready);
  const std::map<TemplateId, uint32_t>& templateLen() const { return templateLen_; }
  void templateLenIs(TemplateId id, uint32_t len) { templateLen_[id] = len; }
  void templateLenDel(TemplateId id) { templateLen_.erase(id); }
  void templateLenDelAll() { templateLen_.clear(); }
  const std::unordered_map<Zub::String, uint32_t>& exportTimeU32() const { return exportTimeU32_; }
  uint32_t templateTxCount() const { return templateTxCount_; }
  const Zub::Ptr<Orrin::TimerTask>& periodicTemplateTxTask() const {
    return periodicTemplateTxTask_;
  }
  const Zub::Ptr<Orrin::Task>& templateCreationTask() const { return templateCreationTask_; }
  bool sending4() const { return v4_.sending; }
  bool sending6() const { return v6_.sending; }
  const Zub::String& traceId() const { return traceId_; }
  Orrin::TaskScheduler& scheduler() const { return scheduler_; }

 protected:
  void periodicTemplateTxTaskIs(Orrin::TaskScheduler& scheduler, int priority,
                                const Zub::String& name);
  void periodicTemplateTxTaskDel();
  void templateCreationTaskIs(Orrin::TaskScheduler& scheduler, int priority,
                              const Zub::String& name);
  void templateCreationTaskDel();

 private:
  struct V4;
  struct V6;
  // Per address family: whether the last full pass sent, and the collectors served
  // with the destination they were sent to.
  template <class Dst>
  struct FamilyState {
    bool sending = false;
    std::unordered_map<Zub::String, Dst> served;
  };
  template <class F>
  void maybeTx_();
  template <class F>
  void doTx_(const typename F::Dst& dst, CollectorChannel& channel);
  template <class F>
  void handleCollector_(const Zub::String& name);

  bool taskRunning_(const Orrin::Task& task, const char* handler, const char* taskName) const;
  void runTemplateCreationTask_();
  void addIpfixHeaders_();
  void schedulePeriodicTemplateTx_();
  void stopPeriodicTemplateTx_();

  void dropStaleStats_(bool keepLive);

  Zub::Name ftName_;
  Zub::Name expName_;
  FtId ftId_;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Zub::Ptr<ExporterInfo> expInfo_;
  Stova::Ipfix::CollectorStatistics* collStats_;
  Orrin::TaskScheduler& scheduler_;
  Zub::Ptr<Nelo::Pkt> templatePkt_;
  uint16_t templatePktMsgLen_ = 0;
  uint16_t templatePktTemplateCount_ = 0;
  bool templateReady_ = false;
  std::map<TemplateId, uint32_t> templateLen_;
  std::unordered_map<Zub::String, uint32_t> exportTimeU32_;
  uint32_t templateTxCount_ = 0;
  Zub::Ptr<Orrin::TimerTask> periodicTemplateTxTask_;
  Zub::Ptr<Orrin::Task> templateCreationTask_;
  FamilyState<Nelo::IpAndPort> v4_;
  FamilyState<Nelo::Ip6AndPort> v6_;
  Zub::String traceId_;
};

}  // namespace FlowTracking
