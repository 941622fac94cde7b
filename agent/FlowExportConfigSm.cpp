#include "agent/FlowExportConfigSm.h"

namespace Agent {

namespace {
using RT = Ipfix::RecordType;

// A sampled-flow record: the addresses of its family, then the same fields for both.
std::vector<FlowTracking::FlowParam> recordFields(RT src, RT dst) {
  const std::pair<RT, bool> fields[] = {
      {src, true},
      {dst, true},
      {RT::ipProtocol, true},
      {RT::srcL4Port, true},
      {RT::dstL4Port, true},
      {RT::ingressInterface, true},
      {RT::vrfId, true},
      {RT::ipClassOfService, false},
      {RT::tcpControlBits, false},
      {RT::egressInterface, false},
      {RT::byteCount, false},
      {RT::packetCount, false},
      {RT::timeStampFlowStart, false},
      {RT::timeStampFlowEnd, false},
      {RT::flowEndReason, false},
  };
  std::vector<FlowTracking::FlowParam> out;
  uint32_t seq = 1;
  for (const auto& [type, key] : fields) out.push_back({seq++, type, key});
  return out;
}
}  // namespace

const std::vector<FlowTracking::FlowParam>& FlowExportConfigSm::ipv4Fields() {
  static const auto fields = recordFields(RT::srcIp, RT::dstIp);
  return fields;
}

const std::vector<FlowTracking::FlowParam>& FlowExportConfigSm::ipv6Fields() {
  static const auto fields = recordFields(RT::srcIp6, RT::dstIp6);
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
