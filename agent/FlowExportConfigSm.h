#pragma once
// The agent's configuration reactor: the base reactor with this agent's name, its
// tracking type, and two default flow groups per tracker (IPv4 with template 261 and
// IPv6 with template 262) carrying the fields of a sampled-flow record.

#include "config/FlowTrackerConfigSm.h"
#include "datapath/FlowRecordEncoder.h"
#include "ipfix/Ipfix.h"

namespace Agent {

class FlowExportConfigSm : public FlowTracking::ConfigSmBase {
 public:
  using ConfigSmBase::ConfigSmBase;
  void initializeDefaultGroups(const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig) override;
  Zub::String agentName() const override { return "flowexport"; }
  Zub::String trackingTypeString() const override { return "Sampled"; }

  // The fields of the default groups, in record order.
  static const std::vector<FlowTracking::FlowParam>& ipv4Fields();
  static const std::vector<FlowTracking::FlowParam>& ipv6Fields();
};

Zub::Ptr<FlowExportConfigSm> flowExportConfigSmFactory(
    const Zub::Ptr<FlowTracking::Config>& config, const Zub::Ptr<Zub::Dir>& agentDir,
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<Interface::AllEthPhyIntfStatusDir>& ethPhyIntfStatusDir,
    const Zub::Ptr<Interface::EthLagIntfStatusDir>& ethLagIntfStatusDir,
    const Zub::Ptr<Ip::Status>& ipStatus, const Zub::Ptr<Ip6::Status>& ip6Status,
    const Zub::Ptr<Ip::AllVrfStatusLocal>& allVrfStatusLocal,
    const Zub::Ptr<Interface::AllIntfStatusDir>& allIntfStatusDir);

}  // namespace Agent
