#pragma once
// What differs between an exporter's IPv4 and its IPv6 collectors: where the collectors,
// the source address and the endpoint of each family are, and how a packet goes out.
// Senders write each of their rules once, as a template over these two.

#include "config/HwFlowTrackingConfig.h"
#include "export/CollectorStats.h"
#include "export/FlowTrackerInfoSm.h"
#include "ipfix/FlowTrackerPktTxUtil.h"

namespace FlowTracking {

struct Ipv4Family {
  using Dst = Nelo::IpAndPort;
  static constexpr bool kIpv4 = true;
  static bool hasSource(const HwFlowTracking::ExporterConfig& c) {
    return !c.srcIpAddr().isZero() || c.routedSource();
  }
  static const auto& collectors(const HwFlowTracking::ExporterConfig& c) {
    return c.collectorIpAndPortColl();
  }
  static auto& collectorSignal(HwFlowTracking::ExporterConfig& c) {
    return c.collectorIpAndPortSignal();
  }
  static Zub::Ptr<Nelo::UdpPam> pam(const ExporterInfo& e) { return e.udpPam4(); }
  static auto src(const HwFlowTracking::ExporterConfig& c) { return c.srcIpAddr(); }
  // Sends `n` datagrams through `pam`; returns how many the kernel took (in order).
  static size_t send(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const Zub::Ptr<Nelo::UdpPam>& pam,
                     const HwFlowTracking::ExporterConfig& c, const Dst& dst) {
    if (n == 1) return sendPkt4(pkts[0], pam, c.srcIpAddr(), dst, c.dscpValue()) ? 1 : 0;
    return sendPkts4(pkts, n, pam, c.srcIpAddr(), dst, c.dscpValue());
  }
  static Stova::Ipfix::CollectorInfo key(const Dst& d) {
    return Stova::Ipfix::CollectorInfo::fromIpAndPort(d);
  }
};

struct Ipv6Family {
  using Dst = Nelo::Ip6AndPort;
  static constexpr bool kIpv4 = false;
  static bool hasSource(const HwFlowTracking::ExporterConfig& c) {
    return !c.srcIp6Addr().isZero() || c.routedSource();
  }
  static const auto& collectors(const HwFlowTracking::ExporterConfig& c) {
    return c.collectorIp6AndPortColl();
  }
  static auto& collectorSignal(HwFlowTracking::ExporterConfig& c) {
    return c.collectorIp6AndPortSignal();
  }
  static Zub::Ptr<Nelo::UdpPam> pam(const ExporterInfo& e) { return e.udpPam6(); }
  static auto src(const HwFlowTracking::ExporterConfig& c) { return c.srcIp6Addr(); }
  // Sends `n` datagrams through `pam`; returns how many the kernel took (in order).
  static size_t send(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const Zub::Ptr<Nelo::UdpPam>& pam,
                     const HwFlowTracking::ExporterConfig& c, const Dst& dst) {
    if (n == 1) return sendPkt6(pkts[0], pam, c.srcIp6Addr(), dst, c.dscpValue()) ? 1 : 0;
    return sendPkts6(pkts, n, pam, c.srcIp6Addr(), dst, c.dscpValue());
  }
  static Stova::Ipfix::CollectorInfo key(const Dst& d) {
    return Stova::Ipfix::CollectorInfo::fromIp6AndPort(d);
  }
};

}  // namespace FlowTracking
