#include "agent/KernelStatus.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cstdio>
#include <cstring>

#include "platform/nelo/IntfId.h"
#include "platform/nelo/Netlink.h"
#include "platform/zub/Glint.h"
#include "platform/zub/Text.h"

namespace Agent {

namespace {

Zub::Glint::Facility& trace() {
  static auto& f = Zub::Glint::facility("Agent");
  return f;
}

// The attributes of one level, by type; a type past `max` is skipped.
template <size_t N>
struct Attrs {
  const nlattr* at[N + 1] = {};
  static int collect(const nlattr* a, void* data) {
    auto* self = static_cast<Attrs*>(data);
    const uint16_t type = mnl_attr_get_type(a);
    if (type <= N) self->at[type] = a;
    return MNL_CB_OK;
  }
  const nlattr* operator[](uint16_t type) const { return type <= N ? at[type] : nullptr; }
};

bool u32(const nlattr* a, uint32_t& out) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_U32) < 0) return false;
  out = mnl_attr_get_u32(a);
  return true;
}

std::string str(const nlattr* a) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_NUL_STRING) < 0) return "";
  return mnl_attr_get_str(a);
}

// The largest interface index and VRF id a configuration file may give; the kernel's are
// held to the same bounds.
constexpr uint32_t kMaxIntfIndex = 0x3FFFFFFE;
constexpr uint32_t kMaxVrfId = 0xFFFFFE;

}  // namespace

void KernelStatus::clear() {
  links_.clear();
  ipv4_.clear();
  ipv6_.clear();
}

std::string KernelStatus::safeName(const std::string& raw) {
  std::string out;
  for (size_t i = 0; i < raw.size();) {
    uint32_t cp = 0;
    const size_t len = Zub::utf8SequenceAt(raw, i, &cp);
    if (len == 0 || Zub::isControl(cp) || raw[i] == '\\') {
      char esc[5];
      std::snprintf(esc, sizeof esc, "\\x%02x", static_cast<unsigned char>(raw[i]));
      out += esc;
      ++i;
      continue;
    }
    out.append(raw, i, len);
    i += len;
  }
  return out;
}

bool KernelStatus::framed(const void* buf, size_t len) { return Nelo::netlinkFramed(buf, len); }

bool KernelStatus::apply(const nlmsghdr* nlh) {
  switch (nlh->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return applyLink_(nlh);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return applyAddr_(nlh);
    default:
      return true;
  }
}

bool KernelStatus::applyLink_(const nlmsghdr* nlh) {
  if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(ifinfomsg))) return false;
  const auto* ifm = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
  const auto index = static_cast<uint32_t>(ifm->ifi_index);
  if (nlh->nlmsg_type == RTM_DELLINK) {
    links_.erase(index);
    ipv4_.erase(index);
    ipv6_.erase(index);
    return true;
  }
  Attrs<IFLA_MAX> tb;
  if (mnl_attr_parse(nlh, sizeof(ifinfomsg), Attrs<IFLA_MAX>::collect, &tb) < 0) return false;
  Link link;
  link.name = safeName(str(tb[IFLA_IFNAME]));
  if (link.name.empty()) return false;
  link.type = ifm->ifi_type;
  u32(tb[IFLA_MTU], link.mtu);
  u32(tb[IFLA_MASTER], link.master);
  uint8_t oper = IF_OPER_UNKNOWN;
  if (const nlattr* a = tb[IFLA_OPERSTATE]; a && mnl_attr_validate(a, MNL_TYPE_U8) == 0) {
    oper = mnl_attr_get_u8(a);
  }
  const bool admin = ifm->ifi_flags & IFF_UP;
  link.up =
      admin && (oper == IF_OPER_UP || (oper == IF_OPER_UNKNOWN && (ifm->ifi_flags & IFF_RUNNING)));
  if (const nlattr* info = tb[IFLA_LINKINFO]) {
    Attrs<IFLA_INFO_MAX> ti;
    if (mnl_attr_parse_nested(info, Attrs<IFLA_INFO_MAX>::collect, &ti) >= 0) {
      link.kind = str(ti[IFLA_INFO_KIND]);
      if (link.kind == "vrf" && ti[IFLA_INFO_DATA]) {
        Attrs<IFLA_VRF_MAX> tv;
        if (mnl_attr_parse_nested(ti[IFLA_INFO_DATA], Attrs<IFLA_VRF_MAX>::collect, &tv) >= 0) {
          u32(tv[IFLA_VRF_TABLE], link.vrfTable);
        }
      }
    }
  }
  links_[index] = std::move(link);
  return true;
}

