#pragma once
// Network address value types: parsing, printing, ordering and hashing.

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "platform/zub/Bounded.h"
#include "platform/zub/Types.h"

namespace Nelo {

using Port = uint16_t;
// Socket priority (SO_PRIORITY) of transmitted packets.
using IpTrafficControl = int;
using IpProtocolNumber = uint8_t;

enum class IpVersion : uint8_t { ipUnknown = 0, ipv4 = 4, ipv6 = 6 };
std::string stringValue(IpVersion v);

class IpAddr {
 public:
  constexpr IpAddr() = default;
  // From the address in host byte order (0x7f000001 is 127.0.0.1).
  static constexpr IpAddr fromHost(uint32_t host) {
    IpAddr a;
    a.host_ = host;
    return a;
  }
  static IpAddr fromNbo(uint32_t nbo);
  // Dotted-decimal text; raises Zub::RangeException when it is not an IPv4 address.
  explicit IpAddr(std::string_view text);
  static std::optional<IpAddr> parse(std::string_view text);
  static constexpr IpAddr ipAddrZero() { return IpAddr(); }

  constexpr uint32_t value() const { return host_; }
  uint32_t valueNbo() const;
  constexpr bool isZero() const { return host_ == 0; }
  constexpr bool isBroadcast() const { return host_ == 0xffffffffu; }
  constexpr bool isMulticast() const { return (host_ >> 28) == 0xe; }
  constexpr bool isLoopback() const { return (host_ >> 24) == 127; }

  std::string stringValue() const;
  size_t hash() const { return std::hash<uint32_t>()(host_); }
  friend constexpr bool operator==(IpAddr a, IpAddr b) { return a.host_ == b.host_; }
  friend constexpr auto operator<=>(IpAddr a, IpAddr b) { return a.host_ <=> b.host_; }

 private:
  uint32_t host_ = 0;
};

class Ip6Addr {
 public:
  using Bytes = std::array<uint8_t, 16>;
  constexpr Ip6Addr() = default;
  explicit constexpr Ip6Addr(const Bytes& b) : b_(b) {}
  explicit Ip6Addr(std::string_view text);
  static std::optional<Ip6Addr> parse(std::string_view text);

  const Bytes& bytes() const { return b_; }
  bool isZero() const;
  bool isMulticast() const { return b_[0] == 0xff; }
  bool isLinkLocal() const { return b_[0] == 0xfe && (b_[1] & 0xc0) == 0x80; }
  bool isLoopback() const;
  // ff02::1
  bool isAllNodes() const;

  std::string stringValue() const;
  size_t hash() const;
  friend bool operator==(const Ip6Addr& a, const Ip6Addr& b) { return a.b_ == b.b_; }
  friend auto operator<=>(const Ip6Addr& a, const Ip6Addr& b) { return a.b_ <=> b.b_; }

 private:
  Bytes b_{};
};

struct IpAndPort {
  IpAddr addr;
  Port port = 0;
  std::string stringValue() const;  // "10.0.0.1:4739"
  size_t hash() const { return Zub::hashMix(addr.hash(), port); }
  friend bool operator==(const IpAndPort&, const IpAndPort&) = default;
  friend auto operator<=>(const IpAndPort&, const IpAndPort&) = default;
};

struct Ip6AndPort {
  Ip6Addr addr;
  Port port = 0;
  std::string stringValue() const;  // "[2001:db8::1]:4739"
  size_t hash() const { return Zub::hashMix(addr.hash(), port); }
  friend bool operator==(const Ip6AndPort&, const Ip6AndPort&) = default;
  friend auto operator<=>(const Ip6AndPort&, const Ip6AndPort&) = default;
};

// An IPv4 or IPv6 address in one fixed-size, trivially copyable record: the address
// family word followed by 16 bytes of address (IPv4 in the first four, network order).
struct IpGenAddr {
  enum Family : uint32_t { unspecified = 0, ipv4 = 4, ipv6 = 6 };
  uint32_t family = unspecified;
  uint8_t addr[16] = {};

  IpGenAddr() = default;
  IpGenAddr(const IpAddr& a);   // NOLINT: implicit by design
  IpGenAddr(const Ip6Addr& a);  // NOLINT
  bool isUnspecified() const { return family == unspecified; }
  IpAddr ipAddr() const;
  Ip6Addr ip6Addr() const;
  // Dotted-decimal, IPv6 text, or "unspecified".
  std::string stringValue() const;
  size_t hash() const;
  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return a.family == b.family && std::memcmp(a.addr, b.addr, sizeof a.addr) == 0;
  }
  friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b);
};
static_assert(sizeof(IpGenAddr) == 20);

// A collector's host as configured (a name or an address literal) and its UDP port.
struct HostAndPort {
  std::string host;
  Port port = 0;
  // "host:port", "a.b.c.d:port" or "[v6]:port"; nullopt when malformed.
  static std::optional<HostAndPort> parse(std::string_view text);
  std::string stringValue() const;
  size_t hash() const { return Zub::hashMix(std::hash<std::string>()(host), port); }
  friend bool operator==(const HostAndPort&, const HostAndPort&) = default;
  friend auto operator<=>(const HostAndPort&, const HostAndPort&) = default;
};

// An interface address with its prefix length ("10.1.2.3/24").
struct IpAddrWithMask {
  IpAddr addr;
  uint8_t len = 0;
  static std::optional<IpAddrWithMask> parse(std::string_view text);
  std::string stringValue() const;
  friend bool operator==(const IpAddrWithMask&, const IpAddrWithMask&) = default;
  friend auto operator<=>(const IpAddrWithMask&, const IpAddrWithMask&) = default;
};

// An address with a full dotted mask ("10.1.2.0/255.255.255.0"), as match rules use.
struct IpAddrWithFullMask {
  IpAddr addr;
  IpAddr mask;
  std::string stringValue() const;
  friend bool operator==(const IpAddrWithFullMask&, const IpAddrWithFullMask&) = default;
  friend auto operator<=>(const IpAddrWithFullMask&, const IpAddrWithFullMask&) = default;
};

struct Ip6AddrWithMask {
  Ip6Addr addr;
  uint8_t len = 0;
  static std::optional<Ip6AddrWithMask> parse(std::string_view text);
  std::string stringValue() const;  // "2001:db8::1/64"
  size_t hash() const { return Zub::hashMix(addr.hash(), len); }
  friend bool operator==(const Ip6AddrWithMask&, const Ip6AddrWithMask&) = default;
  friend auto operator<=>(const Ip6AddrWithMask&, const Ip6AddrWithMask&) = default;
};

// DSCP of exported packets, 0..63.
struct DscpValue : Zub::Bounded<DscpValue, uint8_t, 0, 63, 0> {
  using Bounded::Bounded;
  static constexpr uint8_t min = 0;
  static constexpr uint8_t max = 63;
  static constexpr const char* kRangeMessage =
      "ExporterConfig::dscpValue < DscpValue::min or > DscpValue::max not allowed";
};

}  // namespace Nelo
