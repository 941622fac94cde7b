// Message building throughput: 1,000,000 interface-table records (4-byte index, 1-byte
// length, 10..20-byte name) framed into 9104-byte messages by the MessageBuilder, beside
// a baseline that copies the same records one by one into message-sized buffers.
// Also counts heap allocations per record.

#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>
#include <vector>

#include "bench/Harness.h"
#include "ipfix/MessageBuilder.h"

namespace {
size_t allocations = 0;
}

void* operator new(size_t n) {
  ++allocations;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t n) {
  ++allocations;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

constexpr long kRecords = 1'000'000;
constexpr uint16_t kMaxMsg = 9104;  // ipfixMaxMsgSize at the default MTU
constexpr uint16_t kSetId = 257;    // the interface table's data set

struct Records {
  std::vector<uint8_t> arena;
  std::vector<std::pair<uint32_t, uint8_t>> at;  // offset, length
};

Records makeRecords() {
  Records r;
  std::mt19937 rng(7);
  r.arena.reserve(kRecords * 21);
  for (long i = 0; i < kRecords; ++i) {
    const uint8_t nameLen = static_cast<uint8_t>(10 + rng() % 11);
    const uint32_t off = static_cast<uint32_t>(r.arena.size());
    const uint32_t idx = static_cast<uint32_t>(i + 1);
    for (int s = 24; s >= 0; s -= 8) r.arena.push_back(static_cast<uint8_t>(idx >> s));
    r.arena.push_back(nameLen);
    for (uint8_t c = 0; c < nameLen; ++c) r.arena.push_back(static_cast<uint8_t>('a' + c));
    r.at.emplace_back(off, static_cast<uint8_t>(5 + nameLen));
  }
  return r;
}

}  // namespace

int main() {
  const Records recs = makeRecords();
  uint64_t totalBytes = 0;
  for (auto& [off, len] : recs.at) totalBytes += len;

  size_t messages = 0;
  auto builder = FlowTracking::messageBuilderFactory(kMaxMsg, 1);
  size_t allocsBefore = 0, allocsDuring = 0;
  double builderNs = Bench::nsPerOp(
      1,
      [&](long) {
        allocsBefore = allocations;
        messages = 0;
        builder->startMsg();
        for (const auto& [off, len] : recs.at) {
          const uint8_t* p = recs.arena.data() + off;
          if (FlowTracking::addSetRecordBytes(builder.get(), kSetId, p, len) == 0) {
            Bench::keep(builder->finalizeMsg());
            ++messages;
            builder->startMsg();
            FlowTracking::addSetRecordBytes(builder.get(), kSetId, p, len);
          }
        }
        Bench::keep(builder->finalizeMsg());
        ++messages;
        allocsDuring = allocations - allocsBefore;
      },
      5);

  size_t baseMessages = 0;
  std::vector<uint8_t> buf(kMaxMsg);
  double baseNs = Bench::nsPerOp(
      1,
      [&](long) {
        baseMessages = 0;
        size_t pos = 20;
        for (const auto& [off, len] : recs.at) {
          if (pos + len > kMaxMsg) {
            Bench::keep(buf[0]);
            ++baseMessages;
            pos = 20;
          }
          std::memcpy(buf.data() + pos, recs.arena.data() + off, len);
          pos += len;
        }
        ++baseMessages;
        Bench::keep(buf);
      },
      5);

  const double bRate = kRecords / (builderNs / 1e9), baseRate = kRecords / (baseNs / 1e9);
  std::printf("records: %ld (%llu bytes), messages: builder %zu, baseline %zu\n", kRecords,
              static_cast<unsigned long long>(totalBytes), messages, baseMessages);
  std::printf("builder : %7.1f M records/s  %7.1f MB/s\n", bRate / 1e6,
              totalBytes / (builderNs / 1e9) / 1e6);
  std::printf("baseline: %7.1f M records/s  %7.1f MB/s (one memcpy per record)\n", baseRate / 1e6,
              totalBytes / (baseNs / 1e9) / 1e6);
  std::printf("ratio builder/baseline: %.2f (target >= 0.50)\n", bRate / baseRate);
  std::printf("heap allocations: %zu for %zu messages, %.4f per record\n", allocsDuring, messages,
              static_cast<double>(allocsDuring) / kRecords);
  return 0;
}
