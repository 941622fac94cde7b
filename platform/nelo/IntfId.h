#pragma once
// Interface identifiers are interface names ("Ethernet3/1", "Port-Channel10",
// "Loopback0", "Vlan100", ...). The kind tests recognise the two kinds that flow
// tracking is enabled on.

#include <string>
#include <string_view>

#include "platform/zub/Types.h"

namespace Nelo {

class IntfId {
 public:
  IntfId() = default;
  IntfId(std::string name) : name_(std::move(name)) {}  // NOLINT: implicit by design
  IntfId(const char* name) : name_(name) {}             // NOLINT
  const std::string& name() const { return name_; }
  bool empty() const { return name_.empty(); }
  std::string stringValue() const { return name_; }
  size_t hash() const { return std::hash<std::string>()(name_); }
  friend bool operator==(const IntfId&, const IntfId&) = default;
  friend auto operator<=>(const IntfId&, const IntfId&) = default;

 private:
  std::string name_;
};

struct EthIntfId {
  // "Ethernet" followed by a number and up to two "/number" parts.
  static bool isEthIntfId(const IntfId& id);
};

struct PortChannelIntfId {
  // "Port-Channel" followed by a number.
  static bool isPortChannelIntfId(const IntfId& id);
};

}  // namespace Nelo

template <>
struct std::hash<Nelo::IntfId> {
  size_t operator()(const Nelo::IntfId& i) const noexcept { return i.hash(); }
};
