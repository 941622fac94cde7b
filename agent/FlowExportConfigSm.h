#pragma once
// The agent's configuration reactor: the base reactor with this agent's name, its
// tracking type, and two default flow groups per tracker (IPv4 with template 261 and
// IPv6 with template 262) carrying the fields of a sampled-flow record.

#include "config/FlowTrackerConfigSm.h"
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

}  // namespace Agent
