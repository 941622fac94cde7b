#pragma once
// IP status: the IPv4 address of each interface, the L3 status (VRF) each interface is
// in, the local state of each VRF, the IPv6 addresses of each interface, and the map
// of VRF identifiers to names.

#include <cstdint>

#include "platform/nelo/Addr.h"
#include "platform/nelo/IntfId.h"
#include "platform/nelo/VrfName.h"
#include "platform/zub/Collection.h"

namespace L3 {

// The L3 status of one interface: the VRF it is in.
class IntfStatus : public Zub::Entity {
 public:
  explicit IntfStatus(const Nelo::IntfId& intfId) : Entity(intfId.name()), intfId_(intfId) {}
  const Nelo::IntfId& intfId() const { return intfId_; }
  ZUB_ATTR(VrfName, vrf)

 private:
  Nelo::IntfId intfId_;
};

}  // namespace L3

namespace Ip {

class IpIntfStatus : public Zub::Entity {
 public:
  explicit IpIntfStatus(const Nelo::IntfId& intfId) : Entity(intfId.name()), intfId_(intfId) {}
  const Nelo::IntfId& intfId() const { return intfId_; }
  // The primary IPv4 address with its prefix length.
  ZUB_ATTR(Nelo::IpAddrWithMask, activeAddrWithMask)
  // The interface's L3 status (its VRF); null when unknown.
  ZUB_ATTR(Zub::Ptr<L3::IntfStatus>, l3Status)

 private:
  Nelo::IntfId intfId_;
};

class Status : public Zub::Entity {
 public:
  explicit Status(const Zub::Name& name = "ipStatus") : Entity(name) {}
  ZUB_COLL(ipIntfStatus, Zub::Collection<Nelo::IntfId, Zub::Ptr<IpIntfStatus>>)
};

enum class VrfState : uint32_t {
  vrfInitializing = 0,
  vrfActive = 1,
  vrfDeleting = 2,
};
std::string stringValue(VrfState s);

class VrfStatusLocal : public Zub::Entity {
 public:
  explicit VrfStatusLocal(const L3::VrfName& name) : Entity(name.name()), vrfName_(name) {}
  const L3::VrfName& vrfName() const { return vrfName_; }
  ZUB_ATTR(VrfState, state, VrfState::vrfInitializing)
  // The kernel device whose routing table is the VRF's; empty when the VRF has none (a
  // VRF only the configuration file knows). Exporters in the VRF send through it.
  ZUB_ATTR(Zub::Name, device)

 private:
  L3::VrfName vrfName_;
};

class AllVrfStatusLocal : public Zub::Entity {
 public:
  explicit AllVrfStatusLocal(const Zub::Name& name = "allVrfStatusLocal") : Entity(name) {}
  ZUB_COLL(vrf, Zub::Collection<L3::VrfName, Zub::Ptr<VrfStatusLocal>>)
};

}  // namespace Ip

namespace Ip6 {

class IntfStatus : public Zub::Entity {
 public:
  explicit IntfStatus(const Nelo::IntfId& intfId) : Entity(intfId.name()), intfId_(intfId) {}
  const Nelo::IntfId& intfId() const { return intfId_; }
  // The interface's IPv6 addresses (a set; iteration in address order).
  ZUB_COLL(addr, Zub::OrderedCollection<Nelo::Ip6AddrWithMask, bool>)
  void addrIs(const Nelo::Ip6AddrWithMask& a) { addr_.set(a, true); }

 private:
  Nelo::IntfId intfId_;
};

class Status : public Zub::Entity {
 public:
  explicit Status(const Zub::Name& name = "ip6Status") : Entity(name) {}
  ZUB_COLL(intf, Zub::Collection<Nelo::IntfId, Zub::Ptr<IntfStatus>>)
};

}  // namespace Ip6

namespace Vrf::VrfIdMap {

using VrfId = uint32_t;

// Which VRF each identifier names.
class Status : public Zub::Entity {
 public:
  explicit Status(const Zub::Name& name = "vrfIdMapStatus") : Entity(name) {}
  ZUB_COLL(vrfIdToName, Zub::Collection<VrfId, L3::VrfName>)
};

}  // namespace Vrf::VrfIdMap
