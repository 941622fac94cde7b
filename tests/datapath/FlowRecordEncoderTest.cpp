// Ended flows as data records of templates 261 and 262: golden bytes, field by field.

#include <gtest/gtest.h>

#include "datapath/FlowRecordEncoder.h"
#include "tests/support/Bytes.h"

namespace {

using namespace FlowTracking;
using RT = Ipfix::RecordType;
using TestSupport::hexBytes;
using TestSupport::toHex;

// The sampled-flow template's fields after the addresses, at their catalogue lengths.
std::vector<FlowRecordEncoder::Field> fields(RT src, RT dst, uint16_t addrLen) {
  return {{src, addrLen},
          {dst, addrLen},
          {RT::ipProtocol, 1},
          {RT::srcL4Port, 2},
          {RT::dstL4Port, 2},
          {RT::ingressInterface, 4},
          {RT::vrfId, 4},
          {RT::ipClassOfService, 1},
          {RT::tcpControlBits, 2},
          {RT::egressInterface, 4},
          {RT::byteCount, 8},
          {RT::packetCount, 8},
          {RT::timeStampFlowStart, 8},
          {RT::timeStampFlowEnd, 8},
          {RT::flowEndReason, 1}};
}

FlowRecord flow(uint8_t version) {
  FlowRecord r;
  r.key.ipVersion = version;
  r.key.protocol = 6;
  if (version == 4) {
    r.key.src = {192, 0, 2, 1};
    r.key.dst = {198, 51, 100, 2};
  } else {
    r.key.src = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    r.key.dst = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
  }
  r.key.srcPort = 40000;
  r.key.dstPort = 443;
  r.key.ingressIf = 3;
  r.key.vrfId = 7;
  r.tos = 0xb8;
  r.tcpFlags = 0x1b;
  r.egressIf = 4;
  r.octets = 123456;
  r.packets = 89;
  r.firstWallMs = 1'800'000'000'123;
  r.lastWallMs = 1'800'000'004'567;
  return r;
}

std::string encoded(const FlowRecordEncoder& e, const FlowRecord& flow, FlowEndReason reason) {
  std::string out(e.recordLength(), '?');
  e.encode(flow, reason, reinterpret_cast<uint8_t*>(out.data()));
  return out;
}

TEST(FlowRecordEncoder, Ipv4AndIpv6RecordsGoldenBytes) {
  const FlowRecordEncoder v4(fields(RT::srcIp, RT::dstIp, 4));
  EXPECT_EQ(v4.recordLength(), 61u);
  EXPECT_EQ(toHex(encoded(v4, flow(4), FlowEndReason::endOfFlow)),
            toHex(hexBytes("c0000201 c6336402 06 9c40 01bb 00000003 00000007 b8 001b 00000004"
                           "000000000001e240 0000000000000059 000001a3185c507b 000001a3185c61d7"
                           "03")));
  const FlowRecordEncoder v6(fields(RT::srcIp6, RT::dstIp6, 16));
  EXPECT_EQ(v6.recordLength(), 85u);
  EXPECT_EQ(toHex(encoded(v6, flow(6), FlowEndReason::idleTimeout)),
            toHex(hexBytes("20010db8000000000000000000000001 20010db8000000000000000000000002"
                           "06 9c40 01bb 00000003 00000007 b8 001b 00000004"
                           "000000000001e240 0000000000000059 000001a3185c507b 000001a3185c61d7"
                           "01")));
}

TEST(FlowRecordEncoder, TakesTheFieldsOfAPublishedTemplate) {
  HwFlowTracking::FgStatus group(TemplateId(300), "fg");
  group.templateEntryIs(0, RT::packetCount)->fieldLenIs(4);  // a reduced-size count
  group.templateEntryIs(1, RT::srcMac)->fieldLenIs(6);       // not measured: zero
  group.templateEntryIs(2, RT::flowEndReason)->fieldLenIs(1);
  const FlowRecordEncoder e(group);
  EXPECT_EQ(e.recordLength(), 11u);
  EXPECT_EQ(toHex(encoded(e, flow(4), FlowEndReason::forcedEnd)),
            toHex(hexBytes("00000059 000000000000 04")));
}

}  // namespace
