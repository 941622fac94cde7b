#include "tests/support/Network.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <stdexcept>

namespace TestSupport {

uint16_t firstSetId(const std::string& message) {
  if (message.size() < 20) return 0;
  return static_cast<uint16_t>(static_cast<uint8_t>(message[16]) << 8 |
                               static_cast<uint8_t>(message[17]));
}

std::vector<Datagram> ofSet(const std::vector<Datagram>& datagrams, uint16_t setId) {
  std::vector<Datagram> out;
  for (const Datagram& d : datagrams) {
    if (firstSetId(d.payload) == setId) out.push_back(d);
  }
  return out;
}

UdpReceiver::UdpReceiver(bool ipv6, uint16_t port, const char* ipv4) : ipv6_(ipv6) {
  fd_ = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw std::runtime_error("socket");
  int on = 1;
  int big = 4 << 20;
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  if (ipv6) {
    ::setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
    ::setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVTCLASS, &on, sizeof on);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    a.sin6_port = htons(port);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0)
      throw std::runtime_error("bind6");
    socklen_t len = sizeof a;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin6_port);
  } else {
    ::setsockopt(fd_, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    ::setsockopt(fd_, IPPROTO_IP, IP_RECVTOS, &on, sizeof on);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    if (::inet_pton(AF_INET, ipv4, &a.sin_addr) != 1) throw std::runtime_error("address");
    a.sin_port = htons(port);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0)
      throw std::runtime_error("bind4");
    socklen_t len = sizeof a;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
  }
}

UdpReceiver::~UdpReceiver() {
  if (fd_ >= 0) ::close(fd_);
}

std::optional<Datagram> UdpReceiver::receive(std::chrono::milliseconds timeout) {
  pollfd p{fd_, POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
  char buf[65536];
  alignas(cmsghdr) char control[512];
  sockaddr_storage from{};
  iovec iov{buf, sizeof buf};
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  ssize_t n = ::recvmsg(fd_, &msg, 0);
  if (n < 0) return std::nullopt;
  Datagram d;
  d.payload.assign(buf, static_cast<size_t>(n));
  d.dstPort = port_;
  if (from.ss_family == AF_INET6) {
    auto* s = reinterpret_cast<sockaddr_in6*>(&from);
    Nelo::Ip6Addr::Bytes b;
    std::memcpy(b.data(), &s->sin6_addr, 16);
    d.src = Nelo::Ip6Addr(b);
    d.srcPort = ntohs(s->sin6_port);
  } else {
    auto* s = reinterpret_cast<sockaddr_in*>(&from);
    d.src = Nelo::IpAddr::fromNbo(s->sin_addr.s_addr);
    d.srcPort = ntohs(s->sin_port);
  }
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
      in_pktinfo info;
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      d.dst = Nelo::IpAddr::fromNbo(info.ipi_addr.s_addr);
    } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) {
      d.tos = *reinterpret_cast<unsigned char*>(CMSG_DATA(c));
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
      in6_pktinfo info;
      std::memcpy(&info, CMSG_DATA(c), sizeof info);
      Nelo::Ip6Addr::Bytes b;
      std::memcpy(b.data(), &info.ipi6_addr, 16);
      d.dst = Nelo::Ip6Addr(b);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
      int tc;
      std::memcpy(&tc, CMSG_DATA(c), sizeof tc);
      d.tos = tc;
    }
  }
  return d;
}

std::vector<Datagram> UdpReceiver::drain(std::chrono::milliseconds quiet, size_t max) {
  std::vector<Datagram> out;
  while (out.size() < max) {
    auto d = receive(quiet);
    if (!d) break;
    out.push_back(std::move(*d));
  }
  return out;
}

}  // namespace TestSupport
