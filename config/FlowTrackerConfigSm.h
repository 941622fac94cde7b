#pragma once
// The configuration reactors: from the operator's configuration and the interface, IP
// and VRF status, they derive the hardware flow-tracking configuration.
//
//   ConfigSmBase       one per agent: sample rate, trackers and their FtIds, interface
//                      bindings; agent activity and the operator log messages
//   FtConfigSm         one per active tracker: timers, exporters
//   ExpConfigSm        one per exporter: collectors resolved, source addresses, MTU,
//                      readiness
//   EthIntfStatusSm    one per Ethernet interface bound to an active tracker
//   LagIntfStatusSm    the same for a port-channel

#include <map>
#include <memory>
#include <optional>
#include <set>

#include "config/HwFlowTrackingConfig.h"
#include "config/NameResolver.h"
#include "platform/hollin/CAgent.h"
#include "platform/status/Interface.h"
#include "platform/status/Ip.h"
#include "platform/zub/ChildMap.h"
#include "platform/zub/Dir.h"
#include "platform/zub/LogHandle.h"

namespace FlowTracking {

// Operator log messages, defined once at load time.
extern const Zub::LogHandle FLOWTRACKING_ACTIVE;
extern const Zub::LogHandle FLOWTRACKING_INACTIVE;
extern const Zub::LogHandle FLOWTRACKING_TRACKER_ACTIVE;
extern const Zub::LogHandle FLOWTRACKING_TRACKER_INACTIVE;
extern const Zub::LogHandle FLOWTRACKING_EXPORTER_ACTIVE;
extern const Zub::LogHandle FLOWTRACKING_EXPORTER_INACTIVE;
extern const Zub::LogHandle FLOWTRACKING_COLLECTOR_ACTIVE;
extern const Zub::LogHandle FLOWTRACKING_COLLECTOR_INACTIVE;
extern const Zub::LogHandle FLOWTRACKING_COLLECTOR_NOT_RESOLVED;
extern const Zub::LogHandle FLOWTRACKING_EXPORTER_NO_SOURCE;
extern const Zub::LogHandle FLOWTRACKING_COLLECTOR_SAME_DESTINATION;

// Address checks for sources and collectors.
bool verifyIpAddr(const Nelo::IpAddr& a);    // not 0.0.0.0, broadcast or multicast
bool verifyIp6Addr(const Nelo::Ip6Addr& a);  // not ::, ff02::1, multicast or link-local

bool isEthernet(const Nelo::IntfId& intf);
bool isLag(const Nelo::IntfId& intf);

// The interfaces bound to one tracker.
class FtNameToIntfIdMap {
 public:
  void intfIs(const Nelo::IntfId& i) { intf_.insert(i); }
  void intfDel(const Nelo::IntfId& i) { intf_.erase(i); }
  size_t intfs() const { return intf_.size(); }
  const std::set<Nelo::IntfId>& intf() const { return intf_; }

 private:
  std::set<Nelo::IntfId> intf_;
};

// What ConfigSmBase hands down to its children: the inputs they read and the services
// they use. Shared by reference count, so a child never reaches into its parent.
struct ConfigContext : Zub::PtrInterface {
  Zub::Ptr<Config> config;
  Zub::Ptr<HwFlowTracking::Config> hwConfig;
  Zub::Ptr<Ip::Status> ipStatus;
  Zub::Ptr<Ip6::Status> ip6Status;
  Zub::Ptr<Ip::AllVrfStatusLocal> allVrfStatusLocal;
  Zub::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir;
  std::shared_ptr<NameResolver> names;
  Zub::String trackingType;  // the agent's word for its flow tracking, in log messages
};

// Binds one Ethernet interface to its tracker in the hardware configuration while the
// interface is configured for tracking, up and forwarding; the binding goes with the
// reactor.
class EthIntfStatusSm : public Zub::Reactor {
 public:
  EthIntfStatusSm(const Nelo::IntfId& intf, const Zub::Ptr<Interface::EthIntfStatus>& intfStatus,
                  const Zub::Ptr<const ConfigContext>& ctx);
  void handleInitialized() override;
  void handleDestroyed() override;
  void handleIntfStatusChange();
  const Nelo::IntfId& intf() const { return intf_; }
  const Zub::Ptr<Interface::EthIntfStatus>& intfStatus() const { return intfStatus_; }
  bool initialized() const { return initialized_; }

 protected:
  // Removes the interface's hardware binding, logged once.
  void removeBinding_();

  Nelo::IntfId intf_;
  Zub::Ptr<Interface::EthIntfStatus> intfStatus_;
  Zub::Ptr<const ConfigContext> ctx_;
  bool initialized_ = false;
};

class LagIntfStatusSm : public EthIntfStatusSm {
 public:
  LagIntfStatusSm(const Nelo::IntfId& intf, const Zub::Ptr<Interface::EthLagIntfStatus>& lagStatus,
                  const Zub::Ptr<const ConfigContext>& ctx);
  void handleInitialized() override;
  void handleLagMemberIntfStatusChange(const Nelo::IntfId& member);
  void handleLagMemberIntfStatusChange();

