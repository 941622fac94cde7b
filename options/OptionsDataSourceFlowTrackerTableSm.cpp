#include "options/OptionsDataSourceFlowTrackerTableSm.h"

#include "export/Trace.h"
#include "options/OptionsDataRecordWriter.h"

namespace FlowTracking {

std::string stringValue(FlowTrackerTableSm::Param p) {
  switch (p) {
    case FlowTrackerTableSm::Param::sampleRate:
      return "sampleRate";
    case FlowTrackerTableSm::Param::activeInterval:
      return "activeInterval";
    case FlowTrackerTableSm::Param::inactiveTimeout:
      return "inactiveTimeout";
  }
  return "param" + std::to_string(static_cast<int>(p));
}

FlowTrackerTableSm::FlowTrackerTableSm(const Zub::Ptr<OptionsDataSource>& dataSource,
                                       const Zub::Ptr<OptionsDataUpdate>& update,
                                       const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                       const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                                       Orrin::TaskScheduler& scheduler,
                                       const Zub::Ptr<OptionsDataSource>& sampling)
    : dataSource_(dataSource),
      update_(update),
      hwConfig_(hwConfig),
      hwFtConfig_(hwFtConfig),
      scheduler_(scheduler),
      sampling_(sampling),
      setIdVal_(setId()) {
  watch(hwConfig_->compatibleOptionsSignal(), [this] { handleCompatibleOptions(); });
  watch(hwConfig_->sampleRateSignal(), [this] { handleParamChange(Param::sampleRate); });
  watch(hwFtConfig_->activeIntervalSignal(), [this] { handleParamChange(Param::activeInterval); });
  watch(hwFtConfig_->inactiveTimeoutSignal(),
        [this] { handleParamChange(Param::inactiveTimeout); });
}

TemplateId FlowTrackerTableSm::setId() {
  return Constants::reservedTemplateId(StaticTemplateId::optionsTemplateFlowTrackerTable);
}

Zub::Ptr<const DataRecord> FlowTrackerTableSm::makeDataRecord() const {
  const auto active = hwFtConfig_->activeInterval();
  const auto inactive = hwFtConfig_->inactiveTimeout();
  ZUB_ASSERT_TEXT(active.seconds() < Zub::maxU16(), "active.seconds() < Zub::maxU16()");
  ZUB_ASSERT_TEXT(inactive.seconds() < Zub::maxU16(), "inactive.seconds() < Zub::maxU16()");
  const std::string& name = hwFtConfig_->name();
  const size_t elementLen = name.size();
  ZUB_ASSERT_TEXT(elementLen < 255, "elementLen < 255");
  RecordWriter w(19 + elementLen);
  auto fits = [&w](size_t n) {
    ZUB_ASSERT_TEXT(w.pos() + n <= w.max(), "*pos + sizeof( BaseType ) <= max");
  };
  fits(sizeof(uint32_t));
  w.u32(ftId().value());
  fits(sizeof(uint8_t));
  w.u8(static_cast<uint8_t>(elementLen));
  ZUB_ASSERT_TEXT(w.pos() + elementLen <= w.max(), "*pos + elementLen <= max");
  const size_t before = w.pos();
  w.bytes(name);
  ZUB_ASSERT_TEXT(w.pos() - before == elementLen, "rc == elementLen");
  const auto activeS = static_cast<uint16_t>(active.seconds());
  const auto inactiveS = static_cast<uint16_t>(inactive.seconds());
  const uint32_t population = hwConfig_->sampleRate();
  fits(sizeof(uint16_t));
  w.u16(activeS);
  fits(sizeof(uint16_t));
  w.u16(inactiveS);
  fits(sizeof(uint16_t));
  w.u16(kSelectorAlgorithm);
  fits(sizeof(uint32_t));
  w.u32(kSamplingSize);
  fits(sizeof(uint32_t));
  w.u32(population);
  ZUB_ASSERT_TEXT(w.pos() == w.max(), "pos == max");
  GLINT(optionsTrace(), kDiag) << "observationDomainId: " << ftId().value()
                               << ", observationDomainName: " << name
                               << ", flowActiveTimeout: " << activeS
                               << ", flowIdleTimeout: " << inactiveS
                               << ", selectorAlgorithm: " << kSelectorAlgorithm
                               << ", samplingSize: " << kSamplingSize
                               << ", samplingPopulation: " << population;
  return w.record();
}

Zub::Ptr<const DataRecord> FlowTrackerTableSm::makeSamplingRecord() const {
  RecordWriter w(8);
  w.u32(ftId().value());
  w.u32(hwConfig_->sampleRate());
  return w.record();
}

void FlowTrackerTableSm::handleInitialized() {
  updateTask_ = new Orrin::TimerTask(scheduler_, "FlowTrackerTableSmUpdate", 2, [this] {
    if (!updateTask_->running()) {
      GLINT(optionsTrace(), kDiag) << "Returning because updateTask not running.";
      return;
    }
    doUpdate();
  });
  initialized_ = true;
  publish_();
}

void FlowTrackerTableSm::handleDestroyed() {
  if (updateTask_) updateTask_->unschedule();
}

void FlowTrackerTableSm::publish_() {
  dataSource_->dataRecordDelAll();
  dataSource_->dataRecordIs(makeDataRecord());
  dataSource_->versionInc(1);
  if (!sampling_) return;
  sampling_->dataRecordDelAll();
  if (hwConfig_->compatibleOptions()) sampling_->dataRecordIs(makeSamplingRecord());
  sampling_->versionInc(1);
}

void FlowTrackerTableSm::handleParamChange(Param whatChanged) {
  GLINT(optionsTrace(), kEntry) << "FlowTrackerTableSm::handleParamChange for "
                                << hwFtConfig_->name() << " param changed " << whatChanged;
  if (!initialized_) return;
  publish_();
  if (whatChanged == Param::sampleRate) {
    doUpdate(true);
    return;
  }
  updateTask_->scheduleTaskLowestDelay(std::chrono::nanoseconds(0));
}

void FlowTrackerTableSm::handleCompatibleOptions() {
  if (!initialized_) return;
  publish_();
  if (hwConfig_->compatibleOptions()) doUpdate(true);
}

void FlowTrackerTableSm::doUpdate(bool urgent) {
  // The last push is the urgent one: it takes the other along.
  if (sampling_ && hwConfig_->compatibleOptions()) {
    update_->addUpdate(sampling_->dataSetId(), makeSamplingRecord());
  }
  update_->addUpdate(setIdVal_, makeDataRecord(), urgent);
}

}  // namespace FlowTracking
