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
  static bool hasSource(const HwFlowTracking::ExporterConfig& c) { return !c.srcIpAddr().isZero(); }
  static const auto& collectors(const HwFlowTracking::ExporterConfig& c) {
    return c.collectorIpAndPortColl();
  }
  static auto& collectorSignal(HwFlowTracking::ExporterConfig& c) {
    return c.collectorIpAndPortSignal();
  }
  static Zub::Ptr<Nelo::UdpPam> pam(const ExporterInfo& e) { return e.udpPam4(); }
  static auto src(const HwFlowTracking::ExporterConfig& c) { return c.srcIpAddr(); }
  static bool send(const Zub::Ptr<Nelo::Pkt>& pkt, const HwFlowTracking::ExporterConfig& c,
                   const ExporterInfo& e, const Dst& dst) {
    return sendPkt4(pkt, e.udpPam4(), c.srcIpAddr(), dst, c.dscpValue());
  }
  static size_t sendBatch(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n,
                          const HwFlowTracking::ExporterConfig& c, const ExporterInfo& e,
                          const Dst& dst) {
    return sendPkts4(pkts, n, e.udpPam4(), c.srcIpAddr(), dst, c.dscpValue());
  }
  static Stova::Ipfix::CollectorInfo key(const Dst& d) {
    return Stova::Ipfix::CollectorInfo::fromIpAndPort(d);
  }
};

struct Ipv6Family {
  using Dst = Nelo::Ip6AndPort;
  static constexpr bool kIpv4 = false;
  static bool hasSource(const HwFlowTracking::ExporterConfig& c) {
    return !c.srcIp6Addr().isZero();
  }
  static const auto& collectors(const HwFlowTracking::ExporterConfig& c) {
    return c.collectorIp6AndPortColl();
  }
  static auto& collectorSignal(HwFlowTracking::ExporterConfig& c) {
    return c.collectorIp6AndPortSignal();
  }
  static Zub::Ptr<Nelo::UdpPam> pam(const ExporterInfo& e) { return e.udpPam6(); }
  static auto src(const HwFlowTracking::ExporterConfig& c) { return c.srcIp6Addr(); }
  static bool send(const Zub::Ptr<Nelo::Pkt>& pkt, const HwFlowTracking::ExporterConfig& c,
                   const ExporterInfo& e, const Dst& dst) {
    return sendPkt6(pkt, e.udpPam6(), c.srcIp6Addr(), dst, c.dscpValue());
  }
  static size_t sendBatch(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n,
                          const HwFlowTracking::ExporterConfig& c, const ExporterInfo& e,
                          const Dst& dst) {
    return sendPkts6(pkts, n, e.udpPam6(), c.srcIp6Addr(), dst, c.dscpValue());
  }
  static Stova::Ipfix::CollectorInfo key(const Dst& d) {
    return Stova::Ipfix::CollectorInfo::fromIp6AndPort(d);
  }
};

}  // namespace FlowTracking
