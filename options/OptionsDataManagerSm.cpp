#include "options/OptionsDataManagerSm.h"

#include "export/Trace.h"

namespace FlowTracking {

// ---- FtOptionsDataManagerSm -------------------------------------------------------------

FtOptionsDataManagerSm::FtOptionsDataManagerSm(const Zub::String& ftName, FtId ftId,
                                               const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                               const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                                               const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus,
                                               const Zub::Ptr<FlowTrackerInfo>& ftInfo,
                                               const Zub::Ptr<OptionsDataContainer>& dataContainer,
                                               Orrin::TaskScheduler& scheduler)
    : ftName_(ftName),
      ftId_(ftId),
      hwConfig_(hwConfig),
      hwFtConfig_(hwFtConfig),
      hwFtStatus_(hwFtStatus),
      ftInfo_(ftInfo),
      dataContainer_(dataContainer),
      scheduler_(scheduler) {
  watch(hwFtConfig_->expConfigSignal(), [this](const Zub::Name& n) { handleExpConfig(n); });
  watch(ftInfo_->expInfoSignal(), [this](const Zub::Name& n) { handleExpConfig(n); });
}

void FtOptionsDataManagerSm::handleInitialized() {
  GLINT(optionsTrace(), kEntry) << "FtOptionsDataManagerSm::handleInitialized for " << ftName_;
  initFlowKeySm();
  initFlowTrackerTableSm();
  initialized_ = true;
  for (const Zub::Name& name : hwFtConfig_->expConfigColl().keys()) handleExpConfig(name);
}

Zub::Ptr<OptionsDataSourceColl> FtOptionsDataManagerSm::trackerData_(const char* assertion) const {
  auto coll = dataContainer_->data(OptionsDataScope::scopeTracker);
  ZUB_ASSERT_TEXT(coll, assertion);
  return coll;
}

void FtOptionsDataManagerSm::initFlowKeySm() {
  ZUB_ASSERT_TEXT(!initialized_, "!initialized()");
  auto source = trackerData_("data")->sourceIs("FlowKey", FlowKeySm::setId());
  auto update = dataContainer_->update(OptionsDataScope::scopeTracker);
  ZUB_ASSERT_TEXT(update, "update");
  flowKeySm_ = Zub::makeReactor<FlowKeySm>(source, update, hwFtStatus_, scheduler_);
}

void FtOptionsDataManagerSm::initFlowTrackerTableSm() {
  ZUB_ASSERT_TEXT(!initialized_, "!initialized()");
  auto source = trackerData_("data")->sourceIs("FlowTrackerTable", FlowTrackerTableSm::setId());
  auto sampling =
      trackerData_("data")->sourceIs("Sampling", TemplateId(CompatibleTemplate::kSampling));
  auto update = dataContainer_->update(OptionsDataScope::scopeTracker);
  ZUB_ASSERT_TEXT(update, "update");
  flowTrackerTableSm_ = Zub::makeReactor<FlowTrackerTableSm>(source, update, hwConfig_, hwFtConfig_,
                                                             scheduler_, sampling);
}

void FtOptionsDataManagerSm::handleExpConfig(const Zub::Name& name) {
  ZUB_ASSERT_TEXT(initialized_, "initialized()");
  auto hwExpConfig = hwFtConfig_->expConfig(name);
  auto expInfo = ftInfo_->expInfo(name);
  GLINT(optionsTrace(), kEntry) << "FtOptionsDataManagerSm::handleExpConfig for " << ftName_
                                << " name: " << name << ", hwExpConfig: " << bool(hwExpConfig)
                                << ", expInfo: " << bool(expInfo);
  const bool had = exporterSm_.has(name);
  exporterSm_.reconcile(name, hwExpConfig && expInfo, [&] {
    auto sm = Zub::makeReactor<OptionsDataExporterSm>(
        name, ftName_, ftId_, hwFtConfig_, hwExpConfig, expInfo, dataContainer_, scheduler_);
    GLINT(optionsTrace(), kLife) << "Created OptionsDataExporterSm for " << name;
    return sm;
  });
  if (had && !exporterSm_.has(name)) {
    GLINT(optionsTrace(), kLife) << "Deleted OptionsDataExporterSm for " << name;
  }
}

// ---- OptionsDataManagerSm ---------------------------------------------------------------

OptionsDataManagerSm::OptionsDataManagerSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                           const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                                           const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                                           const Zub::Ptr<IntfIndexMap>& intfIndexMap,
                                           const Zub::Ptr<Vrf::VrfIdMap::Status>& vrfIdMap,
                                           Orrin::TaskScheduler& scheduler)
    : hwConfig_(hwConfig),
      hwStatus_(hwStatus),
      flowTrackingInfo_(flowTrackingInfo),
      intfIndexMap_(intfIndexMap),
      vrfIdMap_(vrfIdMap),
      scheduler_(scheduler) {
  watch(hwConfig_->hwFtConfigSignal(), [this](const Zub::Name& n) { handleTracker(n); });
  watch(hwStatus_->hwFtStatusSignal(), [this](const Zub::Name& n) { handleTracker(n); });
  watch(flowTrackingInfo_->ftInfoSignal(), [this](const Zub::Name& n) { handleTracker(n); });
  watch(hwConfig_->compatibleOptionsSignal(), [this] { handleCompatibleOptions(); });
}

