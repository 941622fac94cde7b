// The kernel status source's model, on rtnetlink messages the test builds with libmnl:
// VRF devices and their members, bonds and their members, addresses of both families
// added and removed, an MTU change, a deleted link, and a re-dump after lost events that
// differs in one link, applied through the platform applier as exactly that change.

#include "agent/KernelStatus.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include "agent/ConfigApplier.h"

namespace {

using Agent::KernelStatus;

// One rtnetlink message, built as the kernel would send it.
class Msg {
 public:
  nlmsghdr* nlh;
  Msg() : nlh(mnl_nlmsg_put_header(buf_)) {}

  static Msg link(uint16_t type, int index, const char* name, uint32_t mtu, bool up,
                  const char* kind = nullptr, uint32_t master = 0, uint32_t vrfTable = 0,
                  uint16_t arphrd = ARPHRD_ETHER) {
    Msg m;
    m.nlh->nlmsg_type = type;
    auto* ifm = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(m.nlh, sizeof(ifinfomsg)));
    ifm->ifi_family = AF_UNSPEC;
    ifm->ifi_index = index;
    ifm->ifi_type = arphrd;
    ifm->ifi_flags = up ? IFF_UP | IFF_RUNNING | IFF_LOWER_UP : 0;
    mnl_attr_put_strz(m.nlh, IFLA_IFNAME, name);
    mnl_attr_put_u32(m.nlh, IFLA_MTU, mtu);
    mnl_attr_put_u8(m.nlh, IFLA_OPERSTATE, up ? IF_OPER_UP : IF_OPER_DOWN);
    if (master) mnl_attr_put_u32(m.nlh, IFLA_MASTER, master);
    if (kind) {
      nlattr* info = mnl_attr_nest_start(m.nlh, IFLA_LINKINFO);
      mnl_attr_put_strz(m.nlh, IFLA_INFO_KIND, kind);
      if (vrfTable) {
        nlattr* data = mnl_attr_nest_start(m.nlh, IFLA_INFO_DATA);
        mnl_attr_put_u32(m.nlh, IFLA_VRF_TABLE, vrfTable);
        mnl_attr_nest_end(m.nlh, data);
      }
      mnl_attr_nest_end(m.nlh, info);
    }
    return m;
  }
  static Msg addr(uint16_t type, int index, const char* text, uint8_t len, bool secondary = false) {
    Msg m;
    m.nlh->nlmsg_type = type;
    auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(m.nlh, sizeof(ifaddrmsg)));
    ifa->ifa_index = static_cast<uint32_t>(index);
    ifa->ifa_prefixlen = len;
    ifa->ifa_flags = secondary ? IFA_F_SECONDARY : 0;
    unsigned char bytes[16];
    if (::inet_pton(AF_INET, text, bytes) == 1) {
      ifa->ifa_family = AF_INET;
      mnl_attr_put(m.nlh, IFA_LOCAL, 4, bytes);
      mnl_attr_put(m.nlh, IFA_ADDRESS, 4, bytes);
    } else {
      ::inet_pton(AF_INET6, text, bytes);
      ifa->ifa_family = AF_INET6;
      mnl_attr_put(m.nlh, IFA_ADDRESS, 16, bytes);
    }
    return m;
  }
  Msg(const Msg& o) : nlh(reinterpret_cast<nlmsghdr*>(buf_)) {
    std::memcpy(buf_, o.buf_, sizeof buf_);
  }

 private:
  alignas(nlmsghdr) char buf_[1024];
};

// The platform as the file's applier would get it: one line per interface.
std::vector<std::string> described(const KernelStatus& k, const KernelStatus::NameMap& names = {}) {
  Agent::AgentConfig cfg;
  k.platform(names, cfg);
  std::vector<std::string> out;
  for (const auto& i : cfg.interfaces) {
    std::string line = i.name + " #" + std::to_string(*i.index) + " mtu " + std::to_string(i.mtu) +
                       (i.linkUp ? " up " : " down ") +
                       Interface::stringValue(i.forwardingModel).substr(19) + " vrf " +
                       i.vrf.name();
    if (i.ipv4) line += " " + i.ipv4->stringValue();
    for (const auto& a : i.ipv6) line += " " + a.stringValue();
    for (const auto& m : i.members) line += " member " + m;
    out.push_back(line);
  }
  for (const auto& v : cfg.vrfs) {
    out.push_back("vrf " + v.name.name() + (v.id ? " id " + std::to_string(*v.id) : "") +
                  (v.state == Ip::VrfState::vrfActive ? " active" : " inactive") +
                  (v.device.empty() ? "" : " device " + v.device));
  }
  return out;
}

