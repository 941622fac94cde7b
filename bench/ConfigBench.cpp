// From `enabled` switched on to a fully derived hardware configuration:
// 1,000 trackers x 2 exporters x 2 collectors (address literals, resolved by the system
// resolver) and 10,000 bound Ethernet interfaces that are up. Reports wall time, peak
// memory, and the cost per tracker and per interface (a second run without interfaces
// separates the two).

#include <sys/resource.h>

#include <chrono>
#include <cstdio>

#include "config/FlowTrackerConfigSm.h"

namespace {

constexpr int kTrackers = 1000;
constexpr int kInterfaces = 10000;

struct World {
  Zub::Ptr<FlowTracking::Config> config{new FlowTracking::Config("config")};
  Zub::Ptr<Zub::Dir> agentDir{new Zub::Dir("activeAgentDir")};
  Zub::Ptr<HwFlowTracking::Config> hwConfig{new HwFlowTracking::Config("hwConfig")};
  Zub::Ptr<Interface::AllEthPhyIntfStatusDir> ethPhy{new Interface::AllEthPhyIntfStatusDir()};
  Zub::Ptr<Interface::EthLagIntfStatusDir> ethLag{new Interface::EthLagIntfStatusDir()};
  Zub::Ptr<Ip::Status> ipStatus{new Ip::Status()};
  Zub::Ptr<Ip6::Status> ip6Status{new Ip6::Status()};
  Zub::Ptr<Ip::AllVrfStatusLocal> vrfs{new Ip::AllVrfStatusLocal()};
  Zub::Ptr<Interface::AllIntfStatusDir> allIntf{new Interface::AllIntfStatusDir()};
  Zub::Ptr<FlowTracking::ConfigSmBase> sm;

  explicit World(int interfaces) {
    const Nelo::IntfId lo("Loopback0");
    allIntf->intfStatusIs(lo)->mtuIs(9214);
    Zub::Ptr<L3::IntfStatus> l3(new L3::IntfStatus(lo));
    l3->vrfIs(L3::VrfName("default"));
    auto ip = ipStatus->ipIntfStatusIs(lo);
    ip->l3StatusIs(l3);
    ip->activeAddrWithMaskIs(*Nelo::IpAddrWithMask::parse("10.0.0.1/32"));
    ip6Status->intfIs(lo)->addrIs(*Nelo::Ip6AddrWithMask::parse("2001:db8::1/128"));
    for (int t = 0; t < kTrackers; ++t) {
      auto ft = config->flowTrackerConfigIs("tracker" + std::to_string(t));
      for (int e = 0; e < 2; ++e) {
        auto exp = ft->expConfigIs("exporter" + std::to_string(e));
        exp->vrfNameIs(L3::VrfName("default"));
        exp->localIntfNameIs("Loopback0");
        const std::string v4 = "192.0." + std::to_string(t % 250) + "." + std::to_string(e + 1);
        const std::string v6 = "2001:db8:" + std::to_string(t) + "::" + std::to_string(e + 1);
        exp->collectorHostAndPortIs(v4, Nelo::HostAndPort{v4, 4739});
        exp->collectorHostAndPortIs(v6, Nelo::HostAndPort{v6, 4739});
      }
    }
    for (int i = 0; i < interfaces; ++i) {
      const Nelo::IntfId id("Ethernet" + std::to_string(i / 100 + 1) + "/" +
                            std::to_string(i % 100 + 1));
      auto s = ethPhy->intfStatusIs(id);
      s->forwardingModelIs(Interface::ForwardingModel::intfForwardingModelRouted);
      s->linkStatusIs(Interface::LinkStatus::linkUp);
      config->flowTrackerIntfConfigIs(id, "tracker" + std::to_string(i % kTrackers));
    }
    sm = FlowTracking::configSmBaseFactory(config, agentDir, hwConfig, ethPhy, ethLag, ipStatus,
                                           ip6Status, vrfs, allIntf);
    sm->handleStartup();
  }

  // Seconds from enabled=true to the derived configuration.
  double enable() {
    auto start = std::chrono::steady_clock::now();
    config->enabledIs(true);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  bool complete(int interfaces) const {
    if (hwConfig->hwFtConfigSize() != kTrackers) return false;
    if (hwConfig->hwIntfFtConfigSize() != static_cast<size_t>(interfaces)) return false;
    for (const auto& [name, ft] : hwConfig->hwFtConfigColl()) {
      for (const auto& [en, e] : ft->expConfigColl()) {
        if (!e->exporterReady() || e->collectorIpAndPortSize() != 1 ||
            e->collectorIp6AndPortSize() != 1) {
          return false;
        }
      }
    }
    return true;
  }
};

long maxRssKb() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

long currentRssKb() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * 4;
}

}  // namespace

int main() {
  size_t logLines = 0;
  Zub::logSinkIs([&logLines](const Zub::LogRecord&) { ++logLines; });

  double trackersOnly;
  {
    World w(0);
    trackersOnly = w.enable();
    if (!w.complete(0)) std::printf("INCOMPLETE (trackers only)\n");
  }
  World w(kInterfaces);
  const long rssSetup = currentRssKb();
  logLines = 0;
  const double total = w.enable();
  const long rssPeak = maxRssKb();
  std::printf("derived configuration complete: %s (%zu log lines)\n",
              w.complete(kInterfaces) ? "yes" : "NO", logLines);
  std::printf("%d trackers x 2 exporters x 2 collectors, %d interfaces: %.3f s (target < 1 s)\n",
              kTrackers, kInterfaces, total);
  std::printf("per tracker (with its exporters and collectors): %.1f us\n",
              trackersOnly / kTrackers * 1e6);
  std::printf("per interface: %.1f us\n", (total - trackersOnly) / kInterfaces * 1e6);
  std::printf("peak RSS: %.1f MB, of which %.1f MB before enabling (target < 200 MB)\n",
              rssPeak / 1024.0, rssSetup / 1024.0);
  return 0;
}
