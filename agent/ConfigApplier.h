#pragma once
// Writes a parsed configuration into the entities. Setters notify only on change, and
// members that are unchanged are left alone, so applying a file again applies only its
// differences: unchanged trackers keep their FtId, unchanged collectors their sequence
// numbers and endpoints.

#include <map>

#include "agent/AgentConfig.h"
#include "config/FlowTrackerConfig.h"
#include "platform/status/Interface.h"
#include "platform/status/IntfIndexMap.h"
#include "platform/status/Ip.h"

namespace Agent {

struct StatusEntities {
  Zub::Ptr<Interface::AllEthPhyIntfStatusDir> ethPhy{new Interface::AllEthPhyIntfStatusDir()};
  Zub::Ptr<Interface::EthLagIntfStatusDir> ethLag{new Interface::EthLagIntfStatusDir()};
  Zub::Ptr<Interface::AllIntfStatusDir> allIntf{new Interface::AllIntfStatusDir()};
  Zub::Ptr<Ip::Status> ip{new Ip::Status()};
  Zub::Ptr<Ip6::Status> ip6{new Ip6::Status()};
  Zub::Ptr<Ip::AllVrfStatusLocal> vrfs{new Ip::AllVrfStatusLocal()};
  Zub::Ptr<Vrf::VrfIdMap::Status> vrfIdMap{new Vrf::VrfIdMap::Status()};
  std::map<Nelo::IntfId, Zub::Ptr<L3::IntfStatus>> l3;
  // Interface index as the hardware reports it in flow records, both ways.
  Zub::Ptr<FlowTracking::IntfIndexMap> intfIndexMap{new FlowTracking::IntfIndexMap()};
};

// The platform section: interfaces, their addresses and VRFs, VRF states, interface
// indexes and VRF ids. An interface (VRF) without a configured index (id) gets the
// lowest one that no other interface (VRF) has, in name order, and keeps it across
// reloads while it exists and nobody is configured with it; the VRF "default" gets 0.
void applyPlatform(StatusEntities& status, const AgentConfig& cfg);
void applyIntfIndexes(StatusEntities& status, const AgentConfig& cfg);
void applyVrfIds(StatusEntities& status, const AgentConfig& cfg);
// The flow-tracking section; its interface bindings as given (see below).
void applyFlowTracking(const Zub::Ptr<FlowTracking::Config>& config, const AgentConfig& cfg);
// Binds each interface to its tracker, unbinds the others.
void applyInterfaceBindings(const Zub::Ptr<FlowTracking::Config>& config,
                            const std::map<std::string, std::string>& bindings);
// The bindings as written, with "*" bound to every Ethernet interface and port-channel of
// the platform that no binding names.
std::map<std::string, std::string> expandInterfaceBindings(
    const StatusEntities& status, const std::map<std::string, std::string>& written);

}  // namespace Agent
