#include "datapath/PsampleParser.h"

#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/psample.h>

#include <cmath>

namespace FlowTracking {

namespace {

// An attribute of kernels newer than the headers this builds with (after the user
// cookie, PSAMPLE_ATTR_PROTO + 1).
constexpr int kAttrSampleProbability = PSAMPLE_ATTR_PROTO + 2;
constexpr int kAttrMax = kAttrSampleProbability;

struct Attrs {
  const nlattr* tb[kAttrMax + 1] = {};
  static int collect(const nlattr* attr, void* data) {
    auto* self = static_cast<Attrs*>(data);
    const int type = mnl_attr_get_type(attr);
    if (type >= 0 && type <= kAttrMax) self->tb[type] = attr;
    return MNL_CB_OK;
  }
};

bool u16(const nlattr* a, uint32_t& v) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_U16) < 0) return false;
  v = mnl_attr_get_u16(a);
  return true;
}
bool u32(const nlattr* a, uint32_t& v) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_U32) < 0) return false;
  v = mnl_attr_get_u32(a);
  return true;
}

}  // namespace

bool parsePsample(const nlmsghdr* nlh, PsampleSample& out) {
  out = PsampleSample();
  if (nlh->nlmsg_len < NLMSG_LENGTH(GENL_HDRLEN)) return false;
  const auto* genl = static_cast<const genlmsghdr*>(mnl_nlmsg_get_payload(nlh));
  if (genl->cmd != PSAMPLE_CMD_SAMPLE) return false;
  Attrs a;
  if (mnl_attr_parse(nlh, GENL_HDRLEN, Attrs::collect, &a) < 0) return false;
  if (!u32(a.tb[PSAMPLE_ATTR_SAMPLE_GROUP], out.group)) return false;
  const nlattr* data = a.tb[PSAMPLE_ATTR_DATA];
  if (!data) return false;
  out.data = static_cast<const uint8_t*>(mnl_attr_get_payload(data));
  out.dataLen = mnl_attr_get_payload_len(data);
  u16(a.tb[PSAMPLE_ATTR_IIFINDEX], out.iifindex);
  u16(a.tb[PSAMPLE_ATTR_OIFINDEX], out.oifindex);
  if (!u32(a.tb[PSAMPLE_ATTR_ORIGSIZE], out.origSize)) {
    out.origSize = static_cast<uint32_t>(out.dataLen);
  }
  out.hasSeq = u32(a.tb[PSAMPLE_ATTR_GROUP_SEQ], out.groupSeq);
  uint32_t rate = 0;
  if (u32(a.tb[PSAMPLE_ATTR_SAMPLE_RATE], rate)) {
    if (a.tb[kAttrSampleProbability]) {
      // A probability scaled to 2^32 - 1: one in (2^32 - 1) / p.
      out.rate = rate ? static_cast<uint32_t>(std::lround(4294967295.0 / rate)) : 0;
    } else {
      out.rate = rate;
    }
  }
  const nlattr* ts = a.tb[PSAMPLE_ATTR_TIMESTAMP];
  if (ts && mnl_attr_validate(ts, MNL_TYPE_U64) >= 0) out.timestampNs = mnl_attr_get_u64(ts);
  uint32_t proto = 0;
  if (u16(a.tb[PSAMPLE_ATTR_PROTO], proto)) out.proto = static_cast<uint16_t>(proto);
  return true;
}

uint64_t PsampleLosses::seen(const PsampleSample& s) {
  if (!s.hasSeq) return 0;
  auto [it, first] = last_.try_emplace(s.group, s.groupSeq);
  if (first) return 0;
  const uint32_t gap = s.groupSeq - it->second - 1;  // wraps with the counter
  it->second = s.groupSeq;
  // A number at or behind the last one (a restarted group) loses nothing.
  if (gap >= 0x80000000u) return 0;
  total_ += gap;
  return gap;
}

}  // namespace FlowTracking
