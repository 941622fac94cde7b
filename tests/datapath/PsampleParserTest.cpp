// The psample message parser on messages built here as the kernel writes them (this
// kernel has no psample): attributes, a u64 timestamp after its padding attribute,
// unknown attributes, the probability flag, and losses from sequence gaps.

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/psample.h>

#include <string>
#include <vector>

#include "datapath/PacketParser.h"
#include "datapath/PsampleParser.h"
#include "tests/support/Bytes.h"

namespace {

using FlowTracking::PsampleSample;

struct Message {
  std::vector<char> buf = std::vector<char>(MNL_SOCKET_BUFFER_SIZE);
  nlmsghdr* nlh;
  explicit Message(uint8_t cmd = PSAMPLE_CMD_SAMPLE) : nlh(mnl_nlmsg_put_header(buf.data())) {
    nlh->nlmsg_type = 0x1c;  // the family id the kernel gave psample
    auto* genl = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(nlh, sizeof(genlmsghdr)));
    genl->cmd = cmd;
    genl->version = PSAMPLE_GENL_VERSION;
  }
};

// An IPv4 UDP frame 192.0.2.1:7 -> 198.51.100.2:53.
std::string frame() {
  return TestSupport::hexBytes(
      "020000000002 020000000001 0800 4500 0024 0001 0000 4011 0000 c0000201 c6336402"
      "0007 0035 0010 0000 7878787878787878");
}

Message sample(uint32_t group, uint32_t seq, const std::string& data) {
  Message m;
  mnl_attr_put_u16(m.nlh, PSAMPLE_ATTR_IIFINDEX, 7);
  mnl_attr_put_u16(m.nlh, PSAMPLE_ATTR_OIFINDEX, 9);
  mnl_attr_put_u32(m.nlh, PSAMPLE_ATTR_ORIGSIZE, 1514);
  mnl_attr_put_u32(m.nlh, PSAMPLE_ATTR_SAMPLE_GROUP, group);
  mnl_attr_put_u32(m.nlh, PSAMPLE_ATTR_GROUP_SEQ, seq);
  mnl_attr_put_u32(m.nlh, PSAMPLE_ATTR_SAMPLE_RATE, 1000);
  mnl_attr_put(m.nlh, PSAMPLE_ATTR_DATA, data.size(), data.data());
  mnl_attr_put(m.nlh, PSAMPLE_ATTR_PAD, 0, nullptr);
  mnl_attr_put_u64(m.nlh, PSAMPLE_ATTR_TIMESTAMP, 1'800'000'000'123'456'789ull);
  mnl_attr_put_u16(m.nlh, PSAMPLE_ATTR_PROTO, 0x0800);
  mnl_attr_put_u32(m.nlh, 99, 1);  // an attribute of a later kernel
  return m;
}

TEST(PsampleParser, ASampleWithEveryAttribute) {
  const std::string f = frame();
  const Message m = sample(5, 41, f);
  PsampleSample s;
  ASSERT_TRUE(FlowTracking::parsePsample(m.nlh, s));
  EXPECT_EQ(s.iifindex, 7u);
  EXPECT_EQ(s.oifindex, 9u);
  EXPECT_EQ(s.origSize, 1514u);
  EXPECT_EQ(s.group, 5u);
  EXPECT_TRUE(s.hasSeq);
  EXPECT_EQ(s.groupSeq, 41u);
  EXPECT_EQ(s.rate, 1000u);
  EXPECT_EQ(s.timestampNs, 1'800'000'000'123'456'789ull);
  EXPECT_EQ(s.proto, 0x0800);
  ASSERT_EQ(std::string(reinterpret_cast<const char*>(s.data), s.dataLen), f);
  // The data is the frame from its Ethernet header: the packet parser reads it.
  FlowTracking::PacketInfo info;
  EXPECT_EQ(FlowTracking::parsePacket(s.data, s.dataLen, s.origSize, {}, 0, info),
            FlowTracking::ParseResult::ok);
  EXPECT_EQ(info.dstPort, 53);

  // A probability instead of a rate: 2^32 - 1 over it.
  Message p = sample(5, 42, f);
  mnl_attr_put_u32(p.nlh, PSAMPLE_ATTR_SAMPLE_RATE, 4294967);  // taken last: one in ~1000
  mnl_attr_put(p.nlh, PSAMPLE_ATTR_PROTO + 2, 0, nullptr);
  ASSERT_TRUE(FlowTracking::parsePsample(p.nlh, s));
  EXPECT_EQ(s.rate, 1000u);
}

TEST(PsampleParser, WhatIsNotASampleIsRefused) {
  PsampleSample s;
  Message group(PSAMPLE_CMD_NEW_GROUP);
  mnl_attr_put_u32(group.nlh, PSAMPLE_ATTR_SAMPLE_GROUP, 5);
  EXPECT_FALSE(FlowTracking::parsePsample(group.nlh, s));
  Message noData;
  mnl_attr_put_u32(noData.nlh, PSAMPLE_ATTR_SAMPLE_GROUP, 5);
  EXPECT_FALSE(FlowTracking::parsePsample(noData.nlh, s));
  Message shortGroup;
  mnl_attr_put_u16(shortGroup.nlh, PSAMPLE_ATTR_SAMPLE_GROUP, 5);  // not a u32
  mnl_attr_put(shortGroup.nlh, PSAMPLE_ATTR_DATA, 4, "abcd");
  EXPECT_FALSE(FlowTracking::parsePsample(shortGroup.nlh, s));
}

TEST(PsampleParser, GapsInAGroupsSequenceAreLostSamples) {
  FlowTracking::PsampleLosses losses;
  const std::string f = frame();
  auto seen = [&](uint32_t group, uint32_t seq) {
    PsampleSample s;
    EXPECT_TRUE(FlowTracking::parsePsample(sample(group, seq, f).nlh, s));
    return losses.seen(s);
  };
  EXPECT_EQ(seen(1, 10), 0u);
  EXPECT_EQ(seen(1, 11), 0u);
  EXPECT_EQ(seen(1, 15), 3u);
  EXPECT_EQ(seen(2, 100), 0u);  // each group on its own
  // A jump of more than half the range is a restarted group, not billions lost.
  EXPECT_EQ(seen(1, 0xFFFFFFF0), 0u);
  EXPECT_EQ(seen(1, 0xFFFFFFFE), 13u);
  EXPECT_EQ(seen(1, 1), 2u);  // across the wrap: 0xFFFFFFFF and 0 were lost
  EXPECT_EQ(seen(1, 1), 0u);  // a repeated number loses nothing
  EXPECT_EQ(losses.total(), 3u + 13 + 2);
}

}  // namespace