bool KernelStatus::applyAddr_(const nlmsghdr* nlh) {
  if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(ifaddrmsg))) return false;
  const auto* ifa = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
  Attrs<IFA_MAX> tb;
  if (mnl_attr_parse(nlh, sizeof(ifaddrmsg), Attrs<IFA_MAX>::collect, &tb) < 0) return false;
  uint32_t flags = ifa->ifa_flags;
  u32(tb[IFA_FLAGS], flags);
  const bool add = nlh->nlmsg_type == RTM_NEWADDR;
  const uint32_t index = ifa->ifa_index;
  if (ifa->ifa_family == AF_INET) {
    // IFA_LOCAL is the interface's own address (IFA_ADDRESS the peer's on point-to-point).
    const nlattr* a = tb[IFA_LOCAL] ? tb[IFA_LOCAL] : tb[IFA_ADDRESS];
    if (!a || mnl_attr_get_payload_len(a) != 4) return false;
    uint32_t nbo;
    std::memcpy(&nbo, mnl_attr_get_payload(a), 4);
    const Nelo::IpAddrWithMask am{Nelo::IpAddr::fromNbo(nbo), ifa->ifa_prefixlen};
    auto& list = ipv4_[index];
    std::erase(list, am);
    if (add && !(flags & IFA_F_SECONDARY)) list.push_back(am);
    if (list.empty()) ipv4_.erase(index);
  } else if (ifa->ifa_family == AF_INET6) {
    const nlattr* a = tb[IFA_ADDRESS] ? tb[IFA_ADDRESS] : tb[IFA_LOCAL];
    if (!a || mnl_attr_get_payload_len(a) != 16) return false;
    Nelo::Ip6Addr::Bytes b;
    std::memcpy(b.data(), mnl_attr_get_payload(a), 16);
    const Nelo::Ip6AddrWithMask am{Nelo::Ip6Addr(b), ifa->ifa_prefixlen};
    auto& set = ipv6_[index];
    if (add) {
      set.insert(am);
    } else {
      set.erase(am);
    }
    if (set.empty()) ipv6_.erase(index);
  }
  return true;
}

void KernelStatus::platform(const NameMap& names, AgentConfig& out) const {
  out.interfaces.clear();
  out.vrfs.clear();
  out.vrfs.push_back({L3::VrfName("default"), Ip::VrfState::vrfActive, std::nullopt, ""});
  auto idOf = [&](const Link& l) {
    auto it = names.find(l.name);
    return it == names.end() ? l.name : it->second;
  };
  auto kindOf = [&](uint32_t index) {
    auto it = links_.find(index);
    return it == links_.end() ? std::string() : it->second.kind;
  };
  // Which links become which interfaces: an id (or a VRF name) belongs to the first link
  // that has it, in index order; another link with it (a name the map gives one link and
  // the kernel another, a rename the events have half told) is left out.
  std::map<uint32_t, std::string> ids;
  std::set<std::string> taken, vrfNames = {"default"};
  for (const auto& [index, link] : links_) {
    if (link.kind == "vrf") {
      if (!vrfNames.insert(link.name).second) {
        GLINT(trace(), 2) << "kernel VRF device " << link.name << " (table " << link.vrfTable
                          << ") has the name of another VRF: left out";
        continue;
      }
      // A table past the VRF ids the tables can carry gets an id chosen by the applier.
      std::optional<uint32_t> id;
      if (link.vrfTable > 0 && link.vrfTable <= kMaxVrfId) id = link.vrfTable;
      out.vrfs.push_back({L3::VrfName(link.name),
                          link.up ? Ip::VrfState::vrfActive : Ip::VrfState::vrfInitializing, id,
                          link.name});
      continue;
    }
    const Nelo::IntfId id(idOf(link));
    const bool lag = link.kind == "bond" || link.kind == "team";
    const bool ether = link.type == ARPHRD_ETHER && !lag && link.kind != "bridge";
    const bool isLagId = Nelo::PortChannelIntfId::isPortChannelIntfId(id);
    const bool isEthId = Nelo::EthIntfId::isEthIntfId(id);
    if ((isLagId && !lag) || (isEthId && !ether)) {
      GLINT(trace(), 2) << "kernel link " << link.name << " (kind '" << link.kind << "', type "
                        << link.type << ") cannot be interface " << id.name() << ": left out";
      continue;
    }
    if (!taken.insert(id.name()).second) {
      GLINT(trace(), 2) << "kernel link " << link.name << " (index " << index
                        << ") would be interface " << id.name()
                        << ", which another link is: left out";
      continue;
    }
    ids[index] = id.name();
  }
  for (const auto& [index, name] : ids) {
    const Link& link = links_.at(index);
    const bool lag = link.kind == "bond" || link.kind == "team";
    InterfaceSpec spec;
    spec.name = name;
    spec.kind = lag ? IntfKind::lag
                    : (link.type == ARPHRD_ETHER && link.kind != "bridge" ? IntfKind::ethernet
                                                                          : IntfKind::other);
    spec.linkUp = link.up;
    spec.mtu = link.mtu;
    if (index <= kMaxIntfIndex) spec.index = index;  // else chosen by the applier
    const std::string masterKind = kindOf(link.master);
    if (masterKind == "vrf") spec.vrf = L3::VrfName(links_.at(link.master).name);
    using FM = Interface::ForwardingModel;
    if (masterKind == "bond" || masterKind == "team") {
      spec.forwardingModel = FM::intfForwardingModelDataLink;
    } else if (masterKind == "bridge") {
      spec.forwardingModel = FM::intfForwardingModelBridged;
    } else {
      spec.forwardingModel =
          link.up ? FM::intfForwardingModelRouted : FM::intfForwardingModelInactive;
    }
    // A link that is not up cannot send: its addresses are no exporter's source.
    if (auto it = ipv4_.find(index); it != ipv4_.end() && link.up) spec.ipv4 = it->second.front();
    if (auto it = ipv6_.find(index); it != ipv6_.end() && link.up) {
      spec.ipv6.assign(it->second.begin(), it->second.end());
    }
    if (lag) {
      for (const auto& [memberIndex, member] : links_) {
        auto m = ids.find(memberIndex);
        if (member.master == index && m != ids.end()) spec.members.push_back(m->second);
      }
    }
    out.interfaces.push_back(std::move(spec));
  }
}

}  // namespace Agent
