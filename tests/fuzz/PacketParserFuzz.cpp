// libFuzzer target for the sample parser: any frame, snap length, wire length and
// segment size. Nothing is read past the snap (the frame is copied to a buffer of
// exactly that size); a parsed sample is IPv4 or IPv6, stands for at least one packet,
// has no ports when it is a later fragment, and counts no more octets than its segments
// can carry.

#include <fuzzer/FuzzedDataProvider.h>

#include <vector>

#include "datapath/PacketParser.h"
#include "tests/fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const auto wireExtra = in.ConsumeIntegralInRange<uint32_t>(0, 70000);
  FlowTracking::GsoInfo gso;
  gso.gsoSize = in.ConsumeBool() ? in.ConsumeIntegral<uint16_t>() : 0;
  const auto ringVlan = in.ConsumeIntegral<uint16_t>();
  const std::vector<uint8_t> frame = in.ConsumeRemainingBytes<uint8_t>();
  const auto wireLen = static_cast<uint32_t>(frame.size()) + wireExtra;
  FlowTracking::PacketInfo info;
  const auto r =
      FlowTracking::parsePacket(frame.data(), frame.size(), wireLen, gso, ringVlan, info);
  if (r != FlowTracking::ParseResult::ok) return 0;
  FUZZ_CHECK(info.ipVersion == 4 || info.ipVersion == 6);
  FUZZ_CHECK(info.segments >= 1);
  FUZZ_CHECK(info.vlan <= 0x0FFF);
  if (info.fragment) FUZZ_CHECK(info.srcPort == 0 && info.dstPort == 0);
  // Each segment carries at most the whole frame's L3 bytes.
  FUZZ_CHECK(info.octets <= uint64_t{wireLen} * info.segments);
  if (gso.gsoSize == 0) FUZZ_CHECK(info.segments == 1 && info.octets <= wireLen);
  return 0;
}
