#include "agent/KernelStatusSource.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/zub/Glint.h"

namespace Agent {

namespace {

Zub::Glint::Facility& trace() {
  static auto& f = Zub::Glint::facility("Agent");
  return f;
}

int applyOne(const nlmsghdr* nlh, void* data) {
  if (!static_cast<KernelStatus*>(data)->apply(nlh)) {
    GLINT(trace(), 2) << "kernel status: message of type " << nlh->nlmsg_type
                      << " could not be read: left out";
  }
  return MNL_CB_OK;
}

std::string failure(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

KernelStatusSource::KernelStatusSource(Orrin::TaskScheduler& scheduler, Changed changed,
                                       Failed failed)
    : scheduler_(scheduler), changed_(std::move(changed)), failed_(std::move(failed)) {
  changedTask_ = new Orrin::Task(scheduler_, "KernelStatusChanged", 2, [this] {
    if (changed_) changed_(status_);
  });
}

KernelStatusSource::~KernelStatusSource() {
  if (!events_) return;
  if (!broken_) scheduler_.fdDel(mnl_socket_get_fd(events_));
  mnl_socket_close(events_);
}

bool KernelStatusSource::start(std::string* error, int receiveBuffer) {
  // Subscribed before the dump: an event that races the dump is applied after it.
  events_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (!events_) {
    if (error) *error = failure("rtnetlink socket");
    return false;
  }
  if (receiveBuffer > 0) {
    ::setsockopt(mnl_socket_get_fd(events_), SOL_SOCKET, SO_RCVBUF, &receiveBuffer,
                 sizeof receiveBuffer);
  }
  if (mnl_socket_bind(events_, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR,
                      MNL_SOCKET_AUTOPID) < 0) {
    if (error) *error = failure("rtnetlink subscription");
    mnl_socket_close(events_);
    events_ = nullptr;
    return false;
  }
  if (!dump_(error)) {
    mnl_socket_close(events_);
    events_ = nullptr;
    return false;
  }
  scheduler_.fdIs(mnl_socket_get_fd(events_), EPOLLIN, [this](uint32_t) { handleEvents_(); });
  return true;
}

// A dump that saw links change while it ran ("dump interrupted") is incomplete and is
// repeated at once: under churn it may take a few tries. Only a dump that fails otherwise,
// or is interrupted every time, is a failure.
bool KernelStatusSource::dump_(std::string* error) {
  constexpr int kAttempts = 20;
  for (int attempt = 1;; ++attempt) {
    bool interrupted = false;
    if (dumpOnce_(error, &interrupted)) return true;
    if (!interrupted || attempt == kAttempts) return false;
    ++interruptedDumps_;
    GLINT(trace(), 1) << "kernel status: dump interrupted by changes; dumping again";
  }
}

// Links first, then addresses, into a fresh model that replaces the current one.
bool KernelStatusSource::dumpOnce_(std::string* error, bool* interrupted) {
  mnl_socket* s = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
  if (!s || mnl_socket_bind(s, 0, MNL_SOCKET_AUTOPID) < 0) {
    if (error) *error = failure("rtnetlink dump socket");
    if (s) mnl_socket_close(s);
    return false;
  }
  // The kernel answers a dump at once; a bound on the wait keeps a broken one from
  // holding the loop.
  timeval tv{1, 0};
  ::setsockopt(mnl_socket_get_fd(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  KernelStatus fresh;
  // Dump replies come in messages of up to 32 KiB.
  std::vector<char> buf(32768);
  const unsigned portId = mnl_socket_get_portid(s);
  bool ok = true;
  for (uint16_t type : {RTM_GETLINK, RTM_GETADDR}) {
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf.data());
    nlh->nlmsg_type = type;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    const auto seq = static_cast<unsigned>(::time(nullptr)) + type;
    nlh->nlmsg_seq = seq;
    auto* gen = static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtgenmsg)));
    gen->rtgen_family = AF_UNSPEC;
    if (mnl_socket_sendto(s, nlh, nlh->nlmsg_len) < 0) {
      ok = false;
      break;
    }
    int rc = MNL_CB_OK;
    while (rc > MNL_CB_STOP) {
      const ssize_t n = mnl_socket_recvfrom(s, buf.data(), buf.size());
      if (n <= 0) {
        ok = false;
        break;
      }
      if (!KernelStatus::framed(buf.data(), static_cast<size_t>(n))) {
        errno = EBADMSG;
        ok = false;
        break;
      }
      rc = mnl_cb_run(buf.data(), static_cast<size_t>(n), seq, portId, applyOne, &fresh);
    }
    if (!ok || rc < 0) {
      // libmnl's EINTR: the kernel flagged the dump NLM_F_DUMP_INTR.
      *interrupted = ok && errno == EINTR;
      ok = false;
      break;
    }
  }
  if (!ok) {
    if (error) *error = failure("rtnetlink dump");
    mnl_socket_close(s);
    return false;
  }
  mnl_socket_close(s);
  status_ = std::move(fresh);
  ++dumps_;
  changedTask_->schedule();
  return true;
}

void KernelStatusSource::handleEvents_() {
  std::vector<char>& buf = eventBuf_;
  bool overrun = false;
  // A bounded number of reads per wake-up; the rest comes with the next one.
  for (int i = 0; i < 64; ++i) {
    const ssize_t n = mnl_socket_recvfrom(events_, buf.data(), buf.size());
    if (n < 0) {
      if (errno == ENOBUFS) overrun = true;
      if (errno == EINTR || errno == ENOBUFS) continue;
      // Anything but "drained" leaves the socket's state unknown: dump again.
      if (errno != EAGAIN && errno != EWOULDBLOCK) overrun = true;
      break;
    }
    if (!KernelStatus::framed(buf.data(), static_cast<size_t>(n))) {
      // Not what the kernel sends: nothing in it is trusted, and what it stood for is
      // read again in a fresh dump.
      GLINT(trace(), 1) << "kernel status: a malformed batch of " << n << " bytes";
      overrun = true;
      continue;
    }
    if (mnl_cb_run(buf.data(), static_cast<size_t>(n), 0, 0, applyOne, &status_) < 0) {
      GLINT(trace(), 1) << "kernel status: " << std::strerror(errno);
    }
    changedTask_->schedule();
  }
  if (overrun) {
    GLINT(trace(), 1) << "kernel status: events were lost; dumping again";
    std::string error;
    if (!dump_(&error)) {
      GLINT(trace(), 0) << "kernel status: " << error;
      // Nothing more is read from this socket; the owner replaces the source.
      broken_ = true;
      scheduler_.fdDel(mnl_socket_get_fd(events_));
      if (failed_) failed_(error);
    }
  }
}

}  // namespace Agent
