#include "platform/nelo/UdpPam.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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
  if (!bindDevice_.empty() && ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, bindDevice_.data(),
                                           static_cast<socklen_t>(bindDevice_.size())) < 0) {
    int e = errno;
    ::close(fd);
    throw Zub::ErrnoException("setsockopt(SO_BINDTODEVICE " + bindDevice_ + ") on " + name_, e);
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

void UdpPam::bindToFirstSource_() {
  // Bind to the first source: packets from it need no ancillary data.
  if (bindTried_ || (ipv6En_ ? txSrc6_.isZero() : txSrc4_.isZero())) return;
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

void UdpPam::fillHeader_(msghdr& msg, TxAddr& addr) const {
  const bool fromBound = ipv6En_ ? (!bound6_.isZero() && txSrc6_ == bound6_)
                                 : (!bound4_.isZero() && txSrc4_ == bound4_);
  msg = msghdr{};
  if (!ipv6En_) {
    addr.dst4 = sockaddr_in{};
    addr.dst4.sin_family = AF_INET;
    addr.dst4.sin_port = htons(txPort_);
    addr.dst4.sin_addr.s_addr = txDst4_.valueNbo();
    msg.msg_name = &addr.dst4;
    msg.msg_namelen = sizeof addr.dst4;
    if (!txSrc4_.isZero() && !fromBound) {
      msg.msg_control = addr.control;
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
    addr.dst6 = sockaddr_in6{};
    addr.dst6.sin6_family = AF_INET6;
    addr.dst6.sin6_port = htons(txPort_);
    std::memcpy(&addr.dst6.sin6_addr, txDst6_.bytes().data(), 16);
    msg.msg_name = &addr.dst6;
    msg.msg_namelen = sizeof addr.dst6;
    if (!txSrc6_.isZero() && !fromBound) {
      msg.msg_control = addr.control;
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
}

bool UdpPam::txPkt(const Zub::Ptr<Pkt>& pkt) {
  if (fd_ < 0 || !pkt) {
    ++txErrors_;
    lastErrno_ = EBADF;
    return false;
  }
  applyTos();
  bindToFirstSource_();
  msghdr msg;
  TxAddr addr;
  fillHeader_(msg, addr);
  iovec iov{const_cast<uint8_t*>(pkt->data()), pkt->bytes()};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
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

size_t UdpPam::txPktBatch(const Zub::Ptr<Pkt>* pkts, size_t n) {
  if (n == 1) return txPkt(pkts[0]) ? 1 : 0;
  if (fd_ < 0) {
    txErrors_ += n;
    lastErrno_ = EBADF;
    return 0;
  }
  applyTos();
  bindToFirstSource_();
  msghdr tmpl;
  TxAddr addr;
  fillHeader_(tmpl, addr);
  constexpr size_t kBatch = 64;
  mmsghdr msgs[kBatch];
  iovec iov[kBatch];
  size_t sent = 0;
  for (size_t i = 0; i < n; i += kBatch) {
    const size_t m = std::min(kBatch, n - i);
    for (size_t j = 0; j < m; ++j) {
      iov[j] = {const_cast<uint8_t*>(pkts[i + j]->data()), pkts[i + j]->bytes()};
      msgs[j].msg_hdr = tmpl;
      msgs[j].msg_hdr.msg_iov = &iov[j];
      msgs[j].msg_hdr.msg_iovlen = 1;
      msgs[j].msg_len = 0;
    }
    const int r = ::sendmmsg(fd_, msgs, static_cast<unsigned>(m), 0);
    if (r < 0) {
      lastErrno_ = errno;
      txErrors_ += m;
      GLINT(trace(), 1) << name_ << ": sendmmsg failed: " << std::strerror(lastErrno_);
      continue;
    }
    sent += static_cast<size_t>(r);
    txPkts_ += static_cast<uint64_t>(r);
    txErrors_ += m - static_cast<size_t>(r);
  }
  return sent;
}

}  // namespace Nelo
