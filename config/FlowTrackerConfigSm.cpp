#include "config/FlowTrackerConfigSm.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "platform/zub/Assert.h"
#include "platform/zub/Glint.h"

namespace FlowTracking {

namespace {

Zub::Glint::Facility& trace() {
  static Zub::Glint::Facility& f = Zub::Glint::facility("FtConfig");
  return f;
}

using Zub::Glint::kDiag;
using Zub::Glint::kEntry;
using Zub::Glint::kLife;
using Zub::Glint::kState;

constexpr const char* kFacility = "FLOWTRACKING";
constexpr const char* kIpfixFacility = "IPFIX";
// The largest IP packet an exporter sends where the kernel picks the link (no local
// interface): the link is not known, Ethernet's MTU is assumed.
constexpr uint32_t kRoutedMtu = 1500;

}  // namespace

// ---- log messages ---------------------------------------------------------------------

const Zub::LogHandle FLOWTRACKING_ACTIVE("FLOWTRACKING_ACTIVE", 6, "%s flow tracking is active.",
                                         "Flow tracking is active.", Zub::NoActionRequired, 0.0,
                                         1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_INACTIVE("FLOWTRACKING_INACTIVE", 6,
                                           "%s flow tracking is inactive.",
                                           "Flow tracking is inactive.", Zub::NoActionRequired, 0.0,
                                           1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_TRACKER_ACTIVE("FLOWTRACKING_TRACKER_ACTIVE", 6,
                                                 "%s flow tracker %s is active on interface %s.",
                                                 "Flow tracker is active on an interface.",
                                                 Zub::NoActionRequired, 0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_TRACKER_INACTIVE(
    "FLOWTRACKING_TRACKER_INACTIVE", 6, "%s flow tracker %s is inactive on interface %s.",
    "Flow tracker is inactive on an interface.", Zub::NoActionRequired, 0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_EXPORTER_ACTIVE(
    "FLOWTRACKING_EXPORTER_ACTIVE", 6, "%s exporter %s in VRF %s, in %s flow tracker %s is active.",
    "This exporter is ready to export packets.", Zub::NoActionRequired, 0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_EXPORTER_INACTIVE(
    "FLOWTRACKING_EXPORTER_INACTIVE", 6,
    "%s exporter %s in VRF %s, in %s flow tracker %s is inactive.",
    "This exporter is not ready to export packets.",
    "Ensure that both the local interface, and at least one collector, have been configured, "
    "and that both have valid IP addresses.",
    0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_COLLECTOR_ACTIVE(
    "FLOWTRACKING_COLLECTOR_ACTIVE", 6,
    "%s collector %s for exporter %s in %s flow tracker %s is active.",
    "Packets will be exported to this collector if the exporter is active.", Zub::NoActionRequired,
    0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_COLLECTOR_INACTIVE(
    "FLOWTRACKING_COLLECTOR_INACTIVE", 6,
    "%s collector %s for exporter %s in %s flow tracker %s is inactive.",
    "Packets will not be exported to this collector.",
    "Ensure that if collector is configured, its IP address is valid.", 0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_EXPORTER_NO_SOURCE(
    "FLOWTRACKING_EXPORTER_NO_SOURCE", 4,
    "%s exporter %s in %s flow tracker %s has IPv%s collectors, but its local interface %s "
    "has no usable IPv%s address%s; they receive nothing.",
    "Packets to a collector are sent from an address of the exporter's local interface of "
    "the collector's family.",
    "Give the local interface an address of that family, or use collectors of the family it "
    "has.",
    0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_COLLECTOR_SAME_DESTINATION(
    "FLOWTRACKING_COLLECTOR_SAME_DESTINATION", 4,
    "%s collector %s for exporter %s in %s flow tracker %s is the same destination (%s) as "
    "collector %s; it receives everything twice.",
    "Two collectors of one exporter, given by different names, reach the same address and "
    "port.",
    "Configure the collector once.", 0.0, 1.0, kFacility);
const Zub::LogHandle FLOWTRACKING_COLLECTOR_NOT_RESOLVED(
    "FLOWTRACKING_COLLECTOR_NOT_RESOLVED", 4,
    "%s collector %s for exporter %s in %s flow tracker %s does not resolve (%s); %s",
    "The collector's host name could not be turned into an address. It is looked up again "
    "after 2 s, then at doubling intervals up to a minute, and at every reload.",
    "Check the name and the name service (/etc/hosts, /etc/resolv.conf).", 0.0, 1.0, kFacility);

// ---- helpers --------------------------------------------------------------------------

bool verifyIpAddr(const Nelo::IpAddr& a) {
  return !a.isZero() && !a.isBroadcast() && !a.isMulticast();
}

bool verifyIp6Addr(const Nelo::Ip6Addr& a) {
  return !a.isZero() && !a.isAllNodes() && !a.isMulticast() && !a.isLinkLocal();
}

bool isEthernet(const Nelo::IntfId& intf) { return Nelo::EthIntfId::isEthIntfId(intf); }
bool isLag(const Nelo::IntfId& intf) { return Nelo::PortChannelIntfId::isPortChannelIntfId(intf); }

// ---- ConfigSmBase ---------------------------------------------------------------------

ConfigSmBase::ConfigSmBase(const Zub::Ptr<Config>& config, const Zub::Ptr<Zub::Dir>& agentDir,
                           const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                           const Zub::Ptr<Interface::AllEthPhyIntfStatusDir>& ethPhyIntfStatusDir,
                           const Zub::Ptr<Interface::EthLagIntfStatusDir>& ethLagIntfStatusDir,
                           const Zub::Ptr<Ip::Status>& ipStatus,
                           const Zub::Ptr<Ip6::Status>& ip6Status,
                           const Zub::Ptr<Ip::AllVrfStatusLocal>& allVrfStatusLocal,
                           const Zub::Ptr<Interface::AllIntfStatusDir>& allIntfStatusDir)
    : config_(config),
      agentDir_(agentDir),
      hwConfig_(hwConfig),
      ethPhyIntfStatusDir_(ethPhyIntfStatusDir),
      ethLagIntfStatusDir_(ethLagIntfStatusDir),
      ctx_(new ConfigContext) {
  ctx_->config = config;
  ctx_->hwConfig = hwConfig;
  ctx_->ipStatus = ipStatus;
  ctx_->ip6Status = ip6Status;
  ctx_->allVrfStatusLocal = allVrfStatusLocal;
  ctx_->allIntfStatusDir = allIntfStatusDir;
  ctx_->names = std::make_shared<NameResolver>(std::make_shared<SystemResolver>());
  watch(config_->enabledSignal(), [this] { handleConfigEnabled(); });
  watch(config_->sampleRateSignal(), [this] { handleSampleRate(); });
  watch(config_->compatibleOptionsSignal(),
        [this] { hwConfig_->compatibleOptionsIs(config_->compatibleOptions()); });
  watch(config_->flowTrackerConfigSignal(),
        [this](const Zub::Name& n) { handleFlowTrackerConfig(n); });
  watch(config_->flowTrackerIntfConfigSignal(),
        [this](const Nelo::IntfId& i) { handleFlowTrackerIntfConfig(i); });
  watch(ethPhyIntfStatusDir_->intfStatusSignal(),
        [this](const Nelo::IntfId& i) { handleEthIntfStatus(i); });
  watch(ethLagIntfStatusDir_->intfStatusSignal(),
        [this](const Nelo::IntfId& i) { handleLagIntfStatus(i); });
}

void ConfigSmBase::handleInitialized() { ctx_->trackingType = trackingTypeString(); }

void ConfigSmBase::initializeDefaultGroups(const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig) {
  GLINT(trace(), kEntry) << "ConfigSmBase::"
                         << "initializeDefaultGroups"
                         << " ftName: " << hwFtConfig->name();
}

bool ConfigSmBase::configEnabled() const { return config_->enabled(); }
Zub::String ConfigSmBase::agentName() const { return "base"; }
Zub::String ConfigSmBase::trackingTypeString() const { return "dummy"; }

void ConfigSmBase::handleStartup() {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleStartup";
  if (agentDir_->entries() == 0) {
    GLINT(trace(), kLife) << "Adding " << agentName() << " to activeAgentDir";
    agentDir_->mkdir(agentName());
  }
  // Only one flow-tracking agent may be active at a time.
  ZUB_ASSERT_TEXT(agentDir_->entries() == 1, "false");
  ZUB_ASSERT_TEXT(agentDir_->entityPtr<Zub::Dir>(agentName()) != nullptr,
                  "agentDir()->entityPtr< Zub::Dir >( agentName() ) != __null");
  FLOWTRACKING_ACTIVE.log(trackingTypeString());
  handleFtrConfig();
}

void ConfigSmBase::handleShutdown(Hollin::CAgent* agent) {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleShutdown";
  handleFtrConfig();
  if (configEnabled()) return;  // the configuration came back while shutting down
  if (agentDir_->entries() == 0) return;
  FLOWTRACKING_INACTIVE.log(trackingTypeString());
  if (agent) {
    agent->flushEntityLog();
    exitAgent_ = true;
  }
  GLINT(trace(), kLife) << "Deleting " << agentName() << " from activeAgentDir";
  agentDir_->entryDel(agentName());
}

void ConfigSmBase::handleConfigEnabled() {
  const bool enabled = configEnabled();
  GLINT(trace(), kEntry) << "ConfigSmBase::handleConfigEnabled"
                         << " enabled: " << enabled;
  handleFtrConfig();
}

void ConfigSmBase::handleFtrConfig() {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleFtrConfig";
  hwConfig_->compatibleOptionsIs(config_->compatibleOptions());
  handleFlowTrackerConfig();
  handleFlowTrackerIntfConfig();
  // The rate last: switched off, the trackers are gone before it returns to the default,
  // so that no collector is told that rate for them.
  handleSampleRate();
}

void ConfigSmBase::handleSampleRate() {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleSampleRate";
  if (configEnabled()) {
    GLINT(trace(), kState) << "SampleRate set to " << config_->sampleRate();
    hwConfig_->sampleRateIs(config_->sampleRate().value());
  } else {
    GLINT(trace(), kState) << "SampleRate reset to " << HwFlowTracking::Config::sampleRateDefault
                           << " (default)";
    hwConfig_->sampleRateIs(HwFlowTracking::Config::sampleRateDefault);
  }
}

void ConfigSmBase::handleFlowTrackerConfig() {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleFlowTrackerConfig";
  for (const Zub::Name& name : hwConfig_->hwFtConfigColl().keys()) {
    handleFlowTrackerConfig(name);
  }
  for (const Zub::Name& name : config_->flowTrackerConfigColl().keys()) {
    handleFlowTrackerConfig(name);
  }
}

void ConfigSmBase::handleFlowTrackerConfig(const Zub::Name& name) {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleFlowTrackerConfig"
                         << " for " << name;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFt = hwConfig_->hwFtConfig(name);
  Zub::Ptr<FlowTrackerConfig> ftConfig = config_->flowTrackerConfig(name);
  const bool wanted = configEnabled() && ftConfig;
  if (wanted) {
    if (hwFt) {
      const FtId ftId = hwFt->ftId();
      const Zub::String ftName = name;
      if (!ftIdToName(ftId).empty()) {
        ZUB_ASSERT_TEXT(ftIdToName(ftId) == ftName, "ftIdToName( ftId ) == ftName");
      } else {
        // The hardware configuration outlived a restart of this reactor: keep its id.
        ftIdToNameMap_[ftId] = name;
      }
    } else {
      const FtId ftId = allocateFtId(name);
      hwFt = hwConfig_->hwFtConfigIs(name, ftId);
    }
  }
  const bool had = ftConfigSm_.has(name);
  ftConfigSm_.reconcile(name, wanted, [&] {
    initializeDefaultGroups(hwFt);
    auto sm = Zub::makeReactor<FtConfigSm>(name, ftConfig, hwFt, ctx_);
    GLINT(trace(), kLife) << "Created FtConfigSm for: " << name;
    return sm;
  });
  if (!wanted && hwFt) {
    releaseFtId(hwFt->ftId());
    hwConfig_->hwFtConfigDel(name);
    GLINT(trace(), kLife) << "Deleted hwFtConfig for " << name;
  }
  if (!wanted && had) {
    GLINT(trace(), kLife) << "Deleted FtConfigSm for: " << name;
  }
  auto it = ftNameToIntfIdMap_.find(name);
  if (it != ftNameToIntfIdMap_.end()) {
    const std::set<Nelo::IntfId> intfs = it->second.intf();  // the handler changes the map
    for (const Nelo::IntfId& intf : intfs) handleFlowTrackerIntfConfig(intf);
  }
}

void ConfigSmBase::handleFlowTrackerIntfConfig() {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleFlowTrackerIntfConfig";
  for (const Nelo::IntfId& intf : hwConfig_->hwIntfFtConfigColl().keys()) {
    if (ethPhyIntfStatusDir_->intfStatusHas(intf) || ethLagIntfStatusDir_->intfStatusHas(intf)) {
      continue;
    }
    auto entry = hwConfig_->hwIntfFtConfig(intf);
    GLINT(trace(), kDiag) << "No matching EthIntfStatus for " << intf << ", in tracker "
                          << entry->hwFtConfig()->name();
    hwConfig_->hwIntfFtConfigDel(intf);
  }
  for (const Nelo::IntfId& intf : config_->flowTrackerIntfConfigColl().keys()) {
    handleFlowTrackerIntfConfig(intf);
  }
}

void ConfigSmBase::handleFlowTrackerIntfConfig(const Nelo::IntfId& intfId) {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleFlowTrackerIntfConfig"
                         << " for " << intfId;
  auto old = intfIdToFtNameMap_.find(intfId);
  if (old != intfIdToFtNameMap_.end()) {
    auto set = ftNameToIntfIdMap_.find(old->second);
    if (set != ftNameToIntfIdMap_.end()) {
      set->second.intfDel(intfId);
      if (set->second.intfs() == 0) ftNameToIntfIdMap_.erase(set);
    }
    intfIdToFtNameMap_.erase(old);
  }
  auto intfConfig = config_->flowTrackerIntfConfig(intfId);
  if (configEnabled() && intfConfig) {
    const Zub::Name& trackerName = intfConfig->trackerName();
    ftNameToIntfIdMap_[trackerName].intfIs(intfId);
    intfIdToFtNameMap_[intfId] = trackerName;
  }
  // The platform says what an interface is; one it does not know yet (a link that does
  // not exist) is taken up when its status appears.
  if (ethLagIntfStatusDir_->intfStatus(intfId) || isLag(intfId)) {
    handleLagIntfStatus(intfId);
  } else if (ethPhyIntfStatusDir_->intfStatus(intfId) || isEthernet(intfId)) {
    handleEthIntfStatus(intfId);
  } else {
    GLINT(trace(), kDiag) << "Interface " << intfId << " is not an Ethernet or port-channel "
                          << "interface (yet)";
  }
}

void ConfigSmBase::handleEthIntfStatus(const Nelo::IntfId& intfId) {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleEthIntfStatus"
                         << " for " << intfId;
  auto status = ethPhyIntfStatusDir_->intfStatus(intfId);
  auto intfConfig = config_->flowTrackerIntfConfig(intfId);
  auto hwFt = intfConfig ? hwConfig_->hwFtConfig(intfConfig->trackerName()) : nullptr;
  const bool enabled = configEnabled();
  const bool wanted = enabled && status && intfConfig && hwFt;
  EthIntfStatusSm* sm = ethIntfStatusSm_.get(intfId);
  if (wanted && sm && sm->intfStatus() == status) {
    // Same status entity: the binding may have changed, evaluate again.
    sm->handleIntfStatusChange();
    return;
  }
  if (!wanted) {
    GLINT(trace(), kDiag) << "intf " << intfId << " configEnabled " << enabled << " ethStatus "
                          << bool(status) << " ftIntfConfig " << bool(intfConfig) << " hwFtConfig "
                          << bool(hwFt);
    if (sm) {
      GLINT(trace(), kLife) << "Deleting EthIntfStatusSm for phy intf " << intfId;
    }
  }
  // A new status entity replaces the reactor: the old binding goes with the old one.
  ethIntfStatusSm_.reconcile(
      intfId, wanted,
      [&] {
        GLINT(trace(), kLife) << "Creating EthIntfStatusSm for phy intf " << intfId;
        return Zub::makeReactor<EthIntfStatusSm>(intfId, status, ctx_);
      },
      [&](const EthIntfStatusSm& existing) { return existing.intfStatus() == status; });
}

void ConfigSmBase::handleLagIntfStatus(const Nelo::IntfId& intfId) {
  GLINT(trace(), kEntry) << "ConfigSmBase::handleLagIntfStatus"
                         << " for " << intfId;
  auto status = ethLagIntfStatusDir_->intfStatus(intfId);
  auto intfConfig = config_->flowTrackerIntfConfig(intfId);
  auto hwFt = intfConfig ? hwConfig_->hwFtConfig(intfConfig->trackerName()) : nullptr;
  const bool enabled = configEnabled();
  const bool wanted = enabled && status && intfConfig && hwFt;
  LagIntfStatusSm* sm = lagIntfStatusSm_.get(intfId);
  if (wanted && sm && sm->intfStatus() == status) {
    // Same status entity: evaluate again, once per member as at start.
    sm->handleLagMemberIntfStatusChange();
    return;
  }
  if (!wanted) {
    GLINT(trace(), kDiag) << "intf " << intfId << " configEnabled " << enabled
                          << " ethLagIntfStatus " << bool(status) << " ftIntfConfig "
                          << bool(intfConfig) << " hwFtConfig " << bool(hwFt);
    if (sm) {
      GLINT(trace(), kLife) << "Deleting lagStatusSm for Lag intf " << intfId;
    }
  }
  lagIntfStatusSm_.reconcile(
      intfId, wanted,
      [&] {
        GLINT(trace(), kLife) << "Creating lagStatusSm for Lag intf " << intfId;
        return Zub::makeReactor<LagIntfStatusSm>(intfId, status, ctx_);
      },
      [&](const LagIntfStatusSm& existing) { return existing.intfStatus() == status; });
}

FtId ConfigSmBase::allocateFtId(const Zub::Name& name) {
  const FtId oldNextId = nextFtId_;
  if (nextFtId_.isNull()) nextFtId_ = FtId(1);
  const FtId start = nextFtId_;
  FtId ftId;
  do {
    const FtId candidate = nextFtId_;
    nextFtId_ = candidate.value() == FtId::maxFtId ? FtId(1) : FtId(candidate.value() + 1);
    if (!ftIdToNameMap_.count(candidate)) {
      ftId = candidate;
      break;
    }
  } while (nextFtId_ != start);
  ZUB_ASSERT(ftId != FtId::null());
  ZUB_ASSERT(oldNextId != nextFtId());
  GLINT(trace(), kState) << "Allocated " << ftId << " for " << name;
  ftIdToNameMap_[ftId] = name;
  return ftId;
}

void ConfigSmBase::releaseFtId(FtId ftId) {
  if (ftId.isNull()) return;
  GLINT(trace(), kState) << "Release FtId " << ftId << " " << ftIdToName(ftId);
  ftIdToNameMap_.erase(ftId);
  nextFtId_ = ftId;  // the id released last is the first one tried next
}

Zub::String ConfigSmBase::ftIdToName(FtId ftId) const {
  auto it = ftIdToNameMap_.find(ftId);
  return it == ftIdToNameMap_.end() ? Zub::String() : it->second;
}

Zub::Ptr<ConfigSmBase> configSmBaseFactory(
    const Zub::Ptr<Config>& config, const Zub::Ptr<Zub::Dir>& agentDir,
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<Interface::AllEthPhyIntfStatusDir>& ethPhyIntfStatusDir,
    const Zub::Ptr<Interface::EthLagIntfStatusDir>& ethLagIntfStatusDir,
    const Zub::Ptr<Ip::Status>& ipStatus, const Zub::Ptr<Ip6::Status>& ip6Status,
    const Zub::Ptr<Ip::AllVrfStatusLocal>& allVrfStatusLocal,
    const Zub::Ptr<Interface::AllIntfStatusDir>& allIntfStatusDir) {
  return Zub::makeReactor<ConfigSmBase>(config, agentDir, hwConfig, ethPhyIntfStatusDir,
                                        ethLagIntfStatusDir, ipStatus, ip6Status, allVrfStatusLocal,
                                        allIntfStatusDir);
}

// ---- EthIntfStatusSm / LagIntfStatusSm ------------------------------------------------

EthIntfStatusSm::EthIntfStatusSm(const Nelo::IntfId& intf,
                                 const Zub::Ptr<Interface::EthIntfStatus>& intfStatus,
                                 const Zub::Ptr<const ConfigContext>& ctx)
    : intf_(intf), intfStatus_(intfStatus), ctx_(ctx) {
  watch(intfStatus_->linkStatusSignal(), [this] { handleIntfStatusChange(); });
  watch(intfStatus_->forwardingModelSignal(), [this] { handleIntfStatusChange(); });
}

void EthIntfStatusSm::handleInitialized() {
  handleIntfStatusChange();
  initialized_ = true;
}

void EthIntfStatusSm::handleDestroyed() { removeBinding_(); }

void EthIntfStatusSm::handleIntfStatusChange() {
  GLINT(trace(), kEntry) << "EthIntfStatusSm::"
                         << "handleIntfStatusChange"
                         << " for " << intf_;
  const auto& hwConfig = ctx_->hwConfig;
  auto intfConfig = ctx_->config->flowTrackerIntfConfig(intf_);
  const bool ftIntfConfig = bool(intfConfig);
  const bool linkUp = intfStatus_->linkStatus() == Interface::LinkStatus::linkUp;
  // The reactor exists for the status of an Ethernet or port-channel interface only.
  const bool fwdModel = static_cast<uint32_t>(intfStatus_->forwardingModel()) > 3;
  GLINT(trace(), kDiag) << "intf " << intf_ << " ftIntfConfig " << ftIntfConfig << " linkUp "
                        << linkUp << " fwdModel " << fwdModel;
  if (!ftIntfConfig || !linkUp || !fwdModel) {
    removeBinding_();
    return;
  }
  const Zub::Name& trackerName = intfConfig->trackerName();
  if (auto entry = hwConfig->hwIntfFtConfig(intf_)) {
    const Zub::Name& oldName = entry->hwFtConfig()->name();
    if (oldName != trackerName) {
      GLINT(trace(), kState) << "intf " << intf_ << " ftName changed from " << oldName << " to "
                             << trackerName;
      removeBinding_();
    }
  }
  auto hwFtConfig = hwConfig->hwFtConfig(trackerName);
  ZUB_ASSERT_TEXT(hwFtConfig != nullptr, "hwFtConfig != __null");
  if (!hwConfig->hwIntfFtConfigHas(intf_)) {
    hwConfig->hwIntfFtConfigIs(intf_, hwFtConfig);
    FLOWTRACKING_TRACKER_ACTIVE.log(ctx_->trackingType, trackerName, intf_);
    GLINT(trace(), kState) << "Added " << intf_ << " to hwIntfFtConfig with " << trackerName;
  }
}

void EthIntfStatusSm::removeBinding_() {
  GLINT(trace(), kEntry) << "EthIntfStatusSm::removeBinding_ for " << intf_;
  auto entry = ctx_->hwConfig->hwIntfFtConfig(intf_);
  if (!entry) return;
  const Zub::Name trackerName = entry->hwFtConfig()->name();
  ctx_->hwConfig->hwIntfFtConfigDel(intf_);
  FLOWTRACKING_TRACKER_INACTIVE.log(ctx_->trackingType, trackerName, intf_);
  GLINT(trace(), kState) << "Deleted " << intf_ << " from hwIntfFtConfig for " << trackerName;
}

LagIntfStatusSm::LagIntfStatusSm(const Nelo::IntfId& intf,
                                 const Zub::Ptr<Interface::EthLagIntfStatus>& lagStatus,
                                 const Zub::Ptr<const ConfigContext>& ctx)
    : EthIntfStatusSm(intf, lagStatus, ctx), lagIntfStatus_(lagStatus) {
  watch(lagIntfStatus_->memberSignal(),
        [this](const Nelo::IntfId& m) { handleLagMemberIntfStatusChange(m); });
}

void LagIntfStatusSm::handleInitialized() {
  handleLagMemberIntfStatusChange();
  initialized_ = true;
}

void LagIntfStatusSm::handleLagMemberIntfStatusChange(const Nelo::IntfId& member) {
  GLINT(trace(), kEntry) << "LagIntfStatusSm::handleLagMemberIntfStatusChange"
                         << " PortChannnel: " << intf_ << ", LagMember: " << member;
  handleIntfStatusChange();
}

void LagIntfStatusSm::handleLagMemberIntfStatusChange() {
  for (const Nelo::IntfId& m : lagIntfStatus_->memberColl().keys()) {
    handleLagMemberIntfStatusChange(m);
  }
}

// ---- FtConfigSm -----------------------------------------------------------------------

FtConfigSm::FtConfigSm(const Zub::Name& ftName, const Zub::Ptr<FlowTrackerConfig>& ftConfig,
                       const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
                       const Zub::Ptr<const ConfigContext>& ctx)
    : ftName_(ftName), ftConfig_(ftConfig), hwFtConfig_(hwFtConfig), ctx_(ctx) {
  watch(ftConfig_->activeIntervalSignal(), [this] { handleActiveInterval(); });
  watch(ftConfig_->inactiveTimeoutSignal(), [this] { handleInactiveTimeout(); });
  watch(ftConfig_->flowCacheSizeSignal(),
        [this] { hwFtConfig_->flowCacheSizeIs(ftConfig_->flowCacheSize()); });
  watch(ftConfig_->expConfigSignal(), [this](const Zub::Name& n) { handleExpConfig(n); });
}

void FtConfigSm::handleInitialized() {
  GLINT(trace(), kEntry) << "FtConfigSm::handleInitialized"
                         << " for " << ftName_;
  handleActiveInterval();
  handleInactiveTimeout();
  hwFtConfig_->flowCacheSizeIs(ftConfig_->flowCacheSize());
  handleExpConfig();
  initialized_ = true;
}

void FtConfigSm::handleActiveInterval() {
  GLINT(trace(), kEntry) << "FtConfigSm::handleActiveInterval"
                         << " for " << ftName_;
  hwFtConfig_->activeIntervalIs(ftConfig_->activeInterval());
}

void FtConfigSm::handleInactiveTimeout() {
  GLINT(trace(), kEntry) << "FtConfigSm::handleInactiveTimeout"
                         << " for " << ftName_;
  hwFtConfig_->inactiveTimeoutIs(ftConfig_->inactiveTimeout());
}

void FtConfigSm::handleExpConfig() {
  for (const Zub::Name& name : hwFtConfig_->expConfigColl().keys()) handleExpConfig(name);
  for (const Zub::Name& name : ftConfig_->expConfigColl().keys()) handleExpConfig(name);
}

void FtConfigSm::handleExpConfig(const Zub::Name& name) {
  GLINT(trace(), kEntry) << "FtConfigSm::handleExpConfig"
                         << " for " << name;
  auto expConfig = ftConfig_->expConfig(name);
  // The hardware entry is written just before its reactor and deleted right after it.
  auto hwExpConfig = expConfig ? hwFtConfig_->expConfigIs(name) : nullptr;
  const bool had = expConfigSm_.has(name) || hwFtConfig_->expConfigHas(name);
  expConfigSm_.reconcile(name, bool(expConfig), [&] {
    auto sm = Zub::makeReactor<ExpConfigSm>(name, ftName_, expConfig, hwExpConfig, ctx_);
    GLINT(trace(), kLife) << "Created ExpConfigSm for " << name;
    return sm;
  });
  if (!expConfig && had) {
    hwFtConfig_->expConfigDel(name);
    GLINT(trace(), kLife) << "Deleted ExpConfigSm for " << name;
  }
}

// ---- ExpConfigSm ----------------------------------------------------------------------

ExpConfigSm::ExpConfigSm(const Zub::Name& expName, const Zub::Name& ftName,
                         const Zub::Ptr<ExporterConfig>& expConfig,
                         const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
                         const Zub::Ptr<const ConfigContext>& ctx)
    : expName_(expName),
      ftName_(ftName),
      expConfig_(expConfig),
      hwExpConfig_(hwExpConfig),
      ctx_(ctx) {
  watch(expConfig_->ipfixVersionSignal(),
        [this] { hwExpConfig_->ipfixVersionIs(expConfig_->ipfixVersion()); });
  watch(expConfig_->templateIntervalSignal(),
        [this] { hwExpConfig_->templateIntervalIs(expConfig_->templateInterval()); });
  watch(expConfig_->dscpValueSignal(),
        [this] { hwExpConfig_->dscpValueIs(expConfig_->dscpValue()); });
  watch(expConfig_->ipfixMtuSignal(), [this] { handleIpfixMtu(); });
  watch(expConfig_->localIntfNameSignal(), [this] { handleLocalIntf(); });
  watch(expConfig_->vrfNameSignal(), [this] { handleVrfName(); });
  watch(expConfig_->collectorHostAndPortSignal(),
        [this](const Zub::String& k) { handleCollectorHostAndPort(k); });
  watch(ctx_->ipStatus->ipIntfStatusSignal(),
        [this](const Nelo::IntfId& i) { handleIpIntfStatus(i); });
  watch(ctx_->ip6Status->intfSignal(), [this](const Nelo::IntfId& i) { handleIp6IntfStatus(i); });
  watch(ctx_->allIntfStatusDir->intfStatusSignal(),
        [this](const Nelo::IntfId& i) { handleLocalIntfStatus(i); });
  watch(ctx_->allVrfStatusLocal->vrfSignal(), [this](const L3::VrfName& v) { handleVrfStatus(v); });
}

void ExpConfigSm::handleInitialized() {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleInitialized"
                         << " for " << expName_;
  hwExpConfig_->ipfixVersionIs(expConfig_->ipfixVersion());
  hwExpConfig_->templateIntervalIs(expConfig_->templateInterval());
  hwExpConfig_->dscpValueIs(expConfig_->dscpValue());
  handleVrfName();
  handleLocalIntf();
  handleCollectorHostAndPort();
  initialized_ = true;
}

void ExpConfigSm::logExporter_(bool active) const {
  const Zub::String& type = ctx_->trackingType;
  (active ? FLOWTRACKING_EXPORTER_ACTIVE : FLOWTRACKING_EXPORTER_INACTIVE)
      .logFacility(kIpfixFacility, type, expName_, hwExpConfig_->vrfName(), type, ftName_);
}

void ExpConfigSm::logCollector_(bool active, const Zub::String& key) const {
  const Zub::String& type = ctx_->trackingType;
  (active ? FLOWTRACKING_COLLECTOR_ACTIVE : FLOWTRACKING_COLLECTOR_INACTIVE)
      .logFacility(kIpfixFacility, type, key, expName_, type, ftName_);
}

template <class Coll, class Dst>
void ExpConfigSm::logSameDestination_(const Zub::String& key, const Coll& coll,
                                      const Dst& dst) const {
  for (const auto& [other, otherDst] : coll) {
    if (other == key || !(otherDst == dst)) continue;
    const Zub::String& type = ctx_->trackingType;
    FLOWTRACKING_COLLECTOR_SAME_DESTINATION.logFacility(kIpfixFacility, type, key, expName_, type,
                                                        ftName_, dst.stringValue(), other);
    return;
  }
}

void ExpConfigSm::handleVrfName() {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleVrfName"
                         << " for " << expName_ << ", vrf: " << expConfig_->vrfName();
  hwExpConfig_->vrfNameIs(expConfig_->vrfName());
  handleSrcAddress();
}

void ExpConfigSm::handleLocalIntf() {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleLocalIntf"
                         << " for " << expName_;
  if (expConfig_->localIntfName() != localIntfName_) {
    // Never leave an exporter ready while its source interface changes.
    if (hwExpConfig_->exporterReady()) {
      hwExpConfig_->exporterReadyIs(false);
      logExporter_(false);
      GLINT(trace(), kState) << "Updating exporterReady to false";
    }
    localIntfName_ = expConfig_->localIntfName();
  }
  hwExpConfig_->routedSourceIs(localIntfName_.empty());
  if (!localIntfName_.empty()) {
    GLINT(trace(), kState) << "Setting srcIntf to " << localIntfName_;
    bindLocalIntf_(Nelo::IntfId(localIntfName_));
  } else {
    localIntfSubs_.clear();
    localIntfStatus_ = nullptr;
    bindIpIntfStatus_(nullptr);
    bindIp6IntfStatus_(nullptr);
  }
  handleSrcAddress();
}

void ExpConfigSm::bindLocalIntf_(const Nelo::IntfId& id) {
  bindLocalIntfStatus_(ctx_->allIntfStatusDir->intfStatus(id));
  bindIpIntfStatus_(ctx_->ipStatus->ipIntfStatus(id));
  bindIp6IntfStatus_(ctx_->ip6Status->intf(id));
}

void ExpConfigSm::bindLocalIntfStatus_(const Zub::Ptr<Interface::IntfStatus>& s) {
  if (s == localIntfStatus_) return;
  localIntfSubs_.clear();
  localIntfStatus_ = s;
  if (s) watch(localIntfSubs_, s->mtuSignal(), [this] { handleIpfixMtu(); });
}

void ExpConfigSm::bindIpIntfStatus_(const Zub::Ptr<Ip::IpIntfStatus>& s) {
  if (s != ipIntfStatus_) {
    ipIntfSubs_.clear();
    ipIntfStatus_ = s;
    if (s) {
      watch(ipIntfSubs_, s->activeAddrWithMaskSignal(), [this] { handleSrcAddress(); });
      watch(ipIntfSubs_, s->l3StatusSignal(), [this] {
        bindL3Status_(ipIntfStatus_->l3Status());
        handleSrcAddress();
      });
    }
  }
  bindL3Status_(s ? s->l3Status() : nullptr);
}

void ExpConfigSm::bindIp6IntfStatus_(const Zub::Ptr<Ip6::IntfStatus>& s) {
  if (s == ip6IntfStatus_) return;
  ip6IntfSubs_.clear();
  ip6IntfStatus_ = s;
  if (s) watch(ip6IntfSubs_, s->addrSignal(), [this](const auto&) { handleSrcAddress(); });
}

void ExpConfigSm::bindL3Status_(const Zub::Ptr<L3::IntfStatus>& s) {
  if (s == l3Status_) return;
  l3Subs_.clear();
  l3Status_ = s;
  if (s) watch(l3Subs_, s->vrfSignal(), [this] { handleSrcAddress(); });
}

void ExpConfigSm::bindVrfStatusLocal_(const Zub::Ptr<Ip::VrfStatusLocal>& s) {
  if (s == vrfStatusLocal_) return;
  vrfSubs_.clear();
  vrfStatusLocal_ = s;
  if (s) {
    watch(vrfSubs_, s->stateSignal(), [this] { handleSrcAddress(); });
    watch(vrfSubs_, s->deviceSignal(), [this] { handleSrcAddress(); });
  }
}

void ExpConfigSm::handleIpIntfStatus(const Nelo::IntfId& intfId) {
  if (localIntfName_.empty() || intfId.name() != localIntfName_) return;
  GLINT(trace(), kEntry) << "ExpConfigSm::handleIpIntfStatus"
                         << " for " << expName_;
  auto s = ctx_->ipStatus->ipIntfStatus(intfId);
  GLINT(trace(), kState) << "Intf " << intfId << (s ? " created" : " deleted");
  bindIpIntfStatus_(s);
  handleSrcAddress();
}

void ExpConfigSm::handleIp6IntfStatus(const Nelo::IntfId& intfId) {
  if (localIntfName_.empty() || intfId.name() != localIntfName_) return;
  GLINT(trace(), kEntry) << "ExpConfigSm::handleIp6IntfStatus"
                         << " for " << expName_;
  auto s = ctx_->ip6Status->intf(intfId);
  GLINT(trace(), kState) << "Intf " << intfId << (s ? " created" : " deleted");
  bindIp6IntfStatus_(s);
  handleSrcAddress();
}

void ExpConfigSm::handleLocalIntfStatus(const Nelo::IntfId& intfId) {
  // The local interface's status may come and go after the exporter was configured.
  if (localIntfName_.empty() || intfId.name() != localIntfName_) return;
  GLINT(trace(), kEntry) << "ExpConfigSm::handleLocalIntfStatus"
                         << " for " << expName_;
  bindLocalIntfStatus_(ctx_->allIntfStatusDir->intfStatus(intfId));
  handleIpfixMtu();
}

void ExpConfigSm::handleVrfStatus(const L3::VrfName& vrfName) {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleVrfStatus"
                         << " for " << expName_ << ", vrf: " << vrfName;
  handleSrcAddress();
}

void ExpConfigSm::handleSrcAddress() {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleSrcAddress"
                         << " for " << expName_;
  bindVrfStatusLocal_(ctx_->allVrfStatusLocal->vrf(hwExpConfig_->vrfName()));
  // The default VRF is the host's own table: its exporters are never bound to a device.
  const bool bound = vrfStatusLocal_ && hwExpConfig_->vrfName().name() != "default";
  hwExpConfig_->vrfDeviceIs(bound ? vrfStatusLocal_->device() : Zub::Name());
  updateIpAddr();
  updateIp6Addr();
  handleIpfixMtu();
  updateExporterReady();
}

Nelo::IpAddr ExpConfigSm::getIpAddr() const {
  return ipIntfStatus_ ? ipIntfStatus_->activeAddrWithMask().addr : Nelo::IpAddr();
}

void ExpConfigSm::updateIpAddr() {
  const Nelo::IpAddr a = getIpAddr();
  if (a == hwExpConfig_->srcIpAddr()) return;
  hwExpConfig_->srcIpAddrIs(a);
  GLINT(trace(), kState) << "Updated IPv4 Addr to " << a;
}

Nelo::Ip6Addr ExpConfigSm::getIp6Addr() const {
  if (!ip6IntfStatus_) return Nelo::Ip6Addr();
  const Nelo::Ip6Addr current = hwExpConfig_->srcIp6Addr();
  // The chosen source is sticky while it stays assigned to the interface.
  for (const auto& [a, present] : ip6IntfStatus_->addrColl()) {
    if (a.addr == current && !current.isZero()) return current;
  }
  for (const auto& [a, present] : ip6IntfStatus_->addrColl()) {
    GLINT(trace(), kDiag) << "Available IPv6 address " << a.addr;
    if (verifyIp6Addr(a.addr)) return a.addr;
    GLINT(trace(), kDiag) << "Rejecting IPv6 address " << a.addr;
  }
  return Nelo::Ip6Addr();
}

void ExpConfigSm::updateIp6Addr() {
  const Nelo::Ip6Addr a = getIp6Addr();
  if (a == hwExpConfig_->srcIp6Addr()) return;
  hwExpConfig_->srcIp6AddrIs(a);
  GLINT(trace(), kState) << "Updated IPv6 Addr to " << a;
}

void ExpConfigSm::handleIpfixMtu() {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleIpfixMtu"
                         << " for " << expName_;
  const uint32_t configured = expConfig_->ipfixMtu().value();
  uint32_t mtu = configured;
  if (hwExpConfig_->routedSource()) mtu = std::min(mtu, kRoutedMtu);
  if (localIntfStatus_) {
    mtu = std::min(mtu, localIntfStatus_->mtu());
    mtu = std::max(mtu, IpfixMtu::minMtu);
  }
  if (mtu == hwExpConfig_->ipfixMtu().value()) return;
  GLINT(trace(), kState) << ", cfg ipfixMtu: " << configured;
  GLINT(trace(), kState) << "set MTU to: " << mtu;
  hwExpConfig_->ipfixMtuIs(IpfixMtu(mtu));
}

bool ExpConfigSm::isValidIp6Addr() const {
  const Nelo::Ip6Addr src = hwExpConfig_->srcIp6Addr();
  const size_t dsts = hwExpConfig_->collectorIp6AndPortSize();
  const bool valid = (hwExpConfig_->routedSource() || verifyIp6Addr(src)) && dsts > 0;
  GLINT(trace(), kDiag) << "src " << src << ", num_ipv6_dst " << dsts << ", isValid " << valid;
  return valid;
}

bool ExpConfigSm::isValidIpAddr() const {
  const Nelo::IpAddr src = hwExpConfig_->srcIpAddr();
  const size_t dsts = hwExpConfig_->collectorIpAndPortSize();
  const L3::VrfName& vrf = hwExpConfig_->vrfName();
  bool validVrf = vrf.name() == "default" ||
                  (vrfStatusLocal_ && vrfStatusLocal_->state() == Ip::VrfState::vrfActive);
  // The kernel picking the source: the VRF is all there is to check.
  if (hwExpConfig_->routedSource()) return dsts > 0 && validVrf;
  validVrf = validVrf && l3Status_ && l3Status_->vrf() == vrf;
  GLINT(trace(), kDiag) << "src " << src << ", num_ipv4_dst " << dsts << ", validVrf " << validVrf;
  return verifyIpAddr(src) && dsts > 0 && validVrf;
}

void ExpConfigSm::updateExporterReady() {
  // IPv6 first; the IPv6 path does not look at the VRF.
  const bool valid6 = isValidIp6Addr();
  const bool valid4 = isValidIpAddr();
  // Collectors of a family the exporter cannot send from receive nothing: said once each
  // time it happens, whether or not the other family keeps the exporter active.
  const bool stranded[2] = {hwExpConfig_->collectorIpAndPortSize() > 0 && !valid4,
                            hwExpConfig_->collectorIp6AndPortSize() > 0 && !valid6};
  for (int v6 = 0; v6 < 2; ++v6) {
    if (stranded[v6] && !stranded_[v6]) {
      const Zub::String& type = ctx_->trackingType;
      const char* family = v6 ? "6" : "4";
      FLOWTRACKING_EXPORTER_NO_SOURCE.logFacility(
          kIpfixFacility, type, expName_, type, ftName_, family,
          localIntfName_.empty() ? std::string("(none)") : std::string(localIntfName_), family,
          v6 ? "" : " in an active VRF");
    }
    stranded_[v6] = stranded[v6];
  }
  const bool ready = valid6 || valid4;
  if (ready == hwExpConfig_->exporterReady()) return;
  GLINT(trace(), kState) << "Updating exporterReady to " << ready;
  hwExpConfig_->exporterReadyIs(ready);
  logExporter_(ready);
}

void ExpConfigSm::handleCollectorHostAndPort() {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleCollectorHostAndPort"
                         << " for " << expName_;
  for (const Zub::String& key : hwExpConfig_->collectorIpAndPortColl().keys()) {
    if (!expConfig_->collectorHostAndPortHas(key)) deleteCollector(key);
  }
  for (const Zub::String& key : hwExpConfig_->collectorIp6AndPortColl().keys()) {
    if (!expConfig_->collectorHostAndPortHas(key)) deleteCollector(key);
  }
  std::erase_if(collectorNames_,
                [this](const auto& kv) { return !expConfig_->collectorHostAndPortHas(kv.first); });
  handleSrcAddress();
  for (const Zub::String& key : expConfig_->collectorHostAndPortColl().keys()) {
    handleCollectorHostAndPort(key);
  }
}

void ExpConfigSm::handleCollectorHostAndPort(const Zub::String& key) {
  GLINT(trace(), kEntry) << "ExpConfigSm::handleCollectorHostAndPort"
                         << " for " << expName_ << ", collector " << key;
  const Nelo::HostAndPort hp = expConfig_->collectorHostAndPort(key);
  if (hp == Nelo::HostAndPort()) {
    deleteCollector(key);
    handleSrcAddress();
    return;
  }
  CollectorName& cn = collectorNames_[key];
  cn.hostAndPort = hp;
  // A new watch looks the name up again; the previous one stops with it.
  std::optional<Resolution> now;
  cn.watch = ctx_->names->watch(
      hp.host, [this, key](const Resolution& r) { handleCollectorResolution(key, r); }, now);
  if (!now) {
    GLINT(trace(), kState) << "Hostname: " << hp.host << " is being resolved";
    return;
  }
  handleCollectorResolution(key, *now);
}

void ExpConfigSm::handleCollectorResolution(const Zub::String& key, const Resolution& r) {
  auto it = collectorNames_.find(key);
  if (it == collectorNames_.end()) return;
  CollectorName& cn = it->second;
  const Nelo::HostAndPort hp = cn.hostAndPort;
  if (!r.addr) {
    // Keep what an earlier resolution gave: a transient failure changes nothing.
    GLINT(trace(), kState) << "Hostname: " << hp.host << " was not resolved";
    if (cn.unresolvedLogged) return;
    cn.unresolvedLogged = true;
    std::string kept;
    if (hwExpConfig_->collectorIpAndPortHas(key)) {
      kept = hwExpConfig_->collectorIpAndPort(key).stringValue();
    } else if (hwExpConfig_->collectorIp6AndPortHas(key)) {
      kept = hwExpConfig_->collectorIp6AndPort(key).stringValue();
    }
    const Zub::String& type = ctx_->trackingType;
    FLOWTRACKING_COLLECTOR_NOT_RESOLVED.logFacility(
        kIpfixFacility, type, key, expName_, type, ftName_, r.error,
        kept.empty() ? std::string("nothing is exported to it until it does.")
                     : "export goes on to its previous address " + kept + ".");
    return;
  }
  const Nelo::IpGenAddr* addr = &*r.addr;
  if (cn.unresolvedLogged) {
    cn.unresolvedLogged = false;
    // Resolved again to the address it kept: say so, as a new address would.
    const bool same =
        addr->family == Nelo::IpGenAddr::ipv4
            ? hwExpConfig_->collectorIpAndPortHas(key) &&
                  hwExpConfig_->collectorIpAndPort(key) == Nelo::IpAndPort{addr->ipAddr(), hp.port}
            : hwExpConfig_->collectorIp6AndPortHas(key) &&
                  hwExpConfig_->collectorIp6AndPort(key) ==
                      Nelo::Ip6AndPort{addr->ip6Addr(), hp.port};
    if (same) logCollector_(true, key);
  }
  // The name's address of each family it has; a family it no longer has goes.
  const Nelo::IpGenAddr* v4 = addr->family == Nelo::IpGenAddr::ipv4 ? addr : nullptr;
  const Nelo::IpGenAddr* v6 = addr->family == Nelo::IpGenAddr::ipv4 ? nullptr : addr;
  if (r.other) (v4 ? v6 : v4) = &*r.other;
  if (!v4 && hwExpConfig_->collectorIpAndPortDel(key)) {
    GLINT(trace(), kState) << "No IPv4 address for " << key << " any more";
  }
  if (!v6 && hwExpConfig_->collectorIp6AndPortDel(key)) {
    GLINT(trace(), kState) << "No IPv6 address for " << key << " any more";
  }
  if (v4) {
    const Nelo::IpAndPort dst{v4->ipAddr(), hp.port};
    if (!(hwExpConfig_->collectorIpAndPort(key) == dst &&
          hwExpConfig_->collectorIpAndPortHas(key))) {
      if (verifyIpAddr(dst.addr)) {
        GLINT(trace(), kState) << "Updating Ip Addr for " << key << " with " << dst;
        hwExpConfig_->collectorIpAndPortIs(key, dst);
        logCollector_(true, key);
        logSameDestination_(key, hwExpConfig_->collectorIpAndPortColl(), dst);
      } else {
        deleteCollector(key);
        handleSrcAddress();
        return;
      }
    }
  }
  if (v6) {
    const Nelo::Ip6AndPort dst{v6->ip6Addr(), hp.port};
    if (!(hwExpConfig_->collectorIp6AndPort(key) == dst &&
          hwExpConfig_->collectorIp6AndPortHas(key))) {
      if (verifyIp6Addr(dst.addr)) {
        GLINT(trace(), kState) << "Updating Ipv6 Addr for " << key << " with " << dst;
        hwExpConfig_->collectorIp6AndPortIs(key, dst);
        logCollector_(true, key);
        logSameDestination_(key, hwExpConfig_->collectorIp6AndPortColl(), dst);
      } else {
        deleteCollector(key);
        handleSrcAddress();
        return;
      }
    }
  }
  handleSrcAddress();
}

void ExpConfigSm::deleteCollector(const Zub::String& key) {
  if (!expConfig_->collectorHostAndPortHas(key)) collectorNames_.erase(key);
  const bool had4 = hwExpConfig_->collectorIpAndPortDel(key);
  const bool had6 = hwExpConfig_->collectorIp6AndPortDel(key);
  if (!had4 && !had6) return;
  GLINT(trace(), kState) << "Removed collector " << key;
  logCollector_(false, key);
}

}  // namespace FlowTracking
