#pragma once
// The kernel as the platform's status source: links, addresses and VRF devices as
// rtnetlink reports them, kept per interface index, and turned into the platform section
// a configuration file would give. The agent applies that with the same applier as the
// file's, which changes only what differs, so a re-dump after a lost event (ENOBUFS)
// re-announces nothing that stayed the same.
//
// Mapping:
// - The interface id is the kernel name, or what the name map makes of it (`eth1:
//   Ethernet1`, `bond1: Port-Channel1`). The link decides the kind: a bond or team is a
//   port-channel, whose members are the links whose master it is; an Ethernet-type link
//   (physical, veth, VLAN; not a bridge) is an Ethernet interface; anything else
//   (loopback, bridge, tunnel) a generic interface (an exporter's local interface, a row
//   of the interface table), which is not tracked. A link mapped to an id of another kind
//   ("EthernetN" for a bond, "Port-ChannelN" for an Ethernet link) is left out (traced).
// - A VRF device (kind "vrf") is the VRF named after the device, with its routing table
//   as the VRF id, active while the device is up; a link enslaved to it is in that VRF.
// - Link status: up when the link is administratively up and operationally up (or, for
//   links that do not report an operational state such as loopback, running).
// - Forwarding model: a bond or team member forwards as part of its port-channel (data
//   link), a bridge port is bridged, a link that is not up is inactive, any other link
//   that is up is routed.
// - Addresses: the first primary IPv4 address (the one the kernel sources from); every
//   IPv6 address (the exporter picks its source among them). A link that is not up
//   offers none: nothing can be sent from it, so an exporter on it is not ready.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent/AgentConfig.h"

struct nlmsghdr;

namespace Agent {

class KernelStatus {
 public:
  struct Link {
    std::string name;
    std::string kind;   // IFLA_INFO_KIND ("bond", "team", "vrf", "bridge", "veth", ...) or ""
    uint16_t type = 0;  // ARPHRD_*
    bool up = false;
    uint32_t mtu = 0;
    uint32_t master = 0;    // the index of its bond, team, bridge or VRF device; 0 none
    uint32_t vrfTable = 0;  // a VRF device's routing table
    friend bool operator==(const Link&, const Link&) = default;
  };

  // Applies one rtnetlink message: RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR;
  // other messages are ignored. Returns false (and changes nothing) for a message it
  // cannot read.
  bool apply(const nlmsghdr* nlh);
  // Whether `len` bytes at `buf` are whole netlink messages, each header's length within
  // what is left. libmnl trusts those lengths: one near 2^32 wraps its step to zero and
  // it walks the same message forever.
  static bool framed(const void* buf, size_t len);
  // A kernel link name as text that tables, logs and collectors can carry: the kernel
  // allows any bytes but '/', ':' and blanks, so bytes that are not UTF-8, control
  // characters and the backslash are written as \xNN, which keeps names distinct.
  static std::string safeName(const std::string& raw);
  // Forgets everything, before a fresh dump.
  void clear();

  // The platform section: the interfaces and VRFs, in interface index order.
  using NameMap = std::map<std::string, std::string>;
  void platform(const NameMap& names, AgentConfig& out) const;

  const std::map<uint32_t, Link>& links() const { return links_; }

 private:
  bool applyLink_(const nlmsghdr* nlh);
  bool applyAddr_(const nlmsghdr* nlh);

  std::map<uint32_t, Link> links_;
  // Per interface index: primary IPv4 addresses in the kernel's order, IPv6 addresses.
  std::map<uint32_t, std::vector<Nelo::IpAddrWithMask>> ipv4_;
  std::map<uint32_t, std::set<Nelo::Ip6AddrWithMask>> ipv6_;
};

}  // namespace Agent
