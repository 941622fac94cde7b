#include "datapath/FlowRecordEncoder.h"

#include <algorithm>
#include <cstring>

namespace FlowTracking {

namespace {

// The low `len` bytes of `v`, big-endian.
uint8_t* putUint(uint8_t* out, uint64_t v, uint16_t len) {
  switch (len) {
    case 1:
      *out = static_cast<uint8_t>(v);
      return out + 1;
    case 2: {
      const auto w = __builtin_bswap16(static_cast<uint16_t>(v));
      std::memcpy(out, &w, 2);
      return out + 2;
    }
    case 4: {
      const auto w = __builtin_bswap32(static_cast<uint32_t>(v));
      std::memcpy(out, &w, 4);
      return out + 4;
    }
    case 8: {
      const auto w = __builtin_bswap64(v);
      std::memcpy(out, &w, 8);
      return out + 8;
    }
    default:
      for (int i = len - 1; i >= 0; --i) *out++ = i < 8 ? static_cast<uint8_t>(v >> (8 * i)) : 0;
      return out;
  }
}

uint8_t* putBytes(uint8_t* out, const uint8_t* p, size_t n, uint16_t len) {
  const size_t copied = std::min<size_t>(n, len);
  std::memcpy(out, p, copied);
  std::memset(out + copied, 0, len - copied);
  return out + len;
}

}  // namespace

const std::vector<FlowTemplateField>& flowTemplateFields(bool ipv6) {
  using RT = Ipfix::RecordType;
  auto layout = [](RT src, RT dst, uint16_t addrLen) {
    return std::vector<FlowTemplateField>{
        {src, addrLen, true},
        {dst, addrLen, true},
        {RT::ipProtocol, 1, true},
        {RT::srcL4Port, 2, true},
        {RT::dstL4Port, 2, true},
        {RT::ingressInterface, 4, true},
        {RT::vrfId, 4, true},
        {RT::ipClassOfService, 1, false},
        {RT::tcpControlBits, 2, false},
        {RT::egressInterface, 4, false},
        {RT::byteCount, 8, false},
        {RT::packetCount, 8, false},
        {RT::timeStampFlowStart, 8, false},
        {RT::timeStampFlowEnd, 8, false},
        {RT::flowEndReason, 1, false},
    };
  };
  static const auto v4 = layout(RT::srcIp, RT::dstIp, 4);
  static const auto v6 = layout(RT::srcIp6, RT::dstIp6, 16);
  return ipv6 ? v6 : v4;
}

std::vector<FlowRecordEncoder::Field> FlowRecordEncoder::fieldsOf(
    const std::vector<FlowTemplateField>& layout) {
  std::vector<Field> fields;
  for (const FlowTemplateField& f : layout) fields.push_back({f.type, f.len});
  return fields;
}

FlowRecordEncoder::FlowRecordEncoder(std::vector<Field> fields) : fields_(std::move(fields)) {
  for (const Field& f : fields_) length_ += f.len;
}

FlowRecordEncoder::FlowRecordEncoder(const HwFlowTracking::FgStatus& group)
    : FlowRecordEncoder([&] {
        std::vector<Field> fields;
        for (const auto& [pos, entry] : group.templateEntryColl()) {
          fields.push_back({entry->fieldId(), static_cast<uint16_t>(entry->fieldLen())});
        }
        return fields;
      }()) {}

void FlowRecordEncoder::encode(const FlowRecord& flow, FlowEndReason reason, uint8_t* out) const {
  const FlowKey& k = flow.key;
  using RT = Ipfix::RecordType;
  for (const Field& f : fields_) {
    switch (f.type) {
      case RT::srcIp:
        out = putBytes(out, k.src.data(), 4, f.len);
        break;
      case RT::dstIp:
        out = putBytes(out, k.dst.data(), 4, f.len);
        break;
      case RT::srcIp6:
        out = putBytes(out, k.src.data(), 16, f.len);
        break;
      case RT::dstIp6:
        out = putBytes(out, k.dst.data(), 16, f.len);
        break;
      case RT::ipProtocol:
        out = putUint(out, k.protocol, f.len);
        break;
      case RT::srcL4Port:
        out = putUint(out, k.srcPort, f.len);
        break;
      case RT::dstL4Port:
        out = putUint(out, k.dstPort, f.len);
        break;
      case RT::ingressInterface:
        out = putUint(out, k.ingressIf, f.len);
        break;
      case RT::vrfId:
        out = putUint(out, k.vrfId, f.len);
        break;
      case RT::ipClassOfService:
        out = putUint(out, flow.tos, f.len);
        break;
      case RT::tcpControlBits:
        out = putUint(out, flow.tcpFlags, f.len);
        break;
      case RT::egressInterface:
        out = putUint(out, flow.egressIf, f.len);
        break;
      case RT::byteCount:
        out = putUint(out, flow.octets, f.len);
        break;
      case RT::packetCount:
        out = putUint(out, flow.packets, f.len);
        break;
      case RT::timeStampFlowStart:
        out = putUint(out, static_cast<uint64_t>(flow.firstWallMs), f.len);
        break;
      case RT::timeStampFlowEnd:
        out = putUint(out, static_cast<uint64_t>(flow.lastWallMs), f.len);
        break;
      case RT::flowEndReason:
        out = putUint(out, reason, f.len);
        break;
      default:
        // A field the software data path does not know: zero, as a chip reports what
        // it does not measure.
        std::memset(out, 0, f.len);
        out += f.len;
        break;
    }
  }
}

}  // namespace FlowTracking