 private:
  Zub::Ptr<Interface::EthLagIntfStatus> lagIntfStatus_;
};

class ExpConfigSm : public Zub::Reactor {
 public:
  ExpConfigSm(const Zub::Name& expName, const Zub::Name& ftName,
              const Zub::Ptr<ExporterConfig>& expConfig,
              const Zub::Ptr<HwFlowTracking::ExporterConfig>& hwExpConfig,
              const Zub::Ptr<const ConfigContext>& ctx);
  void handleInitialized() override;

  void handleVrfName();
  void handleLocalIntf();
  void handleIpIntfStatus(const Nelo::IntfId& intfId);
  void handleIp6IntfStatus(const Nelo::IntfId& intfId);
  void handleLocalIntfStatus(const Nelo::IntfId& intfId);
  void handleVrfStatus(const L3::VrfName& vrfName);
  void handleSrcAddress();
  void handleIpfixMtu();
  void handleCollectorHostAndPort();
  void handleCollectorHostAndPort(const Zub::String& key);
  void deleteCollector(const Zub::String& key);
  // An answer for the collector's host, now or later from the background.
  void handleCollectorResolution(const Zub::String& key, const Resolution& r);

  Nelo::IpAddr getIpAddr() const;
  Nelo::Ip6Addr getIp6Addr() const;
  void updateIpAddr();
  void updateIp6Addr();
  bool isValidIpAddr() const;
  bool isValidIp6Addr() const;
  void updateExporterReady();

  const Zub::String& localIntfName() const { return localIntfName_; }
  bool initialized() const { return initialized_; }

 private:
  void bindLocalIntf_(const Nelo::IntfId& id);
  void bindLocalIntfStatus_(const Zub::Ptr<Interface::IntfStatus>& s);
  void bindIpIntfStatus_(const Zub::Ptr<Ip::IpIntfStatus>& s);
  void bindIp6IntfStatus_(const Zub::Ptr<Ip6::IntfStatus>& s);
  void bindL3Status_(const Zub::Ptr<L3::IntfStatus>& s);
  void bindVrfStatusLocal_(const Zub::Ptr<Ip::VrfStatusLocal>& s);
  void logExporter_(bool active) const;
  void logCollector_(bool active, const Zub::String& key) const;
  // Says so when another collector of this exporter already has the destination `dst`.
  template <class Coll, class Dst>
  void logSameDestination_(const Zub::String& key, const Coll& coll, const Dst& dst) const;

  // A configured collector's host as followed by the name resolver.
  struct CollectorName {
    Nelo::HostAndPort hostAndPort;
    NameResolver::WatchPtr watch;
    bool unresolvedLogged = false;
  };

  Zub::Name expName_;
  Zub::Name ftName_;
  Zub::Ptr<ExporterConfig> expConfig_;
  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
  Zub::Ptr<const ConfigContext> ctx_;

  Zub::String localIntfName_;
  Zub::Ptr<Interface::IntfStatus> localIntfStatus_;
  Zub::Ptr<Ip::IpIntfStatus> ipIntfStatus_;
  Zub::Ptr<Ip6::IntfStatus> ip6IntfStatus_;
  Zub::Ptr<L3::IntfStatus> l3Status_;
  Zub::Ptr<Ip::VrfStatusLocal> vrfStatusLocal_;
  Zub::Subscriptions localIntfSubs_, ipIntfSubs_, ip6IntfSubs_, l3Subs_, vrfSubs_;
  std::map<Zub::String, CollectorName> collectorNames_;
  // Per family (IPv4, IPv6): it has collectors and no source, and was logged so.
  bool stranded_[2] = {false, false};
  bool initialized_ = false;
};

class FtConfigSm : public Zub::Reactor {
 public:
  FtConfigSm(const Zub::Name& ftName, const Zub::Ptr<FlowTrackerConfig>& ftConfig,
             const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig,
             const Zub::Ptr<const ConfigContext>& ctx);
  void handleInitialized() override;
  void handleActiveInterval();
  void handleInactiveTimeout();
  void handleExpConfig();
  void handleExpConfig(const Zub::Name& name);
  const Zub::ChildMap<Zub::Name, ExpConfigSm>& expConfigSm() const { return expConfigSm_; }
  bool initialized() const { return initialized_; }

 private:
  Zub::Name ftName_;
  Zub::Ptr<FlowTrackerConfig> ftConfig_;
  Zub::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
  Zub::Ptr<const ConfigContext> ctx_;
  Zub::ChildMap<Zub::Name, ExpConfigSm> expConfigSm_{this};
  bool initialized_ = false;
};

class ConfigSmBase : public Zub::Reactor {
 public:
  ConfigSmBase(const Zub::Ptr<Config>& config, const Zub::Ptr<Zub::Dir>& agentDir,
               const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
               const Zub::Ptr<Interface::AllEthPhyIntfStatusDir>& ethPhyIntfStatusDir,
               const Zub::Ptr<Interface::EthLagIntfStatusDir>& ethLagIntfStatusDir,
               const Zub::Ptr<Ip::Status>& ipStatus, const Zub::Ptr<Ip6::Status>& ip6Status,
               const Zub::Ptr<Ip::AllVrfStatusLocal>& allVrfStatusLocal,
               const Zub::Ptr<Interface::AllIntfStatusDir>& allIntfStatusDir);
  void handleInitialized() override;

