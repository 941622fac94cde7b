#include "ipfix/FlowTrackerPktTxUtil.h"

namespace FlowTracking {

bool sendPkt4(const Zub::Ptr<Nelo::Pkt>& pkt, const Zub::Ptr<Nelo::UdpPam>& pam, Nelo::IpAddr src,
              const Nelo::IpAndPort& dst, Nelo::DscpValue dscp) {
  pam->txSrcIpAddrIs(src);
  pam->txDstIpAddrIs(dst.addr);
  pam->txPortIs(dst.port);
  pam->txTosIs(dscp.value());
  return pam->txPkt(pkt);
}

bool sendPkt6(const Zub::Ptr<Nelo::Pkt>& pkt, const Zub::Ptr<Nelo::UdpPam>& pam,
              const Nelo::Ip6Addr& src, const Nelo::Ip6AndPort& dst, Nelo::DscpValue dscp) {
  pam->txSrcIp6AddrIs(src);
  pam->txDstIp6AddrIs(dst.addr);
  pam->txPortIs(dst.port);
  pam->txTosIs(dscp.value());
  return pam->txPkt(pkt);
}

size_t sendPkts4(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const Zub::Ptr<Nelo::UdpPam>& pam,
                 Nelo::IpAddr src, const Nelo::IpAndPort& dst, Nelo::DscpValue dscp) {
  pam->txSrcIpAddrIs(src);
  pam->txDstIpAddrIs(dst.addr);
  pam->txPortIs(dst.port);
  pam->txTosIs(dscp.value());
  return pam->txPktBatch(pkts, n);
}

size_t sendPkts6(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const Zub::Ptr<Nelo::UdpPam>& pam,
                 const Nelo::Ip6Addr& src, const Nelo::Ip6AndPort& dst, Nelo::DscpValue dscp) {
  pam->txSrcIp6AddrIs(src);
  pam->txDstIp6AddrIs(dst.addr);
  pam->txPortIs(dst.port);
  pam->txTosIs(dscp.value());
  return pam->txPktBatch(pkts, n);
}

}  // namespace FlowTracking