TEST(KernelStatus, LinksAddressesBondsAndVrfsBecomeThePlatform) {
  KernelStatus k;
  for (const Msg& m : {
           Msg::link(RTM_NEWLINK, 1, "lo", 65536, true, nullptr, 0, 0, ARPHRD_LOOPBACK),
           Msg::link(RTM_NEWLINK, 2, "eth1", 1500, true),
           Msg::link(RTM_NEWLINK, 3, "bond1", 9000, true, "bond"),
           Msg::link(RTM_NEWLINK, 4, "eth2", 9000, true, nullptr, 3),
           Msg::link(RTM_NEWLINK, 5, "eth3", 9000, false, nullptr, 3),
           Msg::link(RTM_NEWLINK, 6, "red", 65575, true, "vrf", 0, 10),
           Msg::link(RTM_NEWLINK, 8, "blue", 65575, false, "vrf", 0, 0x10000000),
           // would shadow the host's own table: left out
           Msg::link(RTM_NEWLINK, 9, "default", 65575, true, "vrf", 0, 20),
           Msg::link(RTM_NEWLINK, 7, "eth4", 1500, true, nullptr, 6),
           Msg::addr(RTM_NEWADDR, 1, "127.0.0.1", 8),
           Msg::addr(RTM_NEWADDR, 1, "::1", 128),
           Msg::addr(RTM_NEWADDR, 2, "192.0.2.1", 24),
           Msg::addr(RTM_NEWADDR, 2, "192.0.2.2", 24, true),  // secondary: never the source
           Msg::addr(RTM_NEWADDR, 2, "2001:db8::1", 64),
           Msg::addr(RTM_NEWADDR, 2, "fe80::1", 64),
           Msg::addr(RTM_NEWADDR, 7, "198.51.100.1", 24),
       }) {
    ASSERT_TRUE(k.apply(m.nlh));
  }
  const KernelStatus::NameMap names = {{"eth1", "Ethernet1"},
                                       {"eth2", "Ethernet2"},
                                       {"eth3", "Ethernet3"},
                                       {"bond1", "Port-Channel1"},
                                       {"lo", "Loopback0"}};
  EXPECT_EQ(described(k, names),
            (std::vector<std::string>{
                "Loopback0 #1 mtu 65536 up Routed vrf default 127.0.0.1/8 ::1/128",
                "Ethernet1 #2 mtu 1500 up Routed vrf default 192.0.2.1/24 2001:db8::1/64 "
                "fe80::1/64",
                "Port-Channel1 #3 mtu 9000 up Routed vrf default member Ethernet2 member Ethernet3",
                "Ethernet2 #4 mtu 9000 up DataLink vrf default",
                "Ethernet3 #5 mtu 9000 down DataLink vrf default",
                "eth4 #7 mtu 1500 up Routed vrf red 198.51.100.1/24", "vrf default active",
                "vrf red id 10 active device red",
                // a table past the ids a VRF table can carry: the applier chooses one
                "vrf blue inactive device blue"}));

  // Without the map every link keeps its kernel name, and the link decides what it is:
  // the bond a port-channel of its members, Ethernet-type links Ethernet interfaces (both
  // can be tracked by those names), the loopback neither.
  Agent::AgentConfig plain;
  k.platform({}, plain);
  std::vector<std::string> kinds;
  for (const auto& i : plain.interfaces) {
    kinds.push_back(i.name + (i.kind == Agent::IntfKind::lag        ? ":lag"
                              : i.kind == Agent::IntfKind::ethernet ? ":ethernet"
                                                                    : ":other"));
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{"lo:other", "eth1:ethernet", "bond1:lag",
                                             "eth2:ethernet", "eth3:ethernet", "eth4:ethernet"}));
  EXPECT_EQ(described(k)[2], "bond1 #3 mtu 9000 up Routed vrf default member eth2 member eth3");
  // A name the map makes into an id of another kind is left out.
  auto wrong =
      described(k, {{"lo", "Ethernet9"}, {"eth1", "Port-Channel2"}, {"bond1", "Ethernet8"}});
  EXPECT_EQ(wrong.front().rfind("eth2", 0), 0u);

  // Changes: an address goes, the primary moves, the MTU changes, a link goes.
  for (const Msg& m : {
           Msg::addr(RTM_DELADDR, 2, "192.0.2.1", 24),
           Msg::addr(RTM_NEWADDR, 2, "192.0.2.3", 24),
           Msg::addr(RTM_DELADDR, 2, "fe80::1", 64),
           Msg::link(RTM_NEWLINK, 2, "eth1", 9214, true),
           Msg::link(RTM_DELLINK, 5, "eth3", 0, false),
       }) {
    ASSERT_TRUE(k.apply(m.nlh));
  }
  auto after = described(k, names);
  EXPECT_EQ(after[1], "Ethernet1 #2 mtu 9214 up Routed vrf default 192.0.2.3/24 2001:db8::1/64");
  EXPECT_EQ(after[2], "Port-Channel1 #3 mtu 9000 up Routed vrf default member Ethernet2");
  EXPECT_EQ(after.size(), 8u);

  // A message too short to hold its header is refused and changes nothing.
  Msg broken = Msg::link(RTM_NEWLINK, 2, "eth1", 1, true);
  broken.nlh->nlmsg_len = sizeof(nlmsghdr);
  EXPECT_FALSE(k.apply(broken.nlh));
  EXPECT_EQ(described(k, names), after);
}