void OptionsDataManagerSm::handleCompatibleOptions() {
  const bool on = hwConfig_->compatibleOptions();
  GLINT(optionsTrace(), kEntry) << "OptionsDataManagerSm::handleCompatibleOptions " << on;
  for (const auto& [fixed, table] : fixedNames_) {
    if (bool(fixed->rowsOf()) == on) continue;
    fixed->rowsOfIs(on ? table : nullptr);
    fixed->versionInc(1);
  }
}

void OptionsDataManagerSm::handleInitialized() {
  GLINT(optionsTrace(), kEntry) << "OptionsDataManagerSm::handleInitialized";
  dataAllIs();
  initIntfTableSm();
  initVrfTableSm();
  handleCompatibleOptions();
  initialized_ = true;
  for (const Zub::Name& name : hwConfig_->hwFtConfigColl().keys()) handleTracker(name);
}

void OptionsDataManagerSm::handleDestroyed() {
  // The root first, then every container, the per-tracker managers and the tables.
  dataAll_ = nullptr;
  fixedNames_.clear();
  dataContainer_.clear();
  ftManagerSm_.clear();
  intfTableSm_ = nullptr;
  vrfTableSm_ = nullptr;
}

void OptionsDataManagerSm::dataAllIs() {
  dataAll_ = Zub::make<OptionsDataAll>();
  dataAll_->globalDataIs(OptionsDataScope::scopeGlobal);
  dataAll_->globalUpdateIs(OptionsDataScope::scopeGlobal);
}

void OptionsDataManagerSm::initIntfTableSm() {
  ZUB_ASSERT_TEXT(!initialized_, "!initialized()");
  ZUB_ASSERT_TEXT(dataAll_->globalData(), "data");
  ZUB_ASSERT_TEXT(dataAll_->globalUpdate(), "update");
  auto source = dataAll_->globalData()->sourceIs("InterfaceTable", InterfaceTableSm::setId());
  auto fixed = dataAll_->globalData()->sourceIs("InterfaceNames",
                                                TemplateId(CompatibleTemplate::kInterfaces));
  intfTableSm_ =
      Zub::makeReactor<InterfaceTableSm>(source, dataAll_->globalUpdate(), intfIndexMap_, fixed);
  fixedNames_.emplace_back(fixed, source);
}

void OptionsDataManagerSm::initVrfTableSm() {
  ZUB_ASSERT_TEXT(!initialized_, "!initialized()");
  ZUB_ASSERT_TEXT(dataAll_->globalData(), "data");
  ZUB_ASSERT_TEXT(dataAll_->globalUpdate(), "update");
  auto source = dataAll_->globalData()->sourceIs("VrfTable", VrfTableSm::setId());
  auto fixed = dataAll_->globalData()->sourceIs("VrfNames", TemplateId(CompatibleTemplate::kVrfs));
  vrfTableSm_ = Zub::makeReactor<VrfTableSm>(source, dataAll_->globalUpdate(), vrfIdMap_, fixed);
  fixedNames_.emplace_back(fixed, source);
}

