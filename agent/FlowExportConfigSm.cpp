#include "agent/FlowExportConfigSm.h"

namespace Agent {

namespace {
// The data path's layout as the chip's flow parameters, numbered from 1.
std::vector<FlowTracking::FlowParam> recordFields(bool ipv6) {
  std::vector<FlowTracking::FlowParam> out;
  uint32_t seq = 1;
  for (const auto& f : FlowTracking::flowTemplateFields(ipv6))
    out.push_back({seq++, f.type, f.key});
  return out;
}
}  // namespace

const std::vector<FlowTracking::FlowParam>& FlowExportConfigSm::ipv4Fields() {
  static const auto fields = recordFields(false);
  return fields;
}

const std::vector<FlowTracking::FlowParam>& FlowExportConfigSm::ipv6Fields() {
  static const auto fields = recordFields(true);
  return fields;
}

void FlowExportConfigSm::initializeDefaultGroups(
    const Zub::Ptr<HwFlowTracking::FtConfig>& hwFtConfig) {
  ConfigSmBase::initializeDefaultGroups(hwFtConfig);
  struct Group {
    uint32_t seqno;
    const char* name;
    FlowTracking::StaticTemplateId templateId;
    const std::vector<FlowTracking::FlowParam>& fields;
  };
  const Group groups[] = {
      {1, "ipv4", FlowTracking::StaticTemplateId::dataTemplateIpv4, ipv4Fields()},
      {2, "ipv6", FlowTracking::StaticTemplateId::dataTemplateIpv6, ipv6Fields()},
  };
  for (const Group& g : groups) {
    auto fg = hwFtConfig->hwFgConfigIs(g.seqno, g.name);
    if (fg->genId() != 0) continue;  // defined already (the tracker was restarted)
    fg->sampleRateIs(hwConfig()->sampleRate());
    fg->flowDomainIs(g.name);
    for (const auto& p : g.fields) fg->flowParamIs(p);
    fg->templateIdIs(FlowTracking::Constants::reservedTemplateId(g.templateId));
    fg->genIdInc();  // one generation: the group's complete definition
  }
}

Zub::Ptr<FlowExportConfigSm> flowExportConfigSmFactory(
    const Zub::Ptr<FlowTracking::Config>& config, const Zub::Ptr<Zub::Dir>& agentDir,
    const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
    const Zub::Ptr<Interface::AllEthPhyIntfStatusDir>& ethPhyIntfStatusDir,
    const Zub::Ptr<Interface::EthLagIntfStatusDir>& ethLagIntfStatusDir,
    const Zub::Ptr<Ip::Status>& ipStatus, const Zub::Ptr<Ip6::Status>& ip6Status,
    const Zub::Ptr<Ip::AllVrfStatusLocal>& allVrfStatusLocal,
    const Zub::Ptr<Interface::AllIntfStatusDir>& allIntfStatusDir) {
  return Zub::makeReactor<FlowExportConfigSm>(config, agentDir, hwConfig, ethPhyIntfStatusDir,
                                              ethLagIntfStatusDir, ipStatus, ip6Status,
                                              allVrfStatusLocal, allIntfStatusDir);
}

}  // namespace Agent