// Found by fuzzing: two links could become one interface (a mapped name that another link
// has in the kernel), and the applier was given the interface twice.
TEST(KernelStatus, AnIdBelongsToTheFirstLinkThatHasIt) {
  KernelStatus k;
  for (const Msg& m : {Msg::link(RTM_NEWLINK, 2, "eth1", 1500, true),
                       Msg::link(RTM_NEWLINK, 3, "Ethernet1", 9000, true),
                       Msg::link(RTM_NEWLINK, 4, "bond1", 1500, true, "bond"),
                       Msg::link(RTM_NEWLINK, 5, "Ethernet2", 1500, true, nullptr, 4),
                       Msg::link(RTM_NEWLINK, 6, "eth2", 1500, true, nullptr, 4),
                       Msg::link(RTM_NEWLINK, 7, "red", 65575, true, "vrf", 0, 10),
                       Msg::link(RTM_NEWLINK, 8, "red", 65575, true, "vrf", 0, 11)}) {
    ASSERT_TRUE(k.apply(m.nlh));
  }
  const auto d =
      described(k, {{"eth1", "Ethernet1"}, {"eth2", "Ethernet2"}, {"bond1", "Port-Channel1"}});
  EXPECT_EQ(d, (std::vector<std::string>{
                   "Ethernet1 #2 mtu 1500 up Routed vrf default",
                   "Port-Channel1 #4 mtu 1500 up Routed vrf default member Ethernet2",
                   "Ethernet2 #5 mtu 1500 up DataLink vrf default", "vrf default active",
                   "vrf red id 10 active device red"}));
}

TEST(KernelStatus, OnlyWholeMessagesAreFramed) {
  Msg a = Msg::link(RTM_NEWLINK, 2, "eth1", 1500, true);
  Msg b = Msg::addr(RTM_NEWADDR, 2, "192.0.2.1", 24);
  std::string batch(reinterpret_cast<const char*>(a.nlh), NLMSG_ALIGN(a.nlh->nlmsg_len));
  batch.append(reinterpret_cast<const char*>(b.nlh), b.nlh->nlmsg_len);
  EXPECT_TRUE(KernelStatus::framed(batch.data(), batch.size()));
  EXPECT_FALSE(KernelStatus::framed(batch.data(), batch.size() - 1));  // cut short
  EXPECT_FALSE(KernelStatus::framed(batch.data(), 10));                // not even a header
  // Found by fuzzing: a length of 2^32 - 1 passes libmnl's check and wraps its step to
  // zero, so it walked the same message forever.
  batch.replace(0, 4, "\xff\xff\xff\xff", 4);
  EXPECT_FALSE(KernelStatus::framed(batch.data(), batch.size()));
  batch.replace(0, 4, std::string(4, '\0'));
  EXPECT_FALSE(KernelStatus::framed(batch.data(), batch.size()));
}

