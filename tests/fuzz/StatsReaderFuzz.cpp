// libFuzzer target for what flowexportctl trusts: the statistics table read from
// arbitrary segment bytes (anybody who can write the shared memory decides them), and the
// three renderings of its rows. The reader either refuses the segment or returns at most
// `capacity` rows, each a copy of its slot; it reads nothing outside the segment (ASan
// watches the heap copy) and gives up on rows that stay busy. The renderings are text a
// terminal may show as it is: printable ASCII, escaped UTF-8, newlines.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <string>

#include "agent/CollectorStatsView.h"
#include "export/CollectorStats.h"
#include "platform/zub/Text.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

using Entry = Stova::Ipfix::CollectorStatisticsEntry;

void checkText(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    uint32_t cp = 0;
    const size_t n = Zub::utf8SequenceAt(s, i, &cp);
    FUZZ_CHECK(n > 0);
    FUZZ_CHECK(cp == '\n' || !Zub::isControl(cp));
    i += n;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The segment: the bytes as they come, or a real table with some of its bytes
  // overwritten (so that the fuzzer reaches the rows without guessing the header).
  FuzzedDataProvider in(data, size);
  std::unique_ptr<Stova::Segment> seg;
  if (in.ConsumeBool()) {
    const std::string bytes = in.ConsumeRemainingBytesAsString();
    seg = Stova::Segment::heap(bytes.size());
    std::memcpy(seg->data(), bytes.data(), bytes.size());
  } else {
    const auto capacity = in.ConsumeIntegralInRange<uint32_t>(1, 4);
    auto table = Stova::Ipfix::CollectorStatistics::createLocal(capacity);
    seg = Stova::Segment::heap(table->segment().bytes());
    std::memcpy(seg->data(), table->segment().data(), seg->bytes());
    while (in.remaining_bytes() > 0) {
      const auto at = in.ConsumeIntegralInRange<size_t>(64, seg->bytes() - 1);
      const std::string patch = in.ConsumeRandomLengthString(64);
      std::memcpy(seg->data() + at, patch.data(), std::min(patch.size(), seg->bytes() - at));
    }
  }
  const size_t bytes = seg->bytes();
  std::unique_ptr<Stova::Ipfix::CollectorStatisticsReader> reader;
  try {
    reader = std::make_unique<Stova::Ipfix::CollectorStatisticsReader>(std::move(seg));
  } catch (const Zub::Exception&) {
    return 0;  // not a table of this layout: refused
  }
  size_t busy = 0;
  const auto rows = reader->all(&busy, std::chrono::milliseconds(0));
  const size_t capacity = (bytes - sizeof(Stova::ControlBlock)) / (16 + sizeof(Entry));
  FUZZ_CHECK(rows.size() + busy <= capacity);
  for (auto format :
       {Agent::StatsFormat::table, Agent::StatsFormat::json, Agent::StatsFormat::prometheus}) {
    checkText(Agent::renderCollectorStats(rows, format));
  }
  for (const Entry& e : rows) checkText(Agent::timeText(e.lastSentTime));
  return 0;
}
