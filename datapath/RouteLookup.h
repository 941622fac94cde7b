#pragma once
// The egress interface of a flow, as the kernel would route it: an RTM_GETROUTE request
// with the flow's addresses, protocol, ports and ingress interface (so that policy
// routing, VRF tables and the multipath hash choose as they do for the flow's packets),
// sent on a non-blocking rtnetlink socket and answered on the loop. Answers are kept per
// (ingress interface, destination) until a route changes: the socket also follows the
// route events and forgets them all at the first one.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "datapath/FlowCache.h"
#include "platform/orrin/TaskScheduler.h"

struct mnl_socket;
struct nlmsghdr;

namespace FlowTracking {

class RouteLookup {
 public:
  // The answer for `key`: the egress ifindex, 0 for a local or unreachable destination.
  using Answer = std::function<void(const FlowKey& key, uint32_t egressIf)>;
  RouteLookup(Orrin::TaskScheduler& scheduler, Answer answer);
  ~RouteLookup();
  RouteLookup(const RouteLookup&) = delete;
  RouteLookup& operator=(const RouteLookup&) = delete;

  bool start(std::string* error);
  // The egress of `key` when it is known; otherwise 0, and the answer comes later
  // through the callback (at most one request per destination at a time).
  uint32_t egress(const FlowKey& key);
  size_t pending() const { return pending_.size(); }
  size_t cached() const { return cache_.size(); }

  // The interface a route reply names (RTA_OIF), or 0; false when it is no route reply.
  static bool parseReply(const nlmsghdr* nlh, uint32_t* oif);

 private:
  using Dest = std::tuple<uint8_t, std::array<uint8_t, 16>, uint32_t, uint32_t>;
  static Dest destOf(const FlowKey& k) { return {k.ipVersion, k.dst, k.ingressIf, k.vrfId}; }
  void handleReadable_();

  Orrin::TaskScheduler& scheduler_;
  Answer answer_;
  mnl_socket* nl_ = nullptr;
  uint32_t seq_ = 0;
  std::map<Dest, uint32_t> cache_;
  // Requests in flight: their sequence number, destination and the keys waiting.
  std::map<uint32_t, std::pair<Dest, std::vector<FlowKey>>> pending_;
  std::map<Dest, uint32_t> pendingByDest_;
  std::vector<char> buf_ = std::vector<char>(16384);
};

}  // namespace FlowTracking