Zub::Ptr<OptionsDataContainer> OptionsDataManagerSm::dataContainerIs_(const Zub::Name& name) {
  auto& slot = dataContainer_[name];
  if (!slot) slot = Zub::make<OptionsDataContainer>(name);
  return slot;
}

void OptionsDataManagerSm::handleTracker(const Zub::Name& name) {
  ZUB_ASSERT_TEXT(initialized_, "initialized()");
  auto hwFtConfig = hwConfig_->hwFtConfig(name);
  auto hwFtStatus = hwStatus_->hwFtStatus(name);
  auto ftInfo = flowTrackingInfo_->ftInfo(name);
  GLINT(optionsTrace(), kEntry) << "OptionsDataManagerSm::handleTracker ftName: " << name
                                << ", hwFtConfig: " << bool(hwFtConfig)
                                << ", hwFtStatus: " << bool(hwFtStatus)
                                << ", ftInfo: " << bool(ftInfo);
  if (hwFtConfig && hwFtStatus && ftInfo) {
    auto trackerData = dataAll_->trackerDataIs(name);
    auto container = dataContainerIs_(name);
    container->dataIs(dataAll_->globalData());
    container->dataIs(trackerData->dataIs(OptionsDataScope::scopeTracker));
    container->updateIs(dataAll_->globalUpdate());
    container->updateIs(trackerData->updateIs(OptionsDataScope::scopeTracker));
    if (auto* existing = ftManagerSm_.get(name)) {
      // The same tracker cannot come back with other inputs while its manager lives.
      auto text = [](const Zub::Entity& e) {
        return Zub::str(e.fullName(), "@", reinterpret_cast<uintptr_t>(&e));
      };
      if (existing->dataContainer() != container) {
        Zub::checkPtrCtorParam("_dataContainer", text(*existing->dataContainer()),
                               text(*container));
      }
      if (existing->flowTrackerInfo() != ftInfo) {
        Zub::checkPtrCtorParam("_flowTrackerInfo", text(*existing->flowTrackerInfo()),
                               text(*ftInfo));
      }
      return;
    }
    ftManagerSm_.reconcile(name, true, [&] {
      auto sm = ftOptionsDataManagerSmFactory(name, hwFtConfig->ftId(), hwConfig_, hwFtConfig,
                                              hwFtStatus, ftInfo, container, scheduler_);
      GLINT(optionsTrace(), kLife) << "Created FtOptionsDataManagerSm for " << name;
      return sm;
    });
    return;
  }
  // Removed in this order: the tracker's data, its manager (its exporters and sources
  // with it), its container.
  dataAll_->trackerDataDel(name);
  if (ftManagerSm_.erase(name)) {
    GLINT(optionsTrace(), kLife) << "Deleted FtOptionsDataManagerSm for " << name;
  }
  dataContainer_.erase(name);
}

Zub::Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
    const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo, const Zub::Ptr<IntfIndexMap>& intfIndexMap,
    const Zub::Ptr<Vrf::VrfIdMap::Status>& vrfIdMap, Orrin::TaskScheduler& scheduler) {
  return Zub::makeReactor<OptionsDataManagerSm>(hwConfig, hwStatus, flowTrackingInfo, intfIndexMap,
                                                vrfIdMap, scheduler);
}

Zub::Ptr<FtOptionsDataManagerSm> ftOptionsDataManagerSmFactory(
    const Zub::String& ftName, FtId ftId, const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
    const Zub::Ptr<HwFlowTracking::FtStatus>& hwFtStatus, const Zub::Ptr<FlowTrackerInfo>& ftInfo,
    const Zub::Ptr<OptionsDataContainer>& dataContainer, Orrin::TaskScheduler& scheduler) {
  return Zub::makeReactor<FtOptionsDataManagerSm>(ftName, ftId, hwConfig, hwFtConfig, hwFtStatus,
                                                  ftInfo, dataContainer, scheduler);
}

}  // namespace FlowTracking
