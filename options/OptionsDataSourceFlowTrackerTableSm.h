#pragma once
// The flow tracker table of one tracker: one options data record describing it
// (observation domain, name, timeouts, sampling), published in the tracker's source
// "FlowTrackerTable". Parameter changes are coalesced for two seconds into one new
// record, which is also pushed through the tracker's update.

#include "config/HwFlowTrackingConfig.h"
#include "options/OptionsDataExporter.h"
#include "platform/orrin/TaskScheduler.h"

namespace FlowTracking {

class FlowTrackerTableSm : public Zub::Reactor {
 public:
  // Which input changed.
  enum class Param { sampleRate = 0, activeInterval = 1, inactiveTimeout = 2 };
  // Random n-out-of-N sampling (IANA selector algorithm 3), one packet at a time.
  static constexpr uint16_t kSelectorAlgorithm = 3;
  static constexpr uint32_t kSamplingSize = 1;

  FlowTrackerTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                     const Zub::Ptr<OptionsDataUpdate>& update,
                     const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                     const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                     Orrin::TaskScheduler& scheduler);
  static TemplateId setId();
  FtId ftId() const { return hwFtConfig_->ftId(); }
  // The record: exactly 19 + n bytes for a tracker name of n bytes.
  Zub::Ptr<const DataRecord> makeDataRecord() const;

  void handleInitialized() override;
  void handleDestroyed() override;
  void handleParamChange(Param whatChanged);
  void doUpdate();

  double updateDelay() const { return updateDelay_; }
  const Zub::Ptr<Orrin::TimerTask>& updateTask() const { return updateTask_; }
  const Zub::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsDataSource> dataSource_;
  Zub::Ptr<OptionsDataUpdate> update_;
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Orrin::TaskScheduler& scheduler_;
  TemplateId setIdVal_;
  double updateDelay_ = 2.0;
  Zub::Ptr<Orrin::TimerTask> updateTask_;
  bool initialized_ = false;
};

std::string stringValue(FlowTrackerTableSm::Param p);

}  // namespace FlowTracking