  // Hooks for the agent.
  virtual void initializeDefaultGroups(const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig);
  virtual void handleConfigEnabled();
  virtual bool configEnabled() const;
  virtual Zub::String agentName() const;
  virtual Zub::String trackingTypeString() const;

  void handleStartup();
  void handleShutdown(Hollin::CAgent* agent);
  void handleFtrConfig();
  void handleSampleRate();
  void handleFlowTrackerConfig();
  void handleFlowTrackerConfig(const Zub::Name& name);
  void handleFlowTrackerIntfConfig();
  void handleFlowTrackerIntfConfig(const Nelo::IntfId& intfId);
  void handleEthIntfStatus(const Nelo::IntfId& intfId);
  void handleLagIntfStatus(const Nelo::IntfId& intfId);

  FtId allocateFtId(const Zub::Name& name);
  void releaseFtId(FtId ftId);
  Zub::String ftIdToName(FtId ftId) const;

  // Name resolution for collectors: the system resolver, inline, unless the agent
  // installs one that resolves in the background or a test installs a scripted one.
  // Exporters made afterwards use it.
  NameResolver& names() const { return *ctx_->names; }
  void namesIs(std::shared_ptr<NameResolver> n) { ctx_->names = std::move(n); }
  void resolverIs(std::shared_ptr<Resolver> r) {
    ctx_->names = std::make_shared<NameResolver>(std::move(r));
  }

  const Zub::Ptr<Config>& config() const { return config_; }
  const Zub::Ptr<Zub::Dir>& agentDir() const { return agentDir_; }
  const Zub::Ptr<HwFlowTracking::Config>& hwConfig() const { return hwConfig_; }

  FtId nextFtId() const { return nextFtId_; }
  void nextFtIdIs(FtId id) { nextFtId_ = id; }
  const std::map<FtId, Zub::String>& ftIdToNameMap() const { return ftIdToNameMap_; }
  const Zub::ChildMap<Zub::Name, FtConfigSm>& ftConfigSm() const { return ftConfigSm_; }
  const Zub::ChildMap<Nelo::IntfId, EthIntfStatusSm>& ethIntfStatusSm() const {
    return ethIntfStatusSm_;
  }
  const Zub::ChildMap<Nelo::IntfId, LagIntfStatusSm>& lagIntfStatusSm() const {
    return lagIntfStatusSm_;
  }
  const std::map<Zub::Name, FtNameToIntfIdMap>& ftNameToIntfIdMap() const {
    return ftNameToIntfIdMap_;
  }
  bool exitAgent() const { return exitAgent_; }

 private:
  Zub::Ptr<Config> config_;
  Zub::Ptr<Zub::Dir> agentDir_;
  Zub::Ptr<HwFlowTracking::Config> hwConfig_;
  Zub::Ptr<Interface::AllEthPhyIntfStatusDir> ethPhyIntfStatusDir_;
  Zub::Ptr<Interface::EthLagIntfStatusDir> ethLagIntfStatusDir_;
  Zub::Ptr<ConfigContext> ctx_;

  std::map<FtId, Zub::String> ftIdToNameMap_;
  FtId nextFtId_;
  std::map<Zub::Name, FtNameToIntfIdMap> ftNameToIntfIdMap_;
  std::map<Nelo::IntfId, Zub::Name> intfIdToFtNameMap_;
  // Torn down in reverse order: interface bindings first, then trackers.
  Zub::ChildMap<Zub::Name, FtConfigSm> ftConfigSm_{this};
  Zub::ChildMap<Nelo::IntfId, EthIntfStatusSm> ethIntfStatusSm_{this};
  Zub::ChildMap<Nelo::IntfId, LagIntfStatusSm> lagIntfStatusSm_{this};
  bool exitAgent_ = false;
};

Zub::Ptr<ConfigSmBase> configSmBaseFactory(
    const Zub::Ptr<Config>& config, const Zub::Ptr<Zub::Dir>& agentDir,
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<Interface::AllEthPhyIntfStatusDir>& ethPhyIntfStatusDir,
    const Zub::Ptr<Interface::EthLagIntfStatusDir>& ethLagIntfStatusDir,
    const Zub::Ptr<Ip::Status>& ipStatus, const Zub::Ptr<Ip6::Status>& ip6Status,
    const Zub::Ptr<Ip::AllVrfStatusLocal>& allVrfStatusLocal,
    const Zub::Ptr<Interface::AllIntfStatusDir>& allIntfStatusDir);

}  // namespace FlowTracking
