#pragma once
// The flow tracker table of one tracker: one options data record describing it
// (observation domain, name, timeouts, sampling), published in the tracker's source
// "FlowTrackerTable"; with the compatible layout, the sampling rate also as the one
// record of the tracker's source "Sampling" (observation domain, samplingInterval).
//
// The sources follow a change at once, so whatever goes out carries the configured
// values. The new records are pushed through the tracker's update too: a new sampling
// rate at once and urgently (collectors must know it before any record sampled at it),
// other changes once per turn of the loop, so that a reload that changes several of
// them pushes one record.

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

  // `sampling` (may be null) is the compatible layout's source.
  FlowTrackerTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                     const Zub::Ptr<OptionsDataUpdate>& update,
                     const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                     const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                     Orrin::TaskScheduler& scheduler,
                     const Zub::Ptr<OptionsDataSource>& sampling = nullptr);
  static TemplateId setId();
  FtId ftId() const { return hwFtConfig_->ftId(); }
  // The record: exactly 19 + n bytes for a tracker name of n bytes.
  Zub::Ptr<const DataRecord> makeDataRecord() const;
  // The compatible sampling record: observation domain, sampling interval (8 bytes).
  Zub::Ptr<const DataRecord> makeSamplingRecord() const;

  void handleInitialized() override;
  void handleDestroyed() override;
  void handleParamChange(Param whatChanged);
  void handleCompatibleOptions();
  // Pushes the current records through the update.
  void doUpdate(bool urgent = false);

  const Zub::Ptr<Orrin::TimerTask>& updateTask() const { return updateTask_; }
  const Zub::Ptr<OptionsDataSource>& dataSource() const { return dataSource_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Ptr<OptionsDataSource> dataSource_;
  Zub::Ptr<OptionsDataUpdate> update_;
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Orrin::TaskScheduler& scheduler_;
  Zub::Ptr<OptionsDataSource> sampling_;
  TemplateId setIdVal_;
  Zub::Ptr<Orrin::TimerTask> updateTask_;
  // Puts the current records into the sources.
  void publish_();
  bool initialized_ = false;
};

std::string stringValue(FlowTrackerTableSm::Param p);

}  // namespace FlowTracking
