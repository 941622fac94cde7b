#include "platform/nelo/UdpPam.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/zub/Exception.h"
#include "platform/zub/Glint.h"

namespace Nelo {

namespace {
Zub::Glint::Facility& trace() {
  static auto& f = Zub::Glint::facility("Nelo");
  return f;
}
}  // namespace

UdpPam::~UdpPam() {
  if (fd_ >= 0) ::close(fd_);
}

void UdpPam::txPrioIs(IpTrafficControl prio) {
  txPrio_ = prio;
  if (fd_ >= 0 && ::setsockopt(fd_, SOL_SOCKET, SO_PRIORITY, &prio, sizeof prio) < 0) {
    throw Zub::ErrnoException("setsockopt(SO_PRIORITY) on " + name_, errno);
  }
}

void UdpPam::modeIs(Mode m) {
  if (m == modeOff) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    appliedTos_ = -1;
    bindTried_ = false;
    bound4_ = IpAddr();
    bound6_ = Ip6Addr();
    return;
  }
  if (fd_ >= 0) return;
  int fd = ::socket(ipv6En_ ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw Zub::ErrnoException("socket for " + name_, errno);
  int prio = txPrio_;
  if (::setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &prio, sizeof prio) < 0) {
    int e = errno;
    ::close(fd);
    throw Zub::ErrnoException("setsockopt(SO_PRIORITY) on " + name_, e);
  }
  if (ipv6En_) {
    int on = 1;
    // Only IPv6 destinations: IPv4 collectors have their own endpoint.
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  }
  fd_ = fd;
  appliedTos_ = -1;
  bindTried_ = false;
}

void UdpPam::applyTos() {
  int tos = (txDscp_ & 0x3f) << 2;
  if (tos == appliedTos_) return;
  int rc = ipv6En_ ? ::setsockopt(fd_, IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof tos)
                   : ::setsockopt(fd_, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
  if (rc == 0) {
    appliedTos_ = tos;
  } else {
    GLINT(trace(), 0) << name_ << ": cannot set TOS " << tos << ": " << std::strerror(errno);
  }
}

bool UdpPam::txPkt(const Zub::Ptr<Pkt>& pkt) {
  if (fd_ < 0 || !pkt) {
    ++txErrors_;
    lastErrno_ = EBADF;
    return false;
  }
  applyTos();
  // Bind to the first source: packets from it need no ancillary data.
  if (!bindTried_ && (ipv6En_ ? !txSrc6_.isZero() : !txSrc4_.isZero())) {
    bindTried_ = true;
    if (ipv6En_) {
      sockaddr_in6 a{};
      a.sin6_family = AF_INET6;
      std::memcpy(&a.sin6_addr, txSrc6_.bytes().data(), 16);
      if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) bound6_ = txSrc6_;
    } else {
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = txSrc4_.valueNbo();
      if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) bound4_ = txSrc4_;
    }
  }
  const bool fromBound = ipv6En_ ? (!bound6_.isZero() && txSrc6_ == bound6_)
                                 : (!bound4_.isZero() && txSrc4_ == bound4_);
  iovec iov{const_cast<uint8_t*>(pkt->data()), pkt->bytes()};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
  sockaddr_in dst4{};
  sockaddr_in6 dst6{};
  if (!ipv6En_) {
    dst4.sin_family = AF_INET;
    dst4.sin_port = htons(txPort_);
    dst4.sin_addr.s_addr = txDst4_.valueNbo();
    msg.msg_name = &dst4;
    msg.msg_namelen = sizeof dst4;
    if (!txSrc4_.isZero() && !fromBound) {
      msg.msg_control = control;
      msg.msg_controllen = CMSG_SPACE(sizeof(in_pktinfo));
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = IPPROTO_IP;
      c->cmsg_type = IP_PKTINFO;
      c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
      in_pktinfo info{};
      info.ipi_spec_dst.s_addr = txSrc4_.valueNbo();
      std::memcpy(CMSG_DATA(c), &info, sizeof info);
    }
  } else {
    dst6.sin6_family = AF_INET6;
    dst6.sin6_port = htons(txPort_);
    std::memcpy(&dst6.sin6_addr, txDst6_.bytes().data(), 16);
    msg.msg_name = &dst6;
    msg.msg_namelen = sizeof dst6;
    if (!txSrc6_.isZero() && !fromBound) {
      msg.msg_control = control;
      msg.msg_controllen = CMSG_SPACE(sizeof(in6_pktinfo));
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = IPPROTO_IPV6;
      c->cmsg_type = IPV6_PKTINFO;
      c->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
      in6_pktinfo info{};
      std::memcpy(&info.ipi6_addr, txSrc6_.bytes().data(), 16);
      std::memcpy(CMSG_DATA(c), &info, sizeof info);
    }
  }
  ssize_t n = msg.msg_control
                  ? ::sendmsg(fd_, &msg, 0)
                  : ::sendto(fd_, iov.iov_base, iov.iov_len, 0,
                             static_cast<const sockaddr*>(msg.msg_name), msg.msg_namelen);
  if (n < 0) {
    lastErrno_ = errno;
    ++txErrors_;
    GLINT(trace(), 1) << name_ << ": sendmsg failed: " << std::strerror(lastErrno_);
    return false;
  }
  ++txPkts_;
  return true;
}

}  // namespace Nelo
