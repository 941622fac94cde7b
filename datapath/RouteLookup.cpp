#include "datapath/RouteLookup.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstring>

#include "platform/nelo/Netlink.h"

namespace FlowTracking {

RouteLookup::RouteLookup(Orrin::TaskScheduler& scheduler, Answer answer)
    : scheduler_(scheduler), answer_(std::move(answer)) {}

RouteLookup::~RouteLookup() {
  if (!nl_) return;
  scheduler_.fdDel(mnl_socket_get_fd(nl_));
  mnl_socket_close(nl_);
}

bool RouteLookup::start(std::string* error) {
  nl_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (!nl_ || mnl_socket_bind(nl_, RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE, MNL_SOCKET_AUTOPID) < 0) {
    if (error) *error = std::string("route socket: ") + std::strerror(errno);
    if (nl_) mnl_socket_close(nl_);
    nl_ = nullptr;
    return false;
  }
  scheduler_.fdIs(mnl_socket_get_fd(nl_), EPOLLIN, [this](uint32_t) { handleReadable_(); });
  return true;
}

uint32_t RouteLookup::egress(const FlowKey& key) {
  const Dest dest = destOf(key);
  if (auto it = cache_.find(dest); it != cache_.end()) return it->second;
  if (!nl_) return 0;
  if (auto it = pendingByDest_.find(dest); it != pendingByDest_.end()) {
    pending_[it->second].second.push_back(key);
    return 0;
  }
  char buf[MNL_SOCKET_BUFFER_SIZE];
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
  nlh->nlmsg_type = RTM_GETROUTE;
  nlh->nlmsg_flags = NLM_F_REQUEST;
  nlh->nlmsg_seq = ++seq_;
  auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  const bool v4 = key.ipVersion == 4;
  rtm->rtm_family = v4 ? AF_INET : AF_INET6;
  rtm->rtm_dst_len = v4 ? 32 : 128;
  const size_t alen = v4 ? 4 : 16;
  mnl_attr_put(nlh, RTA_DST, alen, key.dst.data());
  mnl_attr_put(nlh, RTA_SRC, alen, key.src.data());
  rtm->rtm_src_len = v4 ? 32 : 128;
  if (key.ingressIf) mnl_attr_put_u32(nlh, RTA_IIF, key.ingressIf);
  mnl_attr_put_u8(nlh, RTA_IP_PROTO, key.protocol);
  if (key.protocol == 6 || key.protocol == 17 || key.protocol == 132) {
    mnl_attr_put_u16(nlh, RTA_SPORT, htons(key.srcPort));
    mnl_attr_put_u16(nlh, RTA_DPORT, htons(key.dstPort));
  }
  if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) < 0) return 0;
  pending_[seq_] = {dest, {key}};
  pendingByDest_[dest] = seq_;
  return 0;
}

bool RouteLookup::parseReply(const nlmsghdr* nlh, uint32_t* oif) {
  if (nlh->nlmsg_type != RTM_NEWROUTE || nlh->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
    return false;
  }
  *oif = 0;
  const auto* rtm = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(nlh));
  if (rtm->rtm_type != RTN_UNICAST) return true;  // local, unreachable, ...: no egress
  mnl_attr_parse(
      nlh, sizeof(rtmsg),
      [](const nlattr* attr, void* data) {
        if (mnl_attr_get_type(attr) == RTA_OIF && mnl_attr_validate(attr, MNL_TYPE_U32) >= 0) {
          *static_cast<uint32_t*>(data) = mnl_attr_get_u32(attr);
        }
        return MNL_CB_OK;
      },
      oif);
  return true;
}

void RouteLookup::handleReadable_() {
  for (int i = 0; i < 64; ++i) {
    const ssize_t n = mnl_socket_recvfrom(nl_, buf_.data(), buf_.size());
    if (n < 0) {
      // Lost events (ENOBUFS) may hide a route change: forget what is known.
      if (errno == ENOBUFS) cache_.clear();
      if (errno == EINTR || errno == ENOBUFS) continue;
      return;
    }
    if (!Nelo::netlinkFramed(buf_.data(), static_cast<size_t>(n))) continue;
    int len = static_cast<int>(n);
    for (auto* nlh = reinterpret_cast<const nlmsghdr*>(buf_.data()); mnl_nlmsg_ok(nlh, len);
         nlh = mnl_nlmsg_next(nlh, &len)) {
      auto it = nlh->nlmsg_seq ? pending_.find(nlh->nlmsg_seq) : pending_.end();
      if (it == pending_.end()) {
        // An event (or a stale answer): routes changed, every kept answer may be wrong.
        if (nlh->nlmsg_type == RTM_NEWROUTE || nlh->nlmsg_type == RTM_DELROUTE) cache_.clear();
        continue;
      }
      uint32_t oif = 0;
      if (nlh->nlmsg_type == NLMSG_ERROR || parseReply(nlh, &oif)) {
        auto [dest, keys] = std::move(it->second);
        pending_.erase(it);
        pendingByDest_.erase(dest);
        cache_[dest] = oif;
        for (const FlowKey& k : keys) answer_(k, oif);
      }
    }
  }
}

}  // namespace FlowTracking
