#include "agent/ConfigApplier.h"

#include <set>

namespace Agent {

namespace {
template <class Coll, class Keep>
void deleteOthers(Coll& coll, Keep&& keep, std::function<void(const typename Coll::Key&)> del) {
  for (const auto& key : coll.keys()) {
    if (!keep(key)) del(key);
  }
}
}  // namespace

void applyPlatform(StatusEntities& s, const AgentConfig& cfg) {
  std::set<Nelo::IntfId> wanted, ethernet, lags;
  for (const InterfaceSpec& spec : cfg.interfaces) {
    const Nelo::IntfId id(spec.name);
    wanted.insert(id);
    s.allIntf->intfStatusIs(id)->mtuIs(spec.mtu);
    const auto link = spec.linkUp ? Interface::LinkStatus::linkUp : Interface::LinkStatus::linkDown;
    if (spec.kind == IntfKind::lag) {
      lags.insert(id);
      auto lag = s.ethLag->intfStatusIs(id);
      std::set<Nelo::IntfId> members(spec.members.begin(), spec.members.end());
      for (const auto& m : lag->memberColl().keys()) {
        if (!members.count(m)) lag->memberDel(m);
      }
      for (const auto& m : members) lag->memberIs(m, true);
      lag->forwardingModelIs(spec.forwardingModel);
      lag->linkStatusIs(link);
    } else if (spec.kind == IntfKind::ethernet) {
      ethernet.insert(id);
      auto eth = s.ethPhy->intfStatusIs(id);
      eth->forwardingModelIs(spec.forwardingModel);
      eth->linkStatusIs(link);
    }
    auto& l3 = s.l3[id];
    if (!l3) l3 = new L3::IntfStatus(id);
    l3->vrfIs(spec.vrf);
    if (spec.ipv4) {
      auto ip = s.ip->ipIntfStatusIs(id);
      ip->l3StatusIs(l3);
      ip->activeAddrWithMaskIs(*spec.ipv4);
    } else {
      s.ip->ipIntfStatusDel(id);
    }
    if (!spec.ipv6.empty()) {
      auto ip6 = s.ip6->intfIs(id);
      std::set<Nelo::Ip6AddrWithMask> addrs(spec.ipv6.begin(), spec.ipv6.end());
      for (const auto& a : ip6->addrColl().keys()) {
        if (!addrs.count(a)) ip6->addrDel(a);
      }
      for (const auto& a : spec.ipv6) ip6->addrIs(a);
    } else {
      s.ip6->intfDel(id);
    }
  }
  auto keep = [&](const Nelo::IntfId& id) { return wanted.count(id) != 0; };
  deleteOthers(s.ip->ipIntfStatusColl(), keep, [&](const auto& id) { s.ip->ipIntfStatusDel(id); });
  deleteOthers(s.ip6->intfColl(), keep, [&](const auto& id) { s.ip6->intfDel(id); });
  deleteOthers(
      s.ethPhy->intfStatusColl(), [&](const auto& id) { return ethernet.count(id) != 0; },
      [&](const auto& id) { s.ethPhy->intfStatusDel(id); });
  deleteOthers(
      s.ethLag->intfStatusColl(), [&](const auto& id) { return lags.count(id) != 0; },
      [&](const auto& id) { s.ethLag->intfStatusDel(id); });
  deleteOthers(s.allIntf->intfStatusColl(), keep,
               [&](const auto& id) { s.allIntf->intfStatusDel(id); });
  for (auto it = s.l3.begin(); it != s.l3.end();) {
    it = wanted.count(it->first) ? std::next(it) : s.l3.erase(it);
  }
  applyIntfIndexes(s, cfg);

  std::set<L3::VrfName> vrfs;
  for (const VrfSpec& v : cfg.vrfs) {
    vrfs.insert(v.name);
    auto vrf = s.vrfs->vrfIs(v.name);
    // The device first: exporters that see the VRF become active see where to send.
    vrf->deviceIs(v.device);
    vrf->stateIs(v.state);
  }
  deleteOthers(
      s.vrfs->vrfColl(), [&](const L3::VrfName& n) { return vrfs.count(n) != 0; },
      [&](const auto& n) { s.vrfs->vrfDel(n); });
  applyVrfIds(s, cfg);
}

namespace {

// Chooses every member's number: the configured ones first, then, in name order, the
// number the member already had if nobody else has it now, else the lowest free one
// from `first`. Returns name -> number.
template <class Name>
std::map<Name, uint32_t> chooseNumbers(const std::map<Name, std::optional<uint32_t>>& wanted,
                                       const std::map<Name, uint32_t>& current, uint32_t first) {
  std::map<Name, uint32_t> out;
  std::set<uint32_t> taken;
  for (const auto& [name, n] : wanted) {
    if (n && taken.insert(*n).second) out[name] = *n;
  }
  for (const auto& [name, n] : wanted) {
    if (out.count(name)) continue;
    auto had = current.find(name);
    if (had != current.end() && taken.insert(had->second).second) {
      out[name] = had->second;
      continue;
    }
    uint32_t next = first;
    while (taken.count(next)) ++next;
    taken.insert(next);
    out[name] = next;
  }
  return out;
}

}  // namespace

void applyIntfIndexes(StatusEntities& s, const AgentConfig& cfg) {
  std::map<Nelo::IntfId, std::optional<uint32_t>> wanted;
  for (const InterfaceSpec& spec : cfg.interfaces) wanted[Nelo::IntfId(spec.name)] = spec.index;
  std::map<Nelo::IntfId, uint32_t> current;
  for (const auto& [intf, index] : s.intfIndexMap->intfIndexColl()) current[intf] = index;
  const auto chosen = chooseNumbers(wanted, current, 1);
  for (const auto& [intf, index] : current) {
    if (!chosen.count(intf)) s.intfIndexMap->intfDel(intf);
  }
  for (const auto& [intf, index] : chosen) s.intfIndexMap->intfIs(intf, index);
}

void applyVrfIds(StatusEntities& s, const AgentConfig& cfg) {
  std::map<L3::VrfName, std::optional<uint32_t>> wanted;
  for (const VrfSpec& v : cfg.vrfs) {
    wanted[v.name] =
        v.id ? v.id : (v.name.name() == "default" ? std::optional<uint32_t>(0) : std::nullopt);
  }
  std::map<L3::VrfName, uint32_t> current;
  for (const auto& [id, name] : s.vrfIdMap->vrfIdToNameColl()) current[name] = id;
  const auto chosen = chooseNumbers(wanted, current, 1);
  std::set<uint32_t> ids;
  for (const auto& [name, id] : chosen) ids.insert(id);
  deleteOthers(
      s.vrfIdMap->vrfIdToNameColl(), [&](uint32_t id) { return ids.count(id) != 0; },
      [&](const auto& id) { s.vrfIdMap->vrfIdToNameDel(id); });
  for (const auto& [name, id] : chosen) s.vrfIdMap->vrfIdToNameIs(id, name);
}

void applyFlowTracking(const Zub::Ptr<FlowTracking::Config>& config, const AgentConfig& cfg) {
  // Switching off first tears everything down once instead of change by change.
  if (!cfg.enabled) config->enabledIs(false);
  config->compatibleOptionsIs(cfg.compatibleOptions);
  config->hwAccelEnabledIs(cfg.hardwareAcceleration);

  std::set<std::string> trackers;
  for (const TrackerSpec& t : cfg.trackers) {
    trackers.insert(t.name);
    auto ft = config->flowTrackerConfigIs(t.name);
    ft->activeIntervalIs(t.activeInterval);
    ft->flowCacheSizeIs(t.flowCache);
    ft->inactiveTimeoutIs(t.inactiveTimeout);
    std::set<std::string> exporters;
    for (const ExporterSpec& e : t.exporters) {
      exporters.insert(e.name);
      auto ex = ft->expConfigIs(e.name);
      ex->vrfNameIs(e.vrf);
      ex->localIntfNameIs(e.localInterface);
      ex->ipfixMtuIs(e.mtu);
      ex->dscpValueIs(e.dscp);
      ex->templateIntervalIs(e.templateInterval);
      std::set<std::string> hosts;
      for (const auto& c : e.collectors) hosts.insert(c.host);
      deleteOthers(
          ex->collectorHostAndPortColl(), [&](const std::string& h) { return hosts.count(h) != 0; },
          [&](const auto& h) { ex->collectorHostAndPortDel(h); });
      for (const auto& c : e.collectors) ex->collectorHostAndPortIs(c.host, c);
    }
    deleteOthers(
        ft->expConfigColl(), [&](const std::string& n) { return exporters.count(n) != 0; },
        [&](const auto& n) { ft->expConfigDel(n); });
  }
  deleteOthers(
      config->flowTrackerConfigColl(), [&](const std::string& n) { return trackers.count(n) != 0; },
      [&](const auto& n) { config->flowTrackerConfigDel(n); });
  // The rate after the trackers' timeouts: a new rate is announced at once, with the
  // tracker's other values as the file has them.
  config->sampleRateIs(cfg.sampleRate);

  applyInterfaceBindings(config, cfg.interfaceTracker);
  config->enabledIs(cfg.enabled);
}

void applyInterfaceBindings(const Zub::Ptr<FlowTracking::Config>& config,
                            const std::map<std::string, std::string>& bindings) {
  // A rebinding is a delete and a create.
  for (const auto& intf : config->flowTrackerIntfConfigColl().keys()) {
    auto it = bindings.find(intf.name());
    if (it == bindings.end() || it->second != config->flowTrackerIntfConfig(intf)->trackerName()) {
      config->flowTrackerIntfConfigDel(intf);
    }
  }
  for (const auto& [intf, tracker] : bindings) {
    config->flowTrackerIntfConfigIs(Nelo::IntfId(intf), tracker);
  }
}

std::map<std::string, std::string> expandInterfaceBindings(
    const StatusEntities& s, const std::map<std::string, std::string>& written) {
  std::map<std::string, std::string> out = written;
  auto all = out.find("*");
  if (all == out.end()) return out;
  const std::string tracker = all->second;
  out.erase(all);
  for (const auto& id : s.ethPhy->intfStatusColl().keys()) out.emplace(id.name(), tracker);
  for (const auto& id : s.ethLag->intfStatusColl().keys()) out.emplace(id.name(), tracker);
  return out;
}

}  // namespace Agent
