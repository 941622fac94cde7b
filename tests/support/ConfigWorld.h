#pragma once
// A complete set of configuration, status and hardware entities with a running
// ConfigSmBase, for scenario tests: helpers set up interfaces, trackers, exporters and
// collectors the way the command layer and the platform would.

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/FlowTrackerConfigSm.h"
#include "platform/zub/LogHandle.h"

namespace TestSupport {

// A resolver with scripted answers; address literals resolve to themselves unless
// scripted otherwise. Safe to call from the resolver's worker threads. A held name
// blocks its callers until it is released, as a name server that does not answer.
class FakeResolver : public FlowTracking::Resolver {
 public:
  FlowTracking::Resolution resolve(const std::string& host) override;
  // `other`: an address of the other family the name has too.
  void answerIs(const std::string& host, const std::string& address, const std::string& other = "");
  void failIs(const std::string& host, const std::string& error = "Name or service not known");
  void hold(const std::string& host);
  void release(const std::string& host);
  int calls() const;

 private:
  mutable std::mutex mu_;
  std::condition_variable released_;
  std::map<std::string, FlowTracking::Resolution> answers_;
  std::set<std::string> held_;
  int calls_ = 0;
};

struct ConfigWorld {
  ConfigWorld();
  ~ConfigWorld();

  Zub::Ptr<FlowTracking::Config> config;
  Zub::Ptr<Zub::Dir> agentDir;
  Zub::Ptr<HwFlowTracking::Config> hwConfig;
  Zub::Ptr<Interface::AllEthPhyIntfStatusDir> ethPhy;
  Zub::Ptr<Interface::EthLagIntfStatusDir> ethLag;
  Zub::Ptr<Ip::Status> ipStatus;
  Zub::Ptr<Ip6::Status> ip6Status;
  Zub::Ptr<Ip::AllVrfStatusLocal> vrfs;
  Zub::Ptr<Interface::AllIntfStatusDir> allIntf;
  std::shared_ptr<FakeResolver> resolver = std::make_shared<FakeResolver>();
  Zub::Ptr<FlowTracking::ConfigSmBase> sm;

  // Creates the ConfigSmBase (with the fake resolver) and runs handleStartup.
  void start();

  // An Ethernet or port-channel interface with link and forwarding model.
  Zub::Ptr<Interface::EthIntfStatus> ethIntf(const std::string& name, bool up = true);
  Zub::Ptr<Interface::EthLagIntfStatus> lagIntf(const std::string& name, bool up = true);
  // A local (source) interface: MTU, IPv4 address/len, IPv6 addresses, VRF.
  void localIntf(const std::string& name, uint32_t mtu, const std::string& ip4WithLen,
                 const std::vector<std::string>& ip6WithLen = {},
                 const std::string& vrf = "default");
  void vrfState(const std::string& vrf, Ip::VrfState state);

  Zub::Ptr<FlowTracking::FlowTrackerConfig> tracker(const std::string& name);
  Zub::Ptr<FlowTracking::ExporterConfig> exporter(const std::string& tracker,
                                                  const std::string& name,
                                                  const std::string& localIntf = "",
                                                  const std::string& vrf = "default");
  void collector(const std::string& tracker, const std::string& exporter, const std::string& host,
                 uint16_t port = 4739);
  void bind(const std::string& intf, const std::string& tracker);

  Zub::Ptr<HwFlowTracking::ExporterConfig> hwExporter(const std::string& tracker,
                                                      const std::string& name) const;
  uint32_t ftId(const std::string& tracker) const;  // 0 when the tracker is not active
  // The interfaces in hwIntfFtConfig as "intf:tracker", sorted.
  std::vector<std::string> boundIntfs() const;
};

}  // namespace TestSupport
