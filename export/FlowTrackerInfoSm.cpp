#include "export/FlowTrackerInfoSm.h"

#include <algorithm>
#include <cstring>

#include "export/Trace.h"
#include "platform/zub/LogHandle.h"

namespace FlowTracking {

namespace {
const Zub::LogHandle FLOWTRACKING_EXPORTER_NO_ENDPOINT(
    "FLOWTRACKING_EXPORTER_NO_ENDPOINT", 3,
    "Exporter %s in flow tracker %s is inactive for its IPv%s collectors: it cannot open its "
    "IPv%s socket (%s). Retrying in %s s.",
    "The exporter could not open the UDP socket it sends from; nothing is sent to the "
    "collectors of that family until it can.",
    "Check the descriptor limits of the process (LimitNOFILE) and of the system; for an "
    "exporter in a VRF, that the VRF's device exists.",
    60.0, 1.0, "FLOWTRACKING");
const Zub::LogHandle FLOWTRACKING_EXPORTER_ENDPOINT_OPEN(
    "FLOWTRACKING_EXPORTER_ENDPOINT_OPEN", 5,
    "Exporter %s in flow tracker %s opened its IPv%s socket; its IPv%s collectors are "
    "exported to again.",
    "The socket that could not be opened before is open now.", Zub::NoActionRequired, 0.0, 1.0,
    "FLOWTRACKING");

// Whether the exporter has collectors of the family (an endpoint is opened for those
// families only: each one costs a descriptor).
bool familyInUse(const HwFlowTracking::ExporterConfig& hw, bool v6) {
  return v6 ? hw.collectorIp6AndPortSize() > 0 : hw.collectorIpAndPortSize() > 0;
}
}  // namespace

PamFactory realPamFactory() {
  return [](const Zub::Name& name) { return Zub::Ptr<Nelo::UdpPam>(new Nelo::UdpPam(name)); };
}

// ---- ExporterInfoSm ---------------------------------------------------------------------

ExporterInfoSm::ExporterInfoSm(const Zub::Name& expName, const Zub::Name& ftName, FtId ftId,
                               const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                               const Zub::Ptr<ExporterInfo>& expInfo,
                               const Zub::Ptr<FlowRecordBatch>& flowRecords,
                               const ExportContext& context)
    : expName_(expName),
      ftName_(ftName),
      ftId_(ftId),
      hwExpConfig_(hwExpConfig),
      expInfo_(expInfo),
      flowRecords_(flowRecords),
      context_(context),
      traceId_(ftName + "-" + expName) {
  // A collector is known when either family resolved it.
  watch(hwExpConfig_->collectorIpAndPortSignal(),
        [this](const Zub::String& n) { handleCollector(n); });
  watch(hwExpConfig_->collectorIp6AndPortSignal(),
        [this](const Zub::String& n) { handleCollector(n); });
  watch(hwExpConfig_->vrfDeviceSignal(), [this] { handleVrfDevice(); });
  if (flowRecords_) watch(flowRecords_->versionSignal(), [this] { handleFlowRecords(); });
}

void ExporterInfoSm::handleInitialized() {
  GLINT(exportTrace(), kEntry) << "ExporterInfoSm::handleInitialized for " << traceId_;
  pamManagementTask_ =
      new Orrin::TimerTask(context_.scheduler, "PamManagementTask-" + ftName_ + "-" + expName_,
                           kTaskPriority, [this] { handlePamManagementTask(); });
  pamManagementTask_->schedule();
}

void ExporterInfoSm::handlePamManagementTask() {
  if (!pamManagementTask_->running()) {
    GLINT(exportTrace(), kDiag) << "Returning because pamManagementTask not running.";
    return;
  }
  GLINT(exportTrace(), kEntry) << "ExporterInfoSm::handlePamManagementTask for " << traceId_;
  handleCollector();
  createPam4();
  createPam6();
  closeUnusedPam_(false);
  closeUnusedPam_(true);
  const bool missing = (familyInUse(*hwExpConfig_, false) && !expInfo_->udpPam4()) ||
                       (familyInUse(*hwExpConfig_, true) && !expInfo_->udpPam6());
  if (missing) {
    pamManagementTask_->scheduleTaskLowestDelay(retry_);
    retry_ = std::min(retry_ * 2, kRetryMax);
  } else {
    retry_ = kRetryMin;
  }
}

void ExporterInfoSm::handleCollector() {
  for (const Zub::String& n : hwExpConfig_->collectorIpAndPortColl().keys()) handleCollector(n);
  for (const Zub::String& n : hwExpConfig_->collectorIp6AndPortColl().keys()) handleCollector(n);
  for (const Zub::String& n : expInfo_->collInfoColl().keys()) handleCollector(n);
}

void ExporterInfoSm::handleCollector(const Zub::String& name) {
  GLINT(exportTrace(), kEntry) << "ExporterInfoSm::handleCollector for " << traceId_
                               << ", collector " << name;
  if (!hwExpConfig_->collectorIpAndPortHas(name) && !hwExpConfig_->collectorIp6AndPortHas(name)) {
    expInfo_->collInfoDel(name);
    // The last collector of a family may have gone: its endpoint is given back.
    if (pamManagementTask_ && !pamManagementTask_->running()) pamManagementTask_->schedule();
    return;
  }
  if (auto info = expInfo_->collInfo(name)) {
    GLINT(exportTrace(), kDiag) << "Using existing collectorInfo for " << name
                                << ", seqNo: " << info->channel4()->ipfixMsgSeqNo() << "/"
                                << info->channel6()->ipfixMsgSeqNo();
    return;
  }
  auto info = Zub::make<CollectorInfo>(name, hwExpConfig_, context_.stats, ftName_, expName_);
  info->channel4()->pamIs(expInfo_->udpPam4());
  info->channel6()->pamIs(expInfo_->udpPam6());
  expInfo_->collInfoColl().insert(name, info);
  GLINT(exportTrace(), kState) << "Initiated sequence number for " << name;
  // The first collector of a family needs that family's endpoint; one that could not be
  // made is tried again now too.
  const bool v6 = hwExpConfig_->collectorIp6AndPortHas(name) && !expInfo_->udpPam6();
  const bool v4 = hwExpConfig_->collectorIpAndPortHas(name) && !expInfo_->udpPam4();
  if ((v4 || v6) && pamManagementTask_ && !pamManagementTask_->running()) {
    pamManagementTask_->schedule();
  }
}

// The exporter's VRF got another device (or none): endpoints bound to the old one are
// closed and opened anew, bound to the new one. A socket is never rebound: that would
// need a privilege a new socket does not.
void ExporterInfoSm::handleVrfDevice() {
  GLINT(exportTrace(), kEntry) << "ExporterInfoSm::handleVrfDevice for " << traceId_ << ", device '"
                               << hwExpConfig_->vrfDevice() << "'";
  for (bool v6 : {false, true}) {
    auto pam = v6 ? expInfo_->udpPam6() : expInfo_->udpPam4();
    if (!pam || pam->bindDevice() == hwExpConfig_->vrfDevice()) continue;
    pam->modeIs(Nelo::UdpPam::modeOff);
    pamIs_(v6, nullptr);
    GLINT(exportTrace(), kLife) << "Closed Pam: " << pam->name() << ", bound to '"
                                << pam->bindDevice() << "'";
  }
  if (pamManagementTask_ && !pamManagementTask_->running()) pamManagementTask_->schedule();
}

void ExporterInfoSm::createPam4() { createPam_(false); }
void ExporterInfoSm::createPam6() { createPam_(true); }

void ExporterInfoSm::createPam_(bool v6) {
  if (v6 ? expInfo_->udpPam6() : expInfo_->udpPam4()) return;
  if (!familyInUse(*hwExpConfig_, v6)) return;
  const Zub::Name name = Zub::str(v6 ? "udpPam6-" : "udpPam4-", ftName_, "-", expName_);
  const char* family = v6 ? "6" : "4";
  try {
    Zub::Ptr<Nelo::UdpPam> pam = context_.pamFactory(name);
    pam->ipv6EnIs(v6);
    pam->txPrioIs(kTxPrio);
    pam->bindDeviceIs(hwExpConfig_->vrfDevice());
    pam->modeIs(Nelo::UdpPam::modeOn);
    pamIs_(v6, pam);
    GLINT(exportTrace(), kLife) << "Created Pam: " << name << ", txPrio: " << kTxPrio
                                << ", device: '" << pam->bindDevice() << "', fd: " << pam->fd();
    if (noEndpoint_[v6]) {
      noEndpoint_[v6] = false;
      FLOWTRACKING_EXPORTER_ENDPOINT_OPEN.log(expName_, ftName_, family, family);
    }
  } catch (const Zub::ErrnoException& e) {
    GLINT(exportTrace(), 0) << "Caught ErrnoException: " << e.what();
    noEndpoint_[v6] = true;
    FLOWTRACKING_EXPORTER_NO_ENDPOINT.log(expName_, ftName_, family, family,
                                          std::strerror(e.error()), std::to_string(retry_.count()));
  }
}

// An endpoint whose family has no collector left is closed: each one holds a descriptor.
void ExporterInfoSm::closeUnusedPam_(bool v6) {
  auto pam = v6 ? expInfo_->udpPam6() : expInfo_->udpPam4();
  if (!pam || familyInUse(*hwExpConfig_, v6)) return;
  pam->modeIs(Nelo::UdpPam::modeOff);
  pamIs_(v6, nullptr);
  GLINT(exportTrace(), kLife) << "Closed Pam: " << pam->name() << ", no collector left";
}

void ExporterInfoSm::pamIs_(bool v6, const Zub::Ptr<Nelo::UdpPam>& pam) {
  for (const auto& [name, info] : expInfo_->collInfoColl()) info->channel(!v6)->pamIs(pam);
  if (v6) {
    expInfo_->udpPam6Is(pam);
  } else {
    expInfo_->udpPam4Is(pam);
  }
}

void ExporterInfoSm::handleFlowRecords() {
  const FlowRecords& records = flowRecords_->records();
  GLINT(exportTrace(), kEntry) << "ExporterInfoSm::handleFlowRecords for " << traceId_
                               << ", records: " << records.size();
  if (records.empty()) return;
  std::vector<Zub::Ptr<CollectorChannel>> ready;
  for (const auto& [name, info] : expInfo_->collInfoColl()) {
    for (const auto& ch : {info->channel4(), info->channel6()}) {
      if (ch->ready() && ch->templateSent()) ready.push_back(ch);
    }
  }
  if (ready.empty()) return;
  flowRecords_->reachedIs(true);
  const auto maxSize = static_cast<uint16_t>(hwExpConfig_->ipfixMaxMsgSize());
  BuilderWrapper b(maxSize, ftId_.value());
  b.startMsg();
  // The messages are built once, then each channel sends the run in few system calls.
  Zub::LinkQueue<Zub::Ptr<MessageWrapper>> msgs;
  for (const FlowRecords::Record& r : records.list()) {
    const std::string_view record = records.bytes(r);
    if (b.addSetRecord(r.setId, record) > 0) continue;
    if (b.hasRecords()) {
      msgs.enq(b.finalizeMsg());
      b.startMsg();
    }
    if (b.addSetRecord(r.setId, record) == 0) {
      // Larger than a message of this exporter's MTU can carry: cannot be sent.
      flowRecords_->oversizedInc();
      GLINT(exportTrace(), 0) << "ExporterInfoSm::handleFlowRecords for " << traceId_
                              << ": a record of " << record.size()
                              << " bytes exceeds the message size " << maxSize;
    }
  }
  if (b.hasRecords()) msgs.enq(b.finalizeMsg());
  for (const auto& ch : ready) ch->send(msgs, SetKind::data);
}

void ExporterInfoSm::handleDestroyed() {
  GLINT(exportTrace(), kEntry) << "ExporterInfoSm::handleDestroyed for " << traceId_;
  if (pamManagementTask_) pamManagementTask_->unschedule();
  for (bool v6 : {false, true}) {
    if (auto pam = v6 ? expInfo_->udpPam6() : expInfo_->udpPam4()) {
      pam->modeIs(Nelo::UdpPam::modeOff);
      pamIs_(v6, nullptr);
    }
  }
  expInfo_->collInfoDelAll();
}

// ---- FlowTrackerInfoSm -----------------------------------------------------------------

FlowTrackerInfoSm::FlowTrackerInfoSm(const Zub::Name& trackerName,
                                     const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                                     const Zub::Ptr<FlowTrackerInfo>& ftInfo,
                                     const ExportContext& context)
    : trackerName_(trackerName), hwFtConfig_(hwFtConfig), ftInfo_(ftInfo), context_(context) {
  watch(hwFtConfig_->expConfigSignal(), [this](const Zub::Name& n) { handleHwExpConfig(n); });
}

void FlowTrackerInfoSm::handleInitialized() {
  for (const Zub::Name& n : hwFtConfig_->expConfigColl().keys()) handleHwExpConfig(n);
}

void FlowTrackerInfoSm::handleHwExpConfig(const Zub::Name& name) {
  GLINT(exportTrace(), kEntry) << "FlowTrackerInfoSm::handleHwExpConfig for " << trackerName_ << "-"
                               << name;
  auto hwExp = hwFtConfig_->expConfig(name);
  const bool had = expInfoSm_.has(name);
  // The run-time entry is created just before its reactor and deleted right after it.
  expInfoSm_.reconcile(name, bool(hwExp), [&] {
    auto expInfo = ftInfo_->expInfoIs(name);
    auto sm = Zub::makeReactor<ExporterInfoSm>(name, trackerName_, hwFtConfig_->ftId(), hwExp,
                                               expInfo, ftInfo_->flowRecords(), context_);
    GLINT(exportTrace(), kLife) << "Created ExporterInfoSm for " << name;
    return sm;
  });
  if (!hwExp && had) {
    ftInfo_->expInfoDel(name);
    GLINT(exportTrace(), kLife) << "Deleted ExporterInfoSm for " << name;
  }
}

// ---- FlowTrackingInfoSm ----------------------------------------------------------------

FlowTrackingInfoSm::FlowTrackingInfoSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                       const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo,
                                       const ExportContext& context)
    : hwConfig_(hwConfig), flowTrackingInfo_(flowTrackingInfo), context_(context) {
  watch(hwConfig_->hwFtConfigSignal(), [this](const Zub::Name& n) { handleHwFtConfig(n); });
}

