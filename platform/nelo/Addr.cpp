#include "platform/nelo/Addr.h"

#include <arpa/inet.h>

#include <charconv>

#include "platform/zub/Exception.h"

namespace Nelo {

std::string stringValue(IpVersion v) {
  switch (v) {
    case IpVersion::ipv4:
      return "ipv4";
    case IpVersion::ipv6:
      return "ipv6";
    default:
      return "ipUnknown";
  }
}

namespace {
bool parsePort(std::string_view s, Port* out) {
  unsigned v = 0;
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || p != s.data() + s.size() || s.empty() || v > 65535) return false;
  *out = static_cast<Port>(v);
  return true;
}
bool parseLen(std::string_view s, unsigned max, uint8_t* out) {
  unsigned v = 0;
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || p != s.data() + s.size() || s.empty() || v > max) return false;
  *out = static_cast<uint8_t>(v);
  return true;
}
}  // namespace

// ---- IpAddr ----------------------------------------------------------------------------

IpAddr IpAddr::fromNbo(uint32_t nbo) { return fromHost(ntohl(nbo)); }
uint32_t IpAddr::valueNbo() const { return htonl(host_); }

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
  char buf[INET_ADDRSTRLEN];
  if (text.size() >= sizeof buf) return std::nullopt;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  in_addr a;
  if (inet_pton(AF_INET, buf, &a) != 1) return std::nullopt;
  return fromNbo(a.s_addr);
}

IpAddr::IpAddr(std::string_view text) {
  auto a = parse(text);
  if (!a) throw Zub::RangeException("'" + std::string(text) + "' is not an IPv4 address");
  host_ = a->host_;
}

std::string IpAddr::stringValue() const {
  in_addr a{valueNbo()};
  char buf[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &a, buf, sizeof buf);
  return buf;
}

// ---- Ip6Addr ---------------------------------------------------------------------------

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text) {
  char buf[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof buf) return std::nullopt;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  Bytes b;
  if (inet_pton(AF_INET6, buf, b.data()) != 1) return std::nullopt;
  return Ip6Addr(b);
}

Ip6Addr::Ip6Addr(std::string_view text) {
  auto a = parse(text);
  if (!a) throw Zub::RangeException("'" + std::string(text) + "' is not an IPv6 address");
  b_ = a->b_;
}

bool Ip6Addr::isZero() const {
  for (uint8_t x : b_) {
    if (x) return false;
  }
  return true;
}

bool Ip6Addr::isLoopback() const {
  for (int i = 0; i < 15; ++i) {
    if (b_[i]) return false;
  }
  return b_[15] == 1;
}

bool Ip6Addr::isAllNodes() const {
  static const Bytes allNodes = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return b_ == allNodes;
}

std::string Ip6Addr::stringValue() const {
  char buf[INET6_ADDRSTRLEN];
  inet_ntop(AF_INET6, b_.data(), buf, sizeof buf);
  return buf;
}

size_t Ip6Addr::hash() const {
  uint64_t hi, lo;
  std::memcpy(&hi, b_.data(), 8);
  std::memcpy(&lo, b_.data() + 8, 8);
  return Zub::hashMix(std::hash<uint64_t>()(hi), std::hash<uint64_t>()(lo));
}

// ---- composites ------------------------------------------------------------------------

std::string IpAndPort::stringValue() const { return Zub::str(addr, ":", port); }
std::string Ip6AndPort::stringValue() const { return Zub::str("[", addr, "]:", port); }

IpGenAddr::IpGenAddr(const IpAddr& a) : family(ipv4) {
  uint32_t nbo = a.valueNbo();
  std::memcpy(addr, &nbo, 4);
}

IpGenAddr::IpGenAddr(const Ip6Addr& a) : family(ipv6) { std::memcpy(addr, a.bytes().data(), 16); }

IpAddr IpGenAddr::ipAddr() const {
  uint32_t nbo;
  std::memcpy(&nbo, addr, 4);
  return family == ipv4 ? IpAddr::fromNbo(nbo) : IpAddr();
}

Ip6Addr IpGenAddr::ip6Addr() const {
  Ip6Addr::Bytes b{};
  if (family == ipv6) std::memcpy(b.data(), addr, 16);
  return Ip6Addr(b);
}

std::string IpGenAddr::stringValue() const {
  switch (family) {
    case ipv4:
      return ipAddr().stringValue();
    case ipv6:
      return ip6Addr().stringValue();
    default:
      return "unspecified";
  }
}

size_t IpGenAddr::hash() const {
  uint64_t hi, lo;
  std::memcpy(&hi, addr, 8);
  std::memcpy(&lo, addr + 8, 8);
  return Zub::hashMix(Zub::hashMix(family, std::hash<uint64_t>()(hi)), std::hash<uint64_t>()(lo));
}

std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) {
  if (auto c = a.family <=> b.family; c != 0) return c;
  int m = std::memcmp(a.addr, b.addr, sizeof a.addr);
  return m < 0 ? std::strong_ordering::less
               : (m > 0 ? std::strong_ordering::greater : std::strong_ordering::equal);
}

std::optional<HostAndPort> HostAndPort::parse(std::string_view text) {
  HostAndPort hp;
  if (!text.empty() && text.front() == '[') {
    size_t close = text.find(']');
    if (close == std::string_view::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      return std::nullopt;
    }
    hp.host = std::string(text.substr(1, close - 1));
    if (!Ip6Addr::parse(hp.host)) return std::nullopt;
    if (!parsePort(text.substr(close + 2), &hp.port)) return std::nullopt;
    return hp;
  }
  size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  if (text.substr(0, colon).find(':') != std::string_view::npos) return std::nullopt;
  hp.host = std::string(text.substr(0, colon));
  if (!parsePort(text.substr(colon + 1), &hp.port)) return std::nullopt;
  return hp;
}

std::string HostAndPort::stringValue() const {
  if (host.find(':') != std::string::npos) return Zub::str("[", host, "]:", port);
  return Zub::str(host, ":", port);
}

std::optional<IpAddrWithMask> IpAddrWithMask::parse(std::string_view text) {
  size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  auto a = IpAddr::parse(text.substr(0, slash));
  IpAddrWithMask m;
  if (!a || !parseLen(text.substr(slash + 1), 32, &m.len)) return std::nullopt;
  m.addr = *a;
  return m;
}

std::string IpAddrWithMask::stringValue() const { return Zub::str(addr, "/", len); }
std::string IpAddrWithFullMask::stringValue() const { return Zub::str(addr, "/", mask); }

std::optional<Ip6AddrWithMask> Ip6AddrWithMask::parse(std::string_view text) {
  size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  auto a = Ip6Addr::parse(text.substr(0, slash));
  Ip6AddrWithMask m;
  if (!a || !parseLen(text.substr(slash + 1), 128, &m.len)) return std::nullopt;
  m.addr = *a;
  return m;
}

std::string Ip6AddrWithMask::stringValue() const { return Zub::str(addr, "/", len); }

}  // namespace Nelo
