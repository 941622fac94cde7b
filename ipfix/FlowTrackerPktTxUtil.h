#pragma once
// Sending one IPFIX datagram through an exporter's endpoint. One endpoint serves all
// collectors of an exporter, so its transmit settings are set anew before every packet.

#include "platform/nelo/Addr.h"
#include "platform/nelo/Pkt.h"
#include "platform/nelo/UdpPam.h"

namespace FlowTracking {

// Sets source, destination address, destination port and DSCP (raw 0..63), in that
// order, then transmits. Returns what the transmit returns.
bool sendPkt4(const Zub::Ptr<Nelo::Pkt>& pkt, const Zub::Ptr<Nelo::UdpPam>& pam, Nelo::IpAddr src,
              const Nelo::IpAndPort& dst, Nelo::DscpValue dscp);
// The same for n datagrams to one destination, batched into few system calls; returns
// how many the kernel took.
size_t sendPkts4(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const Zub::Ptr<Nelo::UdpPam>& pam,
                 Nelo::IpAddr src, const Nelo::IpAndPort& dst, Nelo::DscpValue dscp);
size_t sendPkts6(const Zub::Ptr<Nelo::Pkt>* pkts, size_t n, const Zub::Ptr<Nelo::UdpPam>& pam,
                 const Nelo::Ip6Addr& src, const Nelo::Ip6AndPort& dst, Nelo::DscpValue dscp);
bool sendPkt6(const Zub::Ptr<Nelo::Pkt>& pkt, const Zub::Ptr<Nelo::UdpPam>& pam,
              const Nelo::Ip6Addr& src, const Nelo::Ip6AndPort& dst, Nelo::DscpValue dscp);

}  // namespace FlowTracking
