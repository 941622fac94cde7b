// A message built by the builder and sent with sendPkt4 / sendPkt6, as third-party
// decoders (tshark, libfixbuf's ipfixDump) read it off a collector socket.

#include <gtest/gtest.h>

#include "ipfix/FlowTrackerPktTxUtil.h"
#include "ipfix/MessageBuilder.h"
#include "tests/support/Bytes.h"
#include "tests/support/Decoders.h"

namespace {

using namespace std::chrono_literals;
using TestSupport::hexBytes;

// One template (256: sourceIPv4Address, destinationIPv4Address, octetDeltaCount,
// sourceTransportPort) and two data records of it.
Zub::Ptr<FlowTracking::Message> buildMessage(uint32_t domain) {
  auto b = FlowTracking::messageBuilderFactory(9104, domain);
  b->startMsg();
  b->addSetRecordStr(2, hexBytes("0100 0004 | 0008 0004 | 000c 0004 | 0001 0008 | 0007 0002"));
  b->addSetRecordStr(256, hexBytes("c0000201 c6336402 0000000000001000 1f90"));
  b->addSetRecordStr(256, hexBytes("c0000202 c6336403 0000000000002000 0050"));
  return b->finalizeMsg();
}

class MessageDecodeTest : public ::testing::TestWithParam<bool> {};

TEST_P(MessageDecodeTest, DecodersReadTemplateAndRecords) {
  const bool v6 = GetParam();
  TestSupport::UdpReceiver rx(v6);
  Zub::Ptr<Nelo::UdpPam> pam(new Nelo::UdpPam(v6 ? "udpPam6-decode" : "udpPam4-decode"));
  pam->ipv6EnIs(v6);
  pam->modeIs(1);
  auto msg = buildMessage(42);
  for (uint32_t seq : {0u, 2u}) {
    bool sent = v6 ? FlowTracking::sendPkt6(msg->pkt(seq), pam, Nelo::Ip6Addr("::1"),
                                            Nelo::Ip6AndPort{Nelo::Ip6Addr("::1"), rx.port()},
                                            Nelo::DscpValue(10))
                   : FlowTracking::sendPkt4(msg->pkt(seq), pam, Nelo::IpAddr("127.0.0.1"),
                                            Nelo::IpAndPort{Nelo::IpAddr("127.0.0.1"), rx.port()},
                                            Nelo::DscpValue(10));
    ASSERT_TRUE(sent);
  }
  auto got = rx.drain(200ms);
  ASSERT_EQ(got.size(), 2u);

  auto fields =
      TestSupport::tsharkFields(got, {"cflow.version", "cflow.od_id", "cflow.sequence",
                                      "cflow.flowset_id", "cflow.template_id", "cflow.srcaddr",
                                      "cflow.dstaddr", "cflow.octets", "cflow.srcport"});
  ASSERT_EQ(fields.status, 0) << fields.err;
  EXPECT_EQ(fields.out,
            "10,42,0,2;256,256,192.0.2.1;192.0.2.2,198.51.100.2;198.51.100.3,4096;8192,"
            "8080;80\n"
            "10,42,2,2;256,256,192.0.2.1;192.0.2.2,198.51.100.2;198.51.100.3,4096;8192,"
            "8080;80\n");
  auto verbose = TestSupport::tsharkDecode(got);
  ASSERT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_EQ(verbose.out.find("Malformed"), std::string::npos) << verbose.out;
  EXPECT_EQ(verbose.out.find("Expert Info"), std::string::npos) << verbose.out;

  auto dump = TestSupport::ipfixDumpDecode(got);
  ASSERT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.err, "");
  EXPECT_NE(dump.out.find("observation domain id: 42"), std::string::npos) << dump.out;
  EXPECT_NE(dump.out.find("sequence number: 2 (0x2)"), std::string::npos) << dump.out;
  EXPECT_NE(dump.out.find("sourceIPv4Address"), std::string::npos) << dump.out;
  EXPECT_NE(dump.out.find("198.51.100.3"), std::string::npos) << dump.out;
  EXPECT_EQ(dump.out.find("rror"), std::string::npos) << dump.out;
}

INSTANTIATE_TEST_SUITE_P(Families, MessageDecodeTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "IPv6" : "IPv4"; });

}  // namespace
