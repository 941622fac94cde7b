#include "tests/support/ConfigWorld.h"

#include <algorithm>

namespace TestSupport {

FlowTracking::Resolution FakeResolver::resolve(const std::string& host) {
  std::unique_lock lk(mu_);
  ++calls_;
  released_.wait(lk, [&] { return !held_.count(host); });
  auto it = answers_.find(host);
  if (it != answers_.end()) return it->second;
  if (auto a = Nelo::IpAddr::parse(host)) return {Nelo::IpGenAddr(*a), {}, std::nullopt};
  if (auto a = Nelo::Ip6Addr::parse(host)) return {Nelo::IpGenAddr(*a), {}, std::nullopt};
  return {std::nullopt, "Name or service not known", std::nullopt};
}

void FakeResolver::answerIs(const std::string& host, const std::string& address,
                            const std::string& other) {
  auto parse = [](const std::string& a) {
    if (auto v4 = Nelo::IpAddr::parse(a)) return Nelo::IpGenAddr(*v4);
    return Nelo::IpGenAddr(Nelo::Ip6Addr(a));
  };
  std::lock_guard lk(mu_);
  answers_[host] = {parse(address), {}, std::nullopt};
  if (!other.empty()) answers_[host].other = parse(other);
}

void FakeResolver::failIs(const std::string& host, const std::string& error) {
  std::lock_guard lk(mu_);
  answers_[host] = {std::nullopt, error, std::nullopt};
}

void FakeResolver::hold(const std::string& host) {
  std::lock_guard lk(mu_);
  held_.insert(host);
}

void FakeResolver::release(const std::string& host) {
  std::lock_guard lk(mu_);
  held_.erase(host);
  released_.notify_all();
}

int FakeResolver::calls() const {
  std::lock_guard lk(mu_);
  return calls_;
}

ConfigWorld::ConfigWorld()
    : config(new FlowTracking::Config("config")),
      agentDir(new Zub::Dir("activeAgentDir")),
      hwConfig(new HwFlowTracking::Config("hwConfig")),
      ethPhy(new Interface::AllEthPhyIntfStatusDir()),
      ethLag(new Interface::EthLagIntfStatusDir()),
      ipStatus(new Ip::Status()),
      ip6Status(new Ip6::Status()),
      vrfs(new Ip::AllVrfStatusLocal()),
      allIntf(new Interface::AllIntfStatusDir()) {}

ConfigWorld::~ConfigWorld() { sm = nullptr; }

void ConfigWorld::start() {
  sm = FlowTracking::configSmBaseFactory(config, agentDir, hwConfig, ethPhy, ethLag, ipStatus,
                                         ip6Status, vrfs, allIntf);
  sm->resolverIs(resolver);
  sm->handleStartup();
}

Zub::Ptr<Interface::EthIntfStatus> ConfigWorld::ethIntf(const std::string& name, bool up) {
  auto s = ethPhy->intfStatusIs(Nelo::IntfId(name));
  s->forwardingModelIs(Interface::ForwardingModel::intfForwardingModelRouted);
  s->linkStatusIs(up ? Interface::LinkStatus::linkUp : Interface::LinkStatus::linkDown);
  return s;
}

Zub::Ptr<Interface::EthLagIntfStatus> ConfigWorld::lagIntf(const std::string& name, bool up) {
  auto s = ethLag->intfStatusIs(Nelo::IntfId(name));
  s->forwardingModelIs(Interface::ForwardingModel::intfForwardingModelBridged);
  s->linkStatusIs(up ? Interface::LinkStatus::linkUp : Interface::LinkStatus::linkDown);
  return s;
}

void ConfigWorld::localIntf(const std::string& name, uint32_t mtu, const std::string& ip4WithLen,
                            const std::vector<std::string>& ip6WithLen, const std::string& vrf) {
  const Nelo::IntfId id(name);
  allIntf->intfStatusIs(id)->mtuIs(mtu);
  Zub::Ptr<L3::IntfStatus> l3(new L3::IntfStatus(id));
  l3->vrfIs(L3::VrfName(vrf));
  if (!ip4WithLen.empty()) {
    auto ip = ipStatus->ipIntfStatusIs(id);
    ip->l3StatusIs(l3);
    ip->activeAddrWithMaskIs(*Nelo::IpAddrWithMask::parse(ip4WithLen));
  }
  if (!ip6WithLen.empty()) {
    auto ip6 = ip6Status->intfIs(id);
    for (const auto& a : ip6WithLen) ip6->addrIs(*Nelo::Ip6AddrWithMask::parse(a));
  }
}

void ConfigWorld::vrfState(const std::string& vrf, Ip::VrfState state) {
  vrfs->vrfIs(L3::VrfName(vrf))->stateIs(state);
}

Zub::Ptr<FlowTracking::FlowTrackerConfig> ConfigWorld::tracker(const std::string& name) {
  return config->flowTrackerConfigIs(name);
}

Zub::Ptr<FlowTracking::ExporterConfig> ConfigWorld::exporter(const std::string& tracker,
                                                             const std::string& name,
                                                             const std::string& localIntf,
                                                             const std::string& vrf) {
  auto e = config->flowTrackerConfigIs(tracker)->expConfigIs(name);
  e->vrfNameIs(L3::VrfName(vrf));
  e->localIntfNameIs(localIntf);
  return e;
}

void ConfigWorld::collector(const std::string& tracker, const std::string& exporter,
                            const std::string& host, uint16_t port) {
  config->flowTrackerConfigIs(tracker)->expConfigIs(exporter)->collectorHostAndPortIs(
      host, Nelo::HostAndPort{host, port});
}

void ConfigWorld::bind(const std::string& intf, const std::string& tracker) {
  config->flowTrackerIntfConfigIs(Nelo::IntfId(intf), tracker);
}

Zub::Ptr<HwFlowTracking::ExporterConfig> ConfigWorld::hwExporter(const std::string& tracker,
                                                                 const std::string& name) const {
  auto ft = hwConfig->hwFtConfig(tracker);
  return ft ? ft->expConfig(name) : nullptr;
}

uint32_t ConfigWorld::ftId(const std::string& tracker) const {
  auto ft = hwConfig->hwFtConfig(tracker);
  return ft ? ft->ftId().value() : 0;
}

std::vector<std::string> ConfigWorld::boundIntfs() const {
  std::vector<std::string> out;
  for (const auto& [intf, e] : hwConfig->hwIntfFtConfigColl()) {
    out.push_back(intf.name() + ":" + e->hwFtConfig()->name());
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace TestSupport
