// libFuzzer target for the message builder: random sequences of set ids and record sizes
// against a random size limit, framed as the senders do (a record that does not fit
// finishes the message and opens the next). Every finished message must decode to exactly
// the records that went in, in order, with patched lengths and no empty set; a record is
// refused only when it really does not fit, and a refusal leaves the message unchanged.

#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <utility>
#include <vector>

#include "ipfix/MessageBuilder.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

struct Record {
  uint16_t setId;
  std::string bytes;
};

void verify(const FlowTracking::Message& msg, const std::vector<Record>& in, uint16_t maxSize,
            uint32_t domain) {
  const uint8_t* p = msg.pkt()->data();
  const size_t n = msg.bytes();
  FUZZ_CHECK(n <= maxSize);
  FUZZ_CHECK(n >= 16 + 4 + 1);
  FUZZ_CHECK(Fuzz::be16(p) == 10);
  FUZZ_CHECK(Fuzz::be16(p + 2) == n);
  FUZZ_CHECK(Fuzz::be32(p + 12) == domain);
  FUZZ_CHECK(msg.recordCount() == in.size());
  // Consecutive records of one set id share one set.
  std::vector<std::pair<uint16_t, std::string>> sets;
  for (const Record& r : in) {
    if (sets.empty() || sets.back().first != r.setId) sets.emplace_back(r.setId, "");
    sets.back().second += r.bytes;
  }
  size_t at = 16, k = 0;
  while (at < n) {
    FUZZ_CHECK(at + 4 <= n);
    const uint16_t id = Fuzz::be16(p + at), len = Fuzz::be16(p + at + 2);
    FUZZ_CHECK(len > 4);  // no empty set
    FUZZ_CHECK(at + len <= n);
    FUZZ_CHECK(k < sets.size());
    FUZZ_CHECK(id == sets[k].first);
    FUZZ_CHECK(std::string(reinterpret_cast<const char*>(p + at + 4), len - 4u) == sets[k].second);
    at += len;
    ++k;
  }
  FUZZ_CHECK(k == sets.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const auto maxSize = in.ConsumeIntegralInRange<uint16_t>(21, 9216);
  const auto domain = in.ConsumeIntegral<uint32_t>();
  const bool reuse = in.ConsumeBool();
  auto b = FlowTracking::messageBuilderFactory(maxSize, domain);
  b->startMsg();
  std::vector<Record> current;
  static const uint16_t kSetIds[] = {2, 3, 256, 257, 258, 259, 261, 262};
  while (in.remaining_bytes() > 0) {
    const uint8_t pick = in.ConsumeIntegral<uint8_t>();
    const uint16_t setId = pick < 200 ? kSetIds[pick % 8] : in.ConsumeIntegral<uint16_t>();
    const auto len = in.ConsumeIntegralInRange<uint16_t>(1, maxSize);
    Record r{setId, in.ConsumeBytesAsString(len)};
    if (r.bytes.empty()) break;
    const auto size32 = static_cast<uint32_t>(r.bytes.size());
    auto add = [&] {
      switch (pick % 3) {
        case 0:
          return addSetRecordBytes(b, setId, r.bytes.data(), size32);
        case 1:
          return b->addSetRecordStr(setId, r.bytes);
        default:
          return b->addSetRecord(setId, Zub::Ptr<const FlowTracking::DataRecord>(
                                            new FlowTracking::DataRecord(r.bytes)));
      }
    };
    for (int attempt = 0; attempt < 2; ++attempt) {
      const uint32_t offset = b->offset(), count = b->recordCount();
      const bool sameSet = b->setHdr() && b->currentSetId() == setId;
      const uint32_t added = add();
      if (added) {
        FUZZ_CHECK(added == size32);
        current.push_back(r);
        break;
      }
      // Refused: only when it does not fit, and nothing changed.
      FUZZ_CHECK(offset + size32 + (sameSet ? 0 : 4) > maxSize);
      FUZZ_CHECK(b->offset() == offset && b->recordCount() == count);
      if (current.empty()) break;  // too large for any message: the caller drops it
      auto msg = b->finalizeMsg();
      verify(*msg, current, maxSize, domain);
      current.clear();
      if (reuse) {
        b->startMsg(std::move(msg));
      } else {
        b->startMsg();
      }
    }
  }
  if (!current.empty()) verify(*b->finalizeMsg(), current, maxSize, domain);
  return 0;
}
