#pragma once
// TemplateExporterSmBase owns one exporter's template message and delivers it: once
// when it is finished, to each collector that arrives later, and again every template
// interval. The derived class writes the template records into a packet (getPkt) and
// calls finishMessage(); the base prepends the message and set headers, stamps the
// export time and each collector's sequence number, sends to every IPv4 then every
// IPv6 collector, and counts each send in the collector statistics.

#include <map>
#include <unordered_map>

#include "config/HwFlowTrackingConfig.h"
#include "export/CollectorStats.h"
#include "export/FlowTrackerInfoSm.h"
#include "platform/orrin/TaskScheduler.h"

namespace FlowTracking {

class TemplateExporterSmBase : public Zub::Reactor {
 public:
  static constexpr int kTaskPriority = 2;
  static constexpr size_t kHeaderBytes = 20;  // message header + one set header

  // `name1` is the exporter's name and `name2` its tracker's: task names read
  // "<prefix>-PeriodicTxTask-<tracker>-<exporter>".
  TemplateExporterSmBase(const Zub::Name& name1, const Zub::Name& name2, FtId ftId,
                         const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                         const Zub::Ptr<ExporterInfo>& expInfo,
                         Stova::Ipfix::CollectorStatistics* collStats,
                         Orrin::TaskScheduler& scheduler);
  ~TemplateExporterSmBase() override;

  // Overridden by every derived class.
  virtual Zub::String taskPrefix() const;
  virtual uint16_t headerSetId() const;
  // After each successful send to one collector.
  virtual void updateCollectorOnTx(const Zub::String& collector);

  void handleStartup();
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
  const Zub::Name& name1() const { return name1_; }
  const Zub::Name& name2() const { return name2_; }
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
  bool sending4() const { return sending4_; }
  bool sending6() const { return sending6_; }
  const Zub::String& traceId() const { return traceId_; }
  Orrin::TaskScheduler& scheduler() const { return scheduler_; }

 protected:
  void periodicTemplateTxTaskIs(Orrin::TaskScheduler& scheduler, int priority,
                                const Zub::String& name);
  void periodicTemplateTxTaskDel();

 private:
  void addIpfixHeaders_();
  void doTxTemplate4_(const Nelo::IpAndPort& dst, const Zub::String& name);
  void doTxTemplate6_(const Nelo::Ip6AndPort& dst, const Zub::String& name);
  void updateMsgHeader_(const Zub::String& name, Zub::Nanoseconds nowNs);
  void updateStats(const Stova::Ipfix::CollectorInfo& collector, Zub::Nanoseconds nowNs);
  void schedulePeriodicTemplateTx_();
  void stopPeriodicTemplateTx_();

  Zub::Name name1_;
  Zub::Name name2_;
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
  bool sending4_ = false;
  bool sending6_ = false;
  Zub::String traceId_;
  // What each collector last received: its destination and the packet's generation. A
  // notification about a collector that already has the current packet at its current
  // destination sends nothing (collector information is often created from within the
  // notification of the collector itself).
  uint64_t templateGen_ = 0;
  std::unordered_map<Zub::String, std::pair<Nelo::IpAndPort, uint64_t>> delivered4_;
  std::unordered_map<Zub::String, std::pair<Nelo::Ip6AndPort, uint64_t>> delivered6_;
};

}  // namespace FlowTracking
