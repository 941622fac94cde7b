#include "datapath/FlowRecordEncoder.h"

#include <algorithm>
#include <cstring>

namespace FlowTracking {

namespace {

// The low `len` bytes of `v`, big-endian.
void putUint(std::string& out, uint64_t v, uint16_t len) {
  for (int i = len - 1; i >= 0; --i) {
    out += static_cast<char>(i < 8 ? (v >> (8 * i)) & 0xFF : 0);
  }
}

void putBytes(std::string& out, const uint8_t* p, size_t n, uint16_t len) {
  out.append(reinterpret_cast<const char*>(p), std::min<size_t>(n, len));
  if (len > n) out.append(len - n, '\0');
}

}  // namespace

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

Zub::Ptr<const DataRecord> FlowRecordEncoder::encode(const FlowRecord& flow,
                                                     FlowEndReason reason) const {
  std::string out;
  out.reserve(length_);
  const FlowKey& k = flow.key;
  using RT = Ipfix::RecordType;
  for (const Field& f : fields_) {
    switch (f.type) {
      case RT::srcIp:
        putBytes(out, k.src.data(), 4, f.len);
        break;
      case RT::dstIp:
        putBytes(out, k.dst.data(), 4, f.len);
        break;
      case RT::srcIp6:
        putBytes(out, k.src.data(), 16, f.len);
        break;
      case RT::dstIp6:
        putBytes(out, k.dst.data(), 16, f.len);
        break;
      case RT::ipProtocol:
        putUint(out, k.protocol, f.len);
        break;
      case RT::srcL4Port:
        putUint(out, k.srcPort, f.len);
        break;
      case RT::dstL4Port:
        putUint(out, k.dstPort, f.len);
        break;
      case RT::ingressInterface:
        putUint(out, k.ingressIf, f.len);
        break;
      case RT::vrfId:
        putUint(out, k.vrfId, f.len);
        break;
      case RT::ipClassOfService:
        putUint(out, flow.tos, f.len);
        break;
      case RT::tcpControlBits:
        putUint(out, flow.tcpFlags, f.len);
        break;
      case RT::egressInterface:
        putUint(out, flow.egressIf, f.len);
        break;
      case RT::byteCount:
        putUint(out, flow.octets, f.len);
        break;
      case RT::packetCount:
        putUint(out, flow.packets, f.len);
        break;
      case RT::timeStampFlowStart:
        putUint(out, static_cast<uint64_t>(flow.firstWallMs), f.len);
        break;
      case RT::timeStampFlowEnd:
        putUint(out, static_cast<uint64_t>(flow.lastWallMs), f.len);
        break;
      case RT::flowEndReason:
        putUint(out, reason, f.len);
        break;
      default:
        // A field the software data path does not know: zero, as a chip reports what
        // it does not measure.
        out.append(f.len, '\0');
        break;
    }
  }
  return Zub::Ptr<const DataRecord>(new DataRecord(out));
}

}  // namespace FlowTracking
