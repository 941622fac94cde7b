#pragma once
// Interface status as the platform publishes it: Ethernet and port-channel status
// (link and forwarding model), port-channel members, and the generic status of every
// interface (MTU).

#include <cstdint>

#include "platform/nelo/IntfId.h"
#include "platform/zub/Collection.h"

namespace Interface {

enum class LinkStatus : uint32_t {
  linkUnknown = 0,
  linkDown = 1,
  linkUp = 2,
  linkNotPresent = 3,
};
std::string stringValue(LinkStatus s);

// How an interface takes part in forwarding. Values above quiet forward traffic.
enum class ForwardingModel : uint32_t {
  intfForwardingModelUnknown = 0,
  intfForwardingModelInactive = 1,  // administratively or operationally unused
  intfForwardingModelDataLink = 2,  // a port-channel member: forwards as part of its LAG
  intfForwardingModelQuiet = 3,     // monitor or mirror destination: forwards nothing
  intfForwardingModelBridged = 4,
  intfForwardingModelRouted = 5,
};
std::string stringValue(ForwardingModel m);

class EthIntfStatus : public Zub::Entity {
 public:
  explicit EthIntfStatus(const Nelo::IntfId& intfId) : Entity(intfId.name()), intfId_(intfId) {}
  const Nelo::IntfId& intfId() const { return intfId_; }
  ZUB_ATTR(LinkStatus, linkStatus, LinkStatus::linkUnknown)
  ZUB_ATTR(ForwardingModel, forwardingModel, ForwardingModel::intfForwardingModelUnknown)

 private:
  Nelo::IntfId intfId_;
};

// A port-channel: its own link status and forwarding model, and its members.
class EthLagIntfStatus : public EthIntfStatus {
 public:
  explicit EthLagIntfStatus(const Nelo::IntfId& intfId) : EthIntfStatus(intfId) {}
  // Member interface -> active in the port-channel.
  ZUB_COLL(member, Zub::Collection<Nelo::IntfId, bool>)
};

class AllEthPhyIntfStatusDir : public Zub::Entity {
 public:
  explicit AllEthPhyIntfStatusDir(const Zub::Name& name = "ethPhyIntfStatus") : Entity(name) {}
  ZUB_COLL(intfStatus, Zub::Collection<Nelo::IntfId, Zub::Ptr<EthIntfStatus>>)
};

class EthLagIntfStatusDir : public Zub::Entity {
 public:
  explicit EthLagIntfStatusDir(const Zub::Name& name = "ethLagIntfStatus") : Entity(name) {}
  ZUB_COLL(intfStatus, Zub::Collection<Nelo::IntfId, Zub::Ptr<EthLagIntfStatus>>)
};

class IntfStatus : public Zub::Entity {
 public:
  explicit IntfStatus(const Nelo::IntfId& intfId) : Entity(intfId.name()), intfId_(intfId) {}
  const Nelo::IntfId& intfId() const { return intfId_; }
  // Largest IP packet the interface sends, in bytes.
  ZUB_ATTR(uint32_t, mtu, 1500)

 private:
  Nelo::IntfId intfId_;
};

class AllIntfStatusDir : public Zub::Entity {
 public:
  explicit AllIntfStatusDir(const Zub::Name& name = "allIntfStatus") : Entity(name) {}
  ZUB_COLL(intfStatus, Zub::Collection<Nelo::IntfId, Zub::Ptr<IntfStatus>>)
};

}  // namespace Interface
