#pragma once
// Samples that a tc `sample` action (in software, or offloaded to a switch ASIC) delivers
// on the psample generic-netlink family's "packets" group: one PSAMPLE_CMD_SAMPLE message
// per sampled packet. Only the message parser for now; a source that joins the group
// (CAP_NET_ADMIN) feeds its samples to the same cache as a packet socket does.
//
// What the kernel puts in a message: the ingress and egress ifindexes (u16: larger
// indexes arrive cut, and 0 is left out), the original length, the group and its
// sequence number (gaps are samples lost on the way), the rate (or, with the probability
// flag, a probability scaled to 2^32 - 1), the packet cut to its truncation length from
// its Ethernet header, a timestamp in nanoseconds and the protocol.

#include <cstddef>
#include <cstdint>
#include <map>

struct nlmsghdr;

namespace FlowTracking {

struct PsampleSample {
  uint32_t iifindex = 0;
  uint32_t oifindex = 0;
  uint32_t origSize = 0;
  uint32_t group = 0;
  uint32_t groupSeq = 0;
  bool hasSeq = false;
  uint32_t rate = 0;  // one in this many (converted from a probability when flagged)
  const uint8_t* data = nullptr;
  size_t dataLen = 0;
  uint64_t timestampNs = 0;
  uint16_t proto = 0;
};

// Reads one message of the psample family (after its generic-netlink header); false for
// another command or a message without the attributes a sample needs (a group, data).
bool parsePsample(const nlmsghdr* nlh, PsampleSample& out);

// Samples lost between the messages of each group, from the gaps in their sequence
// numbers (which wrap at 2^32). A number at or behind the last one, or more than half the
// range ahead, is a restarted group: nothing lost.
class PsampleLosses {
 public:
  // The samples lost just before `s` (0 for the first of its group).
  uint64_t seen(const PsampleSample& s);
  uint64_t total() const { return total_; }

 private:
  std::map<uint32_t, uint32_t> last_;
  uint64_t total_ = 0;
};

}  // namespace FlowTracking