void FlowTrackingInfoSm::handleInitialized() {
  for (const Zub::Name& n : hwConfig_->hwFtConfigColl().keys()) handleHwFtConfig(n);
}

void FlowTrackingInfoSm::handleHwFtConfig(const Zub::Name& name) {
  GLINT(exportTrace(), kEntry) << "FlowTrackingInfoSm::handleHwFtConfig for " << name;
  auto hwFt = hwConfig_->hwFtConfig(name);
  const bool had = ftInfoSm_.has(name);
  ftInfoSm_.reconcile(name, bool(hwFt), [&] {
    auto ftInfo = flowTrackingInfo_->ftInfoIs(name);
    auto sm = Zub::makeReactor<FlowTrackerInfoSm>(name, hwFt, ftInfo, context_);
    GLINT(exportTrace(), kLife) << "Created FlowTrackerInfoSm for " << name;
    return sm;
  });
  if (!hwFt && had) {
    flowTrackingInfo_->ftInfoDel(name);
    GLINT(exportTrace(), kLife) << "Deleted FlowTrackerInfoSm for " << name;
  }
}

Zub::Ptr<FlowTrackingInfoSm> flowTrackingInfoSmFactory(
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<FlowTrackingInfo>& flowTrackingInfo, Orrin::TaskScheduler& scheduler,
    Stova::Ipfix::CollectorStatistics* stats, PamFactory pamFactory) {
  return Zub::makeReactor<FlowTrackingInfoSm>(
      hwConfig, flowTrackingInfo, ExportContext{scheduler, std::move(pamFactory), stats});
}

}  // namespace FlowTracking