// After lost events the agent dumps again into a fresh model and applies the result:
// only the link that differs changes, every other status object stays as it was.
TEST(KernelStatus, ARedumpAppliesOnlyWhatDiffers) {
  auto dump = [](uint32_t eth2Mtu) {
    KernelStatus k;
    for (const Msg& m : {Msg::link(RTM_NEWLINK, 1, "lo", 65536, true, nullptr, 0, 0, 772),
                         Msg::link(RTM_NEWLINK, 2, "eth1", 1500, true),
                         Msg::link(RTM_NEWLINK, 3, "eth2", eth2Mtu, true),
                         Msg::addr(RTM_NEWADDR, 2, "192.0.2.1", 24)}) {
      EXPECT_TRUE(k.apply(m.nlh));
    }
    return k;
  };
  const KernelStatus::NameMap names = {{"eth1", "Ethernet1"}, {"eth2", "Ethernet2"}};
  Agent::StatusEntities status;
  Agent::AgentConfig cfg;
  dump(1500).platform(names, cfg);
  Agent::applyPlatform(status, cfg);
  auto eth1 = status.allIntf->intfStatus(Nelo::IntfId("Ethernet1"));
  auto eth1Ip = status.ip->ipIntfStatus(Nelo::IntfId("Ethernet1"));
  int mtuChanges = 0, eth1Changes = 0;
  Zub::Subscriptions subs;
  subs.add(status.allIntf->intfStatus(Nelo::IntfId("Ethernet2"))->mtuSignal().connect(nullptr, [&] {
    ++mtuChanges;
  }));
  subs.add(eth1->mtuSignal().connect(nullptr, [&] { ++eth1Changes; }));
  subs.add(eth1Ip->activeAddrWithMaskSignal().connect(nullptr, [&] { ++eth1Changes; }));

  dump(9000).platform(names, cfg);
  Agent::applyPlatform(status, cfg);
  EXPECT_EQ(mtuChanges, 1);
  EXPECT_EQ(status.allIntf->intfStatus(Nelo::IntfId("Ethernet2"))->mtu(), 9000u);
  EXPECT_EQ(eth1Changes, 0);
  EXPECT_EQ(status.allIntf->intfStatus(Nelo::IntfId("Ethernet1")), eth1);
  EXPECT_EQ(status.ip->ipIntfStatus(Nelo::IntfId("Ethernet1")), eth1Ip);
}

}  // namespace

// The kernel takes any bytes in a name but '/', ':' and blanks: what is not UTF-8 text, a
// control character (a terminal's escape) and the backslash are written as \xNN, so the
// interface keeps its row and every decoder can read it.
TEST(KernelStatus, KernelNamesBecomeTextThatKeepsThemApart) {
  EXPECT_EQ(KernelStatus::safeName("eth0"), "eth0");
  EXPECT_EQ(KernelStatus::safeName("w\xc3\xa4n"), "w\xc3\xa4n");  // UTF-8 stays
  EXPECT_EQ(KernelStatus::safeName("x\x1b[2J\x7f"), "x\\x1b[2J\\x7f");
  EXPECT_EQ(KernelStatus::safeName("\xff\xfe"), "\\xff\\xfe");
  EXPECT_EQ(KernelStatus::safeName("a\\x1b"), "a\\x5cx1b");  // not the escaped ESC's name
  KernelStatus k;
  ASSERT_TRUE(k.apply(Msg::link(RTM_NEWLINK, 2, "v\xff\x1b", 1500, true).nlh));
  EXPECT_EQ(described(k), (std::vector<std::string>{"v\\xff\\x1b #2 mtu 1500 up Routed vrf default",
                                                    "vrf default active"}));
}
