#pragma once
// UdpPam: a UDP transmit endpoint. One socket of one family serves every destination
// of an exporter; each packet carries its own source address, destination and port.
// The socket is bound to the first source address it sends from, so the common case
// (one source for all packets) is a plain sendto; a packet from another source is sent
// with sendmsg carrying that source (IP_PKTINFO / IPV6_PKTINFO). The DSCP set with
// txTosIs is the raw 0..63 value; the packet carries it in the upper six bits of its
// TOS / traffic class byte.

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "platform/nelo/Addr.h"
#include "platform/nelo/Pkt.h"
#include "platform/zub/Types.h"

namespace Nelo {

class UdpPam : public Zub::PtrInterface {
 public:
  enum Mode : uint8_t { modeOff = 0, modeOn = 1 };

  explicit UdpPam(Zub::Name name) : name_(std::move(name)) {}
  ~UdpPam() override;
  UdpPam(const UdpPam&) = delete;
  UdpPam& operator=(const UdpPam&) = delete;

  const Zub::Name& name() const { return name_; }
  // The family of the socket opened by the next modeIs(modeOn).
  void ipv6EnIs(bool v6) { ipv6En_ = v6; }
  bool ipv6En() const { return ipv6En_; }
  // Socket priority of transmitted packets (applied now if open, else when opened).
  void txPrioIs(IpTrafficControl prio);
  IpTrafficControl txPrio() const { return txPrio_; }
  // The device the socket opened by the next modeIs(modeOn) is bound to
  // (SO_BINDTODEVICE), empty for none. Bound to a VRF's device, the socket routes and
  // chooses its source by the VRF's table. The device is set once per socket: binding
  // a fresh socket needs no privilege (Linux 5.7 and later), rebinding one would need
  // CAP_NET_RAW, so a new device means a new socket.
  void bindDeviceIs(std::string device) { bindDevice_ = std::move(device); }
  const std::string& bindDevice() const { return bindDevice_; }
  // modeOn opens the socket, modeOff closes it. Raises Zub::ErrnoException when a
  // system call fails; the endpoint is then closed.
  virtual void modeIs(Mode m);
  void modeIs(int m) { modeIs(static_cast<Mode>(m)); }
  virtual Mode mode() const { return fd_ >= 0 ? modeOn : modeOff; }
  virtual int fd() const { return fd_; }

  void txSrcIpAddrIs(IpAddr a) { txSrc4_ = a; }
  void txDstIpAddrIs(IpAddr a) { txDst4_ = a; }
  void txSrcIp6AddrIs(const Ip6Addr& a) { txSrc6_ = a; }
  void txDstIp6AddrIs(const Ip6Addr& a) { txDst6_ = a; }
  void txPortIs(Port p) { txPort_ = p; }
  // DSCP, 0..63.
  void txTosIs(uint8_t dscp) { txDscp_ = dscp; }

  // Sends one datagram with the current transmit settings. Returns false when the
  // endpoint is off or the kernel refused the packet (counted in txErrors).
  // Unit tests replace the endpoint by a recorder that overrides modeIs, mode, fd and
  // txPkt.
  virtual bool txPkt(const Zub::Ptr<Pkt>& pkt);
  // Sends n datagrams with the current transmit settings, up to 64 per system call
  // (sendmmsg); returns how many the kernel took, the rest counted in txErrors.
  virtual size_t txPktBatch(const Zub::Ptr<Pkt>* pkts, size_t n);

  IpAddr txSrcIpAddr() const { return txSrc4_; }
  IpAddr txDstIpAddr() const { return txDst4_; }
  const Ip6Addr& txSrcIp6Addr() const { return txSrc6_; }
  const Ip6Addr& txDstIp6Addr() const { return txDst6_; }
  Port txPort() const { return txPort_; }
  uint8_t txTos() const { return txDscp_; }

  uint64_t txPkts() const { return txPkts_; }
  uint64_t txErrors() const { return txErrors_; }
  int lastErrno() const { return lastErrno_; }

 protected:
  // For endpoints that stand in for a socket (tests): the error of a refused send.
  void lastErrnoIs(int e) { lastErrno_ = e; }

 private:
  // Where one datagram goes: its destination and the ancillary data naming its source.
  struct TxAddr {
    sockaddr_in dst4;
    sockaddr_in6 dst6;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
  };
  void applyTos();
  void bindToFirstSource_();
  void fillHeader_(msghdr& msg, TxAddr& addr) const;

  Zub::Name name_;
  bool ipv6En_ = false;
  IpTrafficControl txPrio_ = 0;
  std::string bindDevice_;
  int fd_ = -1;
  IpAddr txSrc4_, txDst4_;
  Ip6Addr txSrc6_, txDst6_;
  Port txPort_ = 0;
  uint8_t txDscp_ = 0;
  int appliedTos_ = -1;  // TOS byte set on the socket, -1 before the first send
  bool bindTried_ = false;
  IpAddr bound4_;  // the source the socket is bound to (zero: not bound)
  Ip6Addr bound6_;
  uint64_t txPkts_ = 0;
  uint64_t txErrors_ = 0;
  int lastErrno_ = 0;
};

}  // namespace Nelo
